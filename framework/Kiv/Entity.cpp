// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Entity.h>

#include <Kiv/Access.h>
#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>

#include <ostream>

namespace Kiv {

namespace {

constexpr Attribute rows[] = {
   Attribute( "parent", "Kiv::Ptr<Kiv::Entity const>", "", Role::notifying,
              changes< &Entity::NotifieeConst::onParent >(),
              reads< overload< Ptr< Entity const >() const >( &Entity::parent ) >() )
      .numberIs( parentAttribute ),
   Attribute( "version", "", "", Role::notifying, changes< &Entity::NotifieeConst::onVersion >() )
      .numberIs( versionAttribute ),
};

} // namespace

Entity::NotifieeConst::NotifieeConst() { flagIs( hearsEntity, true ); }
void Entity::NotifieeConst::notifierIs( Ptr< PtrInterface const > const & entity ) {
   if( entity && !dynamic_cast< Entity const * >( entity.get() ) )
      throwOtherType( *entity );
   PtrInterface::NotifieeConst::notifierIs( entity );
}
Name Entity::NotifieeConst::name() const {
   auto const * entity = static_cast< Entity const * >( notifierPtr().get() );
   return entity ? entity->name() : Name();
}
void Entity::NotifieeConst::onParent() {}
void Entity::NotifieeConst::onVersion() {}

Entity::Entity( Name const & name ) : name_( name ) {
   if( name.empty() )
      throwRangeException( "empty name" );
}

Entity::~Entity() { releaseParent(); }

void Entity::releaseParent() {
   if( flag( keepsParent ) ) {
      flagIs( keepsParent, false );
      parent_->deleteRef();
   }
   parent_ = nullptr;
}

Name Entity::name() const { return name_; }
Ptr< Entity const > Entity::parent() const { return parent_; }
Ptr< Entity > Entity::parent() { return parent_; }

void Entity::parentIs( Ptr< Entity > const & parent ) {
   Ptr< Entity > const next = parent;
   if( parent_ == next.get() )
      return;
   for( Entity const * e = next.get(); e; e = e->parent_ )
      if( e == this )
         throwRangeException( fullName() + String8( " cannot be inside itself" ) );
   // Let go after the queueing: it may be the last reference.
   Ptr< Entity > const before = flag( keepsParent ) ? parent_ : nullptr;
   Change change( *this, rows[ 0 ], 0 );
   releaseParent();
   parent_ = next.get();
   parentAttrId_ = noAttribute;
   if( parent_ ) {
      parent_->newRef();
      flagIs( keepsParent, true );
   }
   change.queue();
   handleParent( next );
}

void Entity::ownerIs( Entity * parent, AttributeId attribute ) {
   Ptr< Entity > const before = flag( keepsParent ) ? parent_ : nullptr;
   Change change( *this, rows[ 0 ], 0 );
   releaseParent();
   parent_ = parent;
   parentAttrId_ = attribute;
   change.queue();
}

void Entity::ownerGone( Entity const & owner ) noexcept {
   if( !isChildOf( owner ) )
      return;
   try {
      ownerIs( nullptr, noAttribute );
   } catch( ... ) {
      releaseParent(); // no memory to tell of it
      parentAttrId_ = noAttribute;
   }
}

String8 Entity::parentAttr() const {
   return parent_ ? parent_->attributeString( parentAttrId_ ) : String8();
}
AttributeId Entity::parentAttrId() const { return parentAttrId_; }
void Entity::parentAttrIdIs( AttributeId attribute ) { parentAttrId_ = attribute; }
String8 Entity::uriPath() const { return String8( "/" ) + fullName(); }

String8 Entity::fullName() const {
   return parent_ ? parent_->fullName() + String8( "/" ) + String8( name_ ) : String8( name_ );
}

String8 Entity::attributeString( AttributeId attribute ) const {
   Attribute const * row = fwkType().attribute( attribute );
   return row ? String8( row->name ) : String8();
}

void Entity::kivNotifieeAdapterIs( Ptr< Entity const > const & ) {}
void Entity::handleParent( Ptr< Entity > const & ) {}

void Entity::nondestructingIs( bool on, Attribute const & row ) {
   if( on == isNondestructing() )
      return;
   Change change( *this, row, 0 );
   PtrInterface::isNondestructingIs( on );
   change.queue();
}

KivType const & Entity::fwkType() const { return _fwkType(); }
KivType const & Entity::_fwkType() {
   static KivType const type( "Kiv::Entity", &PtrInterface::_fwkType(), rows );
   return type;
}

std::ostream & operator<<( std::ostream & out, Entity const & entity ) {
   return out << entity.fullName();
}

} // namespace Kiv
