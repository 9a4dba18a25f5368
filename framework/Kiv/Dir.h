// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Directories: entities filed under their names.
#pragma once

#include <Kiv/Attribute.h>
#include <Kiv/Entity.h>
#include <Kiv/Export.h>

namespace Kiv {

// Holds other entities by name. Holds references to them, and is not their parent: an entity may
// stand in several directories. Cost: as HashMap.
class KIV_EXPORT Dir : public Entity {
 public:
   class KIV_EXPORT NotifieeConst : public NotifieeOf< Dir, Entity::NotifieeConst > {
    public:
      virtual void onEntityPtr( Name name );
      virtual void onEntityPtrkivImmediate();
      virtual void onEntityPtr();

      // The names above, for newReactor().
      template< class R, class Form >
      static constexpr bool kivCallbacks[] = {
         ( requires { Form()( &R::onEntityPtr, &NotifieeConst::onEntityPtr ); } ),
         ( requires {
            Form()( &R::onEntityPtrkivImmediate, &NotifieeConst::onEntityPtrkivImmediate );
         } ),
      };
   };
   class KIV_EXPORT Notifiee : public WritingNotifieeOf< Dir, NotifieeConst > {};

   using EntityPtrMap = HashMap< Entity, Name >;
   using EntityPtrIterator = OwnedIterator< EntityPtrMap, Dir >;
   using EntityPtrIteratorConst = OwnedIterator< EntityPtrMap, Dir const >;

   // Throws the range exception "empty name".
   static Ptr< Dir > DirIs( Name const & name );
   ~Dir() override;

   // Null when absent.
   Ptr< Entity > entityPtr( Name const & name ) const;
   std::uint32_t entityPtrs() const;
   EntityPtrIterator entityPtrIterator();
   EntityPtrIteratorConst entityPtrIteratorConst() const;
   // Files the entity under its own name, in place of what stands there. Null is refused with the
   // range exception "null ValidPtr".
   void entityPtrIs( Ptr< Entity > const & entity );
   // Nothing happens when the name is absent.
   void entityPtrDel( Name const & name );
   void entityPtrDelAll();

   KivType const & fwkType() const override;
   static KivType const & _fwkType();

 private:
   explicit Dir( Name const & name );

   Collection< Entity, Name > entityPtr_;
};

} // namespace Kiv
