// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Dir.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Kiv {

namespace {

using N = Dir::NotifieeConst;
constexpr auto rows = numbered( {
   Attribute( "entityPtr", "Kiv::Ptr<Kiv::Entity>", "Kiv::Name", Role::collection | Role::notifying,
              members< Name, N, &N::onEntityPtr, &N::onEntityPtrkivImmediate, &N::onEntityPtr >(),
              keyed< &Dir::entityPtr, &Dir::entityPtrs, &Dir::entityPtrIteratorConst >()
                 .memberWritesUnder< &Dir::entityPtrIs, &Entity::name >()
                 .memberDeletes< &Dir::entityPtrDel, &Dir::entityPtrDelAll >() ),
} );

} // namespace

void Dir::NotifieeConst::onEntityPtr( Name ) {}
void Dir::NotifieeConst::onEntityPtrkivImmediate() {}
void Dir::NotifieeConst::onEntityPtr() {}

Ptr< Dir > Dir::DirIs( Name const & name ) { return new Dir( name ); }
Dir::Dir( Name const & name ) : Entity( name ) {}
Dir::~Dir() = default;

Ptr< Entity > Dir::entityPtr( Name const & name ) const { return entityPtr_.member( name ); }
std::uint32_t Dir::entityPtrs() const { return entityPtr_.size(); }
Dir::EntityPtrIterator Dir::entityPtrIterator() { return { this, entityPtr_.map() }; }
Dir::EntityPtrIteratorConst Dir::entityPtrIteratorConst() const {
   return { this, entityPtr_.map() };
}
void Dir::entityPtrIs( Ptr< Entity > const & entity ) {
   if( !entity )
      throwRangeException( "null ValidPtr" );
   entityPtr_.memberIs( *this, rows[ 0 ], entity->name(), entity );
}
void Dir::entityPtrDel( Name const & name ) { entityPtr_.memberDel( *this, rows[ 0 ], name ); }
void Dir::entityPtrDelAll() { entityPtr_.memberDelAll( *this, rows[ 0 ] ); }

KivType const & Dir::fwkType() const { return _fwkType(); }
KivType const & Dir::_fwkType() {
   static KivType const type( "Kiv::Dir", &Entity::_fwkType(), rows );
   return type;
}

} // namespace Kiv
