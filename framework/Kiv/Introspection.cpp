// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Introspection.h>

#include <Kiv/Clock.h>
#include <Kiv/Dir.h>
#include <Kiv/Entity.h>
#include <Kiv/Exception.h>

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include <Kiv/detail/Forever.h>
#include <Kiv/detail/Thread.h>

namespace Kiv {

namespace {

struct Registry {
   std::vector< KivType const * > types; // in order of registration
   std::unordered_map< String8, KivType const * > byName;
   std::unordered_map< Attribute const *, Ptr< KivAttr const > > attributes;
   std::vector< IntrospectionReactor * > reactors;

   void add( KivType const & type ) {
      types.reserve( types.size() + 1 );
      byName.emplace( type.name(), &type );
      types.push_back( &type );
   }

   // The framework's own come first, whoever asks first.
   Registry() {
      for( KivType const * type :
           { &Builtin< bool >::_fwkType(), &Builtin< double >::_fwkType(),
             &Builtin< unsigned int >::_fwkType(), &Builtin< String8 >::_fwkType(),
             &Builtin< Name >::_fwkType(), &PtrInterface::_fwkType(), &Entity::_fwkType(),
             &Dir::_fwkType(), &Clock::_fwkType() } )
         add( *type );
   }
};

// Never destroyed: types, and what refers to them, are used until the process is gone.
Registry & registry() {
   static detail::Forever< Registry > all;
   return *all;
}
[[maybe_unused]] Registry & loaded = registry();

} // namespace

KivAttr::KivAttr( KivType const & owner, Attribute const & row ) : owner_( owner ), row_( row ) {}
KivAttr::~KivAttr() = default;

Ptr< KivAttr const > KivType::attr( String8 const & name ) const {
   for( Attribute const & row : attributes_ )
      if( name == std::string_view( row.name ) ) {
         Ptr< KivAttr const > & held = registry().attributes[ &row ];
         if( !held )
            held = new KivAttr( *this, row );
         return held;
      }
   return base_ ? base_->attr( name ) : Ptr< KivAttr const >();
}

void typeNodeIs( KivType const & type ) {
   // Libraries register their types when they are loaded, which does not decide whose thread it is.
   if( detail::hasOwnThread() )
      detail::checkOwner( nullptr, type.name() );
   Registry & all = registry();
   if( KivType const * const held = typeNode( type.name() ) ) {
      if( held != &type )
         throwNameInUseException( "another type is registered as " + String8( type.name() ) );
      return;
   }
   all.add( type );
   // A callback may register and unregister: what is told is looked up afresh each time.
   auto const behind = [ & ] {
      auto const found =
         std::find_if( all.reactors.begin(), all.reactors.end(),
                       [ & ]( auto const * r ) { return r->told_ != all.types.size(); } );
      return found == all.reactors.end() ? nullptr : *found;
   };
   while( IntrospectionReactor * const reactor = behind() )
      reactor->catchUp();
}

KivType const * typeNode( String8 const & name ) {
   auto const found = registry().byName.find( name );
   return found == registry().byName.end() ? nullptr : found->second;
}
std::size_t typeNodes() { return registry().types.size(); }
KivType const & typeNode( std::size_t place ) {
   auto const & types = registry().types;
   if( place >= types.size() )
      throwRangeException( "there is no type " + std::to_string( place ) + ", only " +
                           std::to_string( types.size() ) + " are registered, from 0" );
   return *types[ place ];
}

IntrospectionReactor::~IntrospectionReactor() { isRegisteredIs( false ); }

void IntrospectionReactor::isRegisteredIs( bool registered ) {
   if( registered == registered_ )
      return;
   registered_ = registered;
   if( !registered ) {
      std::erase( registry().reactors, this );
      return;
   }
   registry().reactors.push_back( this );
   catchUp();
}

void IntrospectionReactor::catchUp() {
   while( registered_ && told_ != typeNodes() )
      onTypeNode( typeNode( told_++ ) );
}

} // namespace Kiv
