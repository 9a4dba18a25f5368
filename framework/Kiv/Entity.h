// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Entities: named objects with a parent.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Notifiee.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>
#include <Kiv/Type.h>

namespace Kiv {

// A named object. The name is fixed when it is made and never empty: an empty one is refused with
// the range exception "empty name".
//
// Owned by the Ptr's that refer to it. A member of a parent's collection is held by the parent and
// does not hold it; parentIs() called from outside makes the child hold its parent.
class KIV_EXPORT Entity : public PtrInterface {
 public:
   // Watches an entity for what every entity has.
   class KIV_EXPORT NotifieeConst : public PtrInterface::NotifieeConst {
    public:
      // As NotifieeOf has it, for an entity of any type.
      void watch( Ptr< Entity const > const & entity ) { watchObject( entity ); }
      // The entity's name; empty while nothing is watched.
      Name name() const override;
      void notifierIs( Ptr< PtrInterface const > const & entity ) override;
      virtual void onParent();
      // Reserved: never called.
      virtual void onVersion();

    protected:
      NotifieeConst();
   };

   ~Entity() override;

   virtual Name name() const;
   // Null for an entity on its own.
   virtual Ptr< Entity const > parent() const;
   virtual Ptr< Entity > parent();
   // Tells onParent(). A range exception when `parent` is this entity or a descendant of it.
   virtual void parentIs( Ptr< Entity > const & parent );
   // The name and number of the parent's attribute that holds this entity; "" and 0 if none.
   virtual String8 parentAttr() const;
   virtual AttributeId parentAttrId() const;
   virtual void parentAttrIdIs( AttributeId attribute );
   // "/" and the full name.
   virtual String8 uriPath() const;
   // The names from the outermost parent down to this entity, with "/" in between.
   virtual String8 fullName() const;
   // The name of an attribute of this entity's type; "" when it has none of that number.
   virtual String8 attributeString( AttributeId attribute ) const;
   // Adapters are reserved: no effect.
   virtual void kivNotifieeAdapterIs( Ptr< Entity const > const & entity );
   // Called after the parent has changed, with the new one; empty.
   virtual void handleParent( Ptr< Entity > const & parent );

   KivType const & fwkType() const override;
   static KivType const & _fwkType();

 protected:
   // Throws the range exception "empty name".
   explicit Entity( Name const & name );

   // For collections that own their members: the parent is not held, and the collection's owner
   // says null before it goes. Tells onParent().
   void ownerIs( Entity * parent, AttributeId attribute );
   // The same for a member that `owner`, which is being destroyed, has: tells as far as there is
   // memory. Nothing when its parent is another by now.
   void ownerGone( Entity const & owner ) noexcept;
   // Whether that is the parent. For owners under destruction too, of which no Ptr can be made.
   bool isChildOf( Entity const & owner ) const { return parent_ == &owner; }

   // Queues onIsNondestructing() after isNondestructingIs() changed the flag.
   void nondestructingIs( bool nondestructing, Attribute const & row );

 private:
   void releaseParent();

   Name name_;
   Entity * parent_ = nullptr; // held when the flag keepsParent says so
   AttributeId parentAttrId_ = noAttribute;
};

inline String8 valueToString( Entity const & entity ) { return entity.fullName(); }

// Prints the full name.
KIV_EXPORT std::ostream & operator<<( std::ostream & out, Entity const & entity );

} // namespace Kiv
