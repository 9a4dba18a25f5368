// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Which types there are: each library registers its own when it is loaded.
#pragma once

#include <Kiv/Export.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>
#include <Kiv/Type.h>

#include <cstddef>

namespace Kiv {

// Describes one attribute of one type. One object for each row, made when it is first asked for
// (KivType::attr) and kept for the life of the process.
class KIV_EXPORT KivAttr : public PtrInterface {
 public:
   ~KivAttr() override;
   KivType const & owner() const { return owner_; }
   Attribute const & row() const { return row_; }
   AttributeId id() const { return row_.id; }
   String8 name() const { return row_.name; }
   String8 type() const { return row_.type; }
   // Of a collection's members, or of a handler's argument; else "".
   String8 key() const { return row_.key; }
   Role role() const { return row_.role; }

 private:
   friend class KivType;
   KivAttr( KivType const & owner, Attribute const & row );

   KivType const & owner_;
   Attribute const & row_;
};

// Registers a type under its full name. The same one again is nothing; another one of a name that
// is taken is refused with the name-in-use exception. The type and what its rows point to are used
// until the process is gone: they are objects of static lifetime that need no destruction. Like any
// other use of the activity it is for the activity's thread, once there is one; another thread is
// told of and ends the process (Activity.h).
KIV_EXPORT void typeNodeIs( KivType const & type );
// The registered type of that name; null when there is none.
KIV_EXPORT KivType const * typeNode( String8 const & name );
// All of them by number, in the order of registration. A range exception for a number that is not
// below typeNodes().
KIV_EXPORT std::size_t typeNodes();
KIV_EXPORT KivType const & typeNode( std::size_t place );

// Is told of every type that is registered, and of those that were before it: each once, in order.
// Owned by whoever made it. A callback may register types, and register or unregister any
// reactor; it must not destroy the one that is called.
class KIV_EXPORT IntrospectionReactor {
 public:
   IntrospectionReactor() = default;
   virtual ~IntrospectionReactor();
   IntrospectionReactor( IntrospectionReactor const & ) = delete;
   IntrospectionReactor & operator=( IntrospectionReactor const & ) = delete;

   // Tells it at once of the types that it has not been told of.
   void isRegisteredIs( bool registered );
   bool isRegistered() const { return registered_; }
   virtual void onTypeNode( KivType const & type ) = 0;

 private:
   friend KIV_EXPORT void typeNodeIs( KivType const & type );
   void catchUp();

   std::size_t told_ = 0;
   bool registered_ = false;
};

} // namespace Kiv
