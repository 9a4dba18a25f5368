// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Access to the attributes of any object by their names.
//
//    Kiv::GenericIf stage( stageSm );
//    stage.read( "complete" ).boolean();
//    stage.call( "handleEventDel", { { "agentName", "Net" } } );
//    for( auto i = stage.attributeIteratorConst( stage.attributeId( "pendingEvent" ) ); i; ++i )
//       std::cout << i.key() << '\n';
#pragma once

#include <Kiv/Exception.h>
#include <Kiv/Export.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>
#include <Kiv/Type.h>
#include <Kiv/Value.h>

#include <concepts>
#include <cstdint>
#include <memory>

namespace Kiv {

// An error of access by name. name() is what the error is about: an attribute, an argument, a type.
class KIV_EXPORT GenericException : public Exception {
 public:
   ~GenericException() override;
   String8 const & name() const { return name_; }

 protected:
   GenericException( Id id, String8 const & name, String8 const & text );

 private:
   String8 name_;
};
class KIV_EXPORT ConstException : public GenericException {
 public:
   explicit ConstException( String8 const & text );
   ~ConstException() override;
};
class KIV_EXPORT TypeException : public GenericException {
 public:
   TypeException( String8 const & name, String8 const & text );
   ~TypeException() override;
};
class KIV_EXPORT UnknownArgException : public GenericException {
 public:
   UnknownArgException( String8 const & attribute, String8 const & text );
   ~UnknownArgException() override;
};
class KIV_EXPORT OpNotSupportedException : public GenericException {
 public:
   OpNotSupportedException( String8 const & attribute, String8 const & text );
   ~OpNotSupportedException() override;
};
class KIV_EXPORT BadIndexAttrException : public GenericException {
 public:
   BadIndexAttrException( String8 const & attribute, String8 const & text );
   ~BadIndexAttrException() override;
};
class KIV_EXPORT UnknownAttrException : public GenericException {
 public:
   UnknownAttrException( String8 const & attribute, String8 const & text );
   ~UnknownAttrException() override;
};

// Reads, writes and calls the attributes of one object by name. The rows of the object's own type
// answer first, then those of its base, and so on; what no type knows is refused by the dispatch
// that all objects share.
//
// Holds the object. What is read through a const instance is const in turn, so that nothing that
// can be reached from one can be changed. A write does what the attribute's setter does: the same
// notifications, queued in the same order, and the same errors.
//
// Errors, checked in this order:
//    the attribute is unknown                               UnknownAttrException
//    anything but a read, through a const instance          ConstException
//    the attribute does not have the operation              OpNotSupportedException
//    an index where there are no members, or none where it
//    takes one                                              BadIndexAttrException
//    a value for an operation that takes none               TypeException, the attribute
//    the argument of a call is no List_                     TypeException, "Kiv::GenericIf::List_"
//    an argument that the call does not have                UnknownArgException, the attribute
//    a value or argument of another type, or text for a
//    pointer                                                TypeException, the attribute or
//    argument text that is no value of the attribute's type          RangeException a handler, or a
//    member that handlers follow, of an object that has lost its owner or what it watches
//    RangeException whatever the setter or handler throws
// Nothing has changed after any of these but the last, for which the setter says it.
//
// Not for code that knows the type: the typed accessors need no look-up and are checked by the
// compiler. Cost: linear in the number of the type's attributes for a look-up by name or number;
// reading a whole collection, linear in its members.
class KIV_EXPORT GenericIf {
 public:
   using Value = Kiv::Value;
   using List_ = Kiv::List_;
   enum class Op { read, write, call, del, delAll };
   // The key of a member.
   struct Index {
      String8 key;
   };

   // A range exception for null: "null ValidPtr".
   template< std::derived_from< PtrInterface > T >
   explicit GenericIf( Ptr< T > const & instance ) : GenericIf( Kiv::Value( instance ) ) {}
   // The type exception for a value that is no object.
   explicit GenericIf( Kiv::Value const & instance );

   KivType const & type() const;
   Ptr< PtrInterface const > const & instance() const { return instance_; }
   bool isConst() const { return !mutable_; }

   AttributeId attributeId( String8 const & name ) const;
   // The row of that name.
   Attribute const & attribute( String8 const & name ) const;
   Attribute const & attribute( AttributeId id ) const;

   // Does `op` to the attribute or, with an index, to its member under that key.
   //  read     the value. Of a collection: a list of its members, named by key. A member that is
   //           absent, and a pointer that is null, is nothing.
   //  write    `argument` is the value: of the attribute's type, or text for it (not for a pointer;
   //           nothing for null).
   //  call     `argument` is a List_ of the named arguments. Gives nothing.
   //  del      removes a member, or what a single attribute holds; nothing happens when it is
   //  absent. delAll   removes all members; takes no index.
   Kiv::Value attributeOp( AttributeId id, Op op, Kiv::Value const & argument = {} ) const;
   Kiv::Value attributeOp( AttributeId id, Op op, Index const & index,
                           Kiv::Value const & argument = {} ) const;
   Kiv::Value attributeOp( String8 const & name, Op op, Kiv::Value const & argument = {} ) const;
   Kiv::Value attributeOp( String8 const & name, Op op, Index const & index,
                           Kiv::Value const & argument = {} ) const;

   // The same, shorter.
   Kiv::Value read( String8 const & name ) const { return attributeOp( name, Op::read ); }
   Kiv::Value read( String8 const & name, Index const & index ) const {
      return attributeOp( name, Op::read, index );
   }
   void write( String8 const & name, Kiv::Value const & value ) const {
      attributeOp( name, Op::write, value );
   }
   void call( String8 const & name, List_ const & arguments = {} ) const {
      attributeOp( name, Op::call, arguments );
   }

   // How many members a collection has.
   std::uint32_t attributeCount( AttributeId id ) const;

   // A walk over a collection's members, which survives every change of it and keeps its owner
   // alive. Members are read when they are asked for: nothing for one that is gone meanwhile.
   class KIV_EXPORT AttributeIterator {
    public:
      AttributeIterator( AttributeIterator && other ) noexcept;
      AttributeIterator & operator=( AttributeIterator && other ) noexcept;
      ~AttributeIterator();

      explicit operator bool() const;
      bool hasBookmark() const { return static_cast< bool >( *this ); }
      String8 key() const;
      Kiv::Value value() const;
      void advance();
      void reset();
      AttributeIterator & operator++() {
         advance();
         return *this;
      }

    private:
      friend class GenericIf;
      AttributeIterator( Kiv::Value const & owner, Attribute const & row );

      Kiv::Value owner_;
      Attribute const * row_;
      std::unique_ptr< KeyWalk > walk_;
   };

   // Members that may be changed: the const exception for a const instance. Both refuse what is
   // no collection with BadIndexAttrException.
   AttributeIterator attributeIterator( AttributeId id ) const;
   AttributeIterator attributeIteratorConst( AttributeId id ) const;
   // The key at which the iterator stands; a range exception at the end.
   static String8 attributeIteratorKey( AttributeIterator const & iterator );

   // What the dispatch throws. Each exception's name() is the first argument; its text says that
   // and the detail, but for the first, whose text is the argument.
   [[noreturn]] static void throwConstException( String8 const & text );
   [[noreturn]] static void throwTypeException( String8 const & name, String8 const & detail = {} );
   [[noreturn]] static void throwUnknownArgException( String8 const & attribute,
                                                      String8 const & detail = {} );
   [[noreturn]] static void throwOpNotSupportedException( String8 const & attribute,
                                                          String8 const & detail = {} );
   [[noreturn]] static void throwBadIndexAttrException( String8 const & attribute,
                                                        String8 const & detail = {} );
   [[noreturn]] static void throwUnknownAttrException( String8 const & attribute,
                                                       String8 const & detail = {} );

 private:
   struct Request;
   Kiv::Value answer( Request const & request ) const;

   Ptr< PtrInterface const > instance_;
   Ptr< PtrInterface > mutable_; // null for a const instance
};

} // namespace Kiv
