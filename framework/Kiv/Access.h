// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What a row of a type's table needs for access by name, made from the typed accessors:
//
//    value< &EventConfig::timeout, &EventConfig::timeoutIs >()
//    reads< &EventConfig::uid >()                                    fixed
//    keyed< &Progress::stage, &Progress::stages, &Progress::stageIteratorConst,
//           &Progress::hasStage >()
//       .memberWrites< &Progress::stageIs >()
//       .memberDeletes< &Progress::stageDel, &Progress::stageDelAll >()
//    calls< &LogSm::logIs >( "msg" )
//
// So a write by name does what the setter does: the same order, the same notifications, the same
// errors.
#pragma once

#include <Kiv/Attribute.h>
#include <Kiv/Exception.h>
#include <Kiv/Export.h>
#include <Kiv/Type.h>
#include <Kiv/Value.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Kiv {

// A walk over the keys of a collection, as a row without typed accessors needs it: made by the
// row's function `walk`, and the caller's. Derived classes keep the collection's owner alive, and
// stand whatever becomes of the collection meanwhile.
class KIV_EXPORT KeyWalk : public KivMemPool {
 public:
   KeyWalk() = default;
   virtual ~KeyWalk();
   KeyWalk( KeyWalk const & ) = delete;
   KeyWalk & operator=( KeyWalk const & ) = delete;
   virtual bool stands() const = 0;
   virtual String8 key() const = 0;
   virtual void advance() = 0;
   virtual void reset() = 0;
};

namespace detail {

template< class M >
struct MemberFunction;
template< class R, class C, class... A >
struct MemberFunction< R ( C::* )( A... ) > {
   using Result = R;
   using Class = C;
   static constexpr std::size_t arguments = sizeof...( A );
   template< std::size_t n >
   using Argument = std::remove_cvref_t< std::tuple_element_t< n, std::tuple< A... > > >;
};
template< class R, class C, class... A >
struct MemberFunction< R ( C::* )( A... ) const > : MemberFunction< R ( C::* )( A... ) > {};

template< auto member >
using ClassOf = typename MemberFunction< decltype( member ) >::Class;
template< auto member, std::size_t n >
using ArgumentOf = typename MemberFunction< decltype( member ) >::template Argument< n >;

template< class T >
struct Pointee;
template< class T >
struct Pointee< Ptr< T > > {
   using type = T;
};
template< class T >
concept Pointer = requires { typename Pointee< T >::type; };

template< class Iterator >
class IteratorWalk : public KeyWalk {
 public:
   explicit IteratorWalk( Iterator iterator ) : iterator_( std::move( iterator ) ) {}
   [[gnu::cold]] bool stands() const override { return iterator_.hasBookmark(); }
   [[gnu::cold]] String8 key() const override { return String8( iterator_.key() ); }
   [[gnu::cold]] void advance() override { iterator_.advance(); }
   [[gnu::cold]] void reset() override { iterator_.reset(); }

 private:
   Iterator iterator_;
};

// ---- from a value to what a setter takes. Text is converted; a value that fits no other way is
// refused with the type exception for `name`.

KIV_EXPORT bool toBool( String8 const & name, Value const & value );
KIV_EXPORT double toDouble( String8 const & name, Value const & value );
KIV_EXPORT unsigned int toNumber( String8 const & name, Value const & value );
KIV_EXPORT String8 toText( String8 const & name, Value const & value );
// Nothing is null. With `toChange`, an object that may only be read is refused.
KIV_EXPORT PtrInterface const * toObject( String8 const & name, Value const & value,
                                          bool toChange );
[[noreturn]] KIV_EXPORT void throwWrongObject( String8 const & name, Value const & value );

} // namespace detail

// What a setter takes, of a value that was given for `name`: T is bool, double, unsigned int,
// String8, Name, or a Ptr. Text is converted, but never to a pointer; nothing is a null pointer.
// Any other value is refused with the type exception for `name`, text that is no value of T with a
// range exception.
template< class T >
T fromValue( String8 const & name, Value const & value ) {
   if constexpr( std::same_as< T, bool > )
      return detail::toBool( name, value );
   else if constexpr( std::same_as< T, double > )
      return detail::toDouble( name, value );
   else if constexpr( std::same_as< T, unsigned int > )
      return detail::toNumber( name, value );
   else if constexpr( detail::Pointer< T > ) {
      using U = typename detail::Pointee< T >::type;
      PtrInterface const * const object = detail::toObject( name, value, !std::is_const_v< U > );
      auto const * const typed = dynamic_cast< U const * >( object );
      if( object && !typed )
         detail::throwWrongObject( name, value );
      return T( const_cast< U * >( typed ) ); // asked above whether it may be changed
   } else
      return T( detail::toText( name, value ) );
}

// The list that the value is: else the type exception for `name`. It is the value's.
KIV_EXPORT List_ const & listFromValue( String8 const & name, Value const & value );
// For members that are written under a key and have one of their own: a range exception that names
// both when they differ.
KIV_EXPORT void checkKey( Text const & given, Text const & own );

namespace detail {

template< class T >
Value toValue( T const & value ) {
   return Value( value );
}
// A plain pointer to an owner, which may be under construction: nothing then.
template< class T >
Value toValue( T * const & owner ) {
   return owner && owner->references() ? Value( Ptr< T >( owner ) ) : Value();
}

// What rows are reached by. Nobody waits for it, and there is one for each attribute: they are made
// small, not fast.

template< auto get >
[[gnu::cold]] Value readWith( PtrInterface const & object ) {
   return toValue( ( static_cast< ClassOf< get > const & >( object ).*get )() );
}
template< auto set >
[[gnu::cold]] void writeWith( PtrInterface & object, String8 const & name, Value const & value ) {
   ( static_cast< ClassOf< set > & >( object ).*
     set )( fromValue< ArgumentOf< set, 0 > >( name, value ) );
}
// The list that the value is, which has each of the names and nothing else.
KIV_EXPORT List_ const & argumentList( String8 const & attribute, Value const & value,
                                       std::span< char const * const > names );
template< class T >
T argumentIn( List_ const & list, char const * name ) {
   T const argument = fromValue< T >( name, *list.value( name ) );
   if constexpr( Pointer< T > )
      valid( argument );
   return argument;
}
template< auto set, auto const & names >
[[gnu::cold]] void writeListWith( PtrInterface & object, String8 const & attribute,
                                  Value const & value ) {
   List_ const & list = argumentList( attribute, value, names );
   [ & ]< std::size_t... n >( std::index_sequence< n... > ) {
      // In braces one after the other, so that the first that is wrong is the one that is named.
      std::tuple< ArgumentOf< set, n >... > const arguments{
         argumentIn< ArgumentOf< set, n > >( list, names[ n ] )... };
      ( static_cast< ClassOf< set > & >( object ).*set )( std::get< n >( arguments )... );
   }( std::make_index_sequence< std::size( names ) >() );
}
template< auto operation >
[[gnu::cold]] void callWith( PtrInterface & object, Value const * argument ) {
   auto & typed = static_cast< ClassOf< operation > & >( object );
   if constexpr( MemberFunction< decltype( operation ) >::arguments == 0 )
      ( typed.*operation )();
   else // the dispatch has looked at the argument's type
      ( typed.*operation )( ArgumentOf< operation, 0 >( argument->text() ) );
}
template< auto operation, auto whole >
[[gnu::cold]] void callEither( PtrInterface & object, Value const * argument ) {
   return argument ? callWith< operation >( object, argument )
                   : callWith< whole >( object, nullptr );
}

template< auto get, auto has >
[[gnu::cold]] Value memberWith( PtrInterface const & object, Text const & key ) {
   auto const & typed = static_cast< ClassOf< get > const & >( object );
   using K = ArgumentOf< get, 0 >;
   if constexpr( !std::same_as< decltype( has ), std::nullptr_t > )
      if( !( typed.*has )( K( key ) ) )
         return Value();
   return toValue( ( typed.*get )( K( key ) ) );
}
template< auto count >
[[gnu::cold]] std::uint32_t countWith( PtrInterface const & object ) {
   return ( static_cast< ClassOf< count > const & >( object ).*count )();
}
template< auto iterator >
[[gnu::cold]] KeyWalk * walkWith( PtrInterface const & object ) {
   using Iterator = typename MemberFunction< decltype( iterator ) >::Result;
   return new IteratorWalk< Iterator >(
      ( static_cast< ClassOf< iterator > const & >( object ).*iterator )() );
}
template< auto set >
[[gnu::cold]] void memberIsWith( PtrInterface & object, Text const & key, String8 const & name,
                                 Value const & value ) {
   ( static_cast< ClassOf< set > & >( object ).*
     set )( ArgumentOf< set, 0 >( key ), fromValue< ArgumentOf< set, 1 > >( name, value ) );
}
template< auto set, auto keyOf >
[[gnu::cold]] void memberIsUnder( PtrInterface & object, Text const & key, String8 const & name,
                                  Value const & value ) {
   auto const member = fromValue< ArgumentOf< set, 0 > >( name, value );
   if( member )
      checkKey( key, ( member.get()->*keyOf )() );
   ( static_cast< ClassOf< set > & >( object ).*set )( member );
}
template< class T >
[[gnu::cold]] void fits( String8 const & name, Value const & value ) {
   static_cast< void >( fromValue< T >( name, value ) );
}
inline void fitsNothing( String8 const & name, Value const & value ) {
   if( !value.is( Value::Kind::nothing ) )
      throwWrongObject( name, value );
}
template< auto make >
[[gnu::cold]] void memberMake( PtrInterface & object, Text const & key, String8 const &,
                               Value const & ) {
   ( static_cast< ClassOf< make > & >( object ).*make )( ArgumentOf< make, 0 >( key ) );
}
template< auto del >
[[gnu::cold]] void memberDelWith( PtrInterface & object, Text const & key ) {
   ( static_cast< ClassOf< del > & >( object ).*del )( ArgumentOf< del, 0 >( key ) );
}
template< auto delAll >
[[gnu::cold]] void memberDelAllWith( PtrInterface & object ) {
   ( static_cast< ClassOf< delAll > & >( object ).*delAll )();
}

} // namespace detail

// One of several operations of a name: overload< void( Name ) >( &ConfigSm::handleAgent ).
template< class Signature, class C >
constexpr auto overload( Signature C::*member ) {
   return member;
}

// An attribute that can only be read.
template< auto get >
constexpr Access reads() {
   Access access;
   access.read = &detail::readWith< get >;
   return access;
}
template< auto get, auto set >
constexpr Access value() {
   return reads< get >().template writes< set >();
}
// A handler or operation; `argument` is the name of what it takes.
template< auto operation >
constexpr Access calls( char const * argument = nullptr ) {
   Access access;
   access.call = &detail::callWith< operation >;
   access.argument = argument;
   return access;
}
// One that is called for one key, or without it for all.
template< auto operation, auto whole >
constexpr Access callsEither( char const * argument ) {
   Access access;
   access.call = &detail::callEither< operation, whole >;
   access.argument = argument;
   access.argumentMayMiss = true;
   return access;
}
// A collection, by its getter, count and iterator; `has` tells an absent member from one that has
// its type's first value, where the getter cannot.
template< auto get, auto count, auto iterator, auto has = nullptr >
constexpr Access keyed() {
   Access access;
   access.member = &detail::memberWith< get, has >;
   access.count = &detail::countWith< count >;
   access.walk = &detail::walkWith< iterator >;
   return access;
}

template< auto set >
constexpr Access Access::writes() const {
   Access more = *this;
   more.write = &detail::writeWith< set >;
   return more;
}
// By a setter of several arguments, which are given as a list, each under its name: names is an
// array of static storage, in the order of the setter. All of them have to be there, and no pointer
// may be null.
template< auto set, auto const & names >
constexpr Access Access::writesList() const {
   static_assert( std::size( names ) == detail::MemberFunction< decltype( set ) >::arguments );
   Access more = *this;
   more.write = &detail::writeListWith< set, names >;
   return more;
}
template< auto gone >
constexpr Access Access::deletes() const {
   Access more = *this;
   more.del = &detail::memberDelAllWith< gone >;
   return more;
}
// By a setter that takes key and value,
template< auto set >
constexpr Access Access::memberWrites() const {
   Access more = *this;
   more.memberIs = &detail::memberIsWith< set >;
   more.memberFits = &detail::fits< detail::ArgumentOf< set, 1 > >;
   return more;
}
// one that takes the key from the member: it has to be the one that was given,
template< auto set, auto keyOf >
constexpr Access Access::memberWritesUnder() const {
   Access more = *this;
   more.memberIs = &detail::memberIsUnder< set, keyOf >;
   more.memberFits = &detail::fits< detail::ArgumentOf< set, 0 > >;
   return more;
}
// one that takes the key and makes the member: nothing is the only value,
template< auto make >
constexpr Access Access::memberMakes() const {
   Access more = *this;
   more.memberIs = &detail::memberMake< make >;
   more.memberFits = &detail::fitsNothing;
   return more;
}
// or by a function of the table's own, which is given a value that converts to T.
template< class T >
constexpr Access Access::memberWritesWith( decltype( memberIs ) with ) const {
   Access more = *this;
   more.memberIs = with;
   more.memberFits = &detail::fits< T >;
   return more;
}
template< auto del, auto delAll >
constexpr Access Access::memberDeletes() const {
   Access more = *this;
   more.memberDel = &detail::memberDelWith< del >;
   more.memberDelAll = &detail::memberDelAllWith< delAll >;
   return more;
}

// ---- rows of state machines: the Attribute whole, where there is only one way to spell it

namespace detail {

// How the type of a key, or of a handler's argument, is called.
template< class T >
constexpr char const * keyName = "Kiv::String8";
template<>
inline constexpr char const * keyName< Name > = "Kiv::Name";

template< auto operation >
constexpr char const * argumentName() {
   if constexpr( MemberFunction< decltype( operation ) >::arguments == 0 )
      return "";
   else
      return keyName< ArgumentOf< operation, 0 > >;
}

} // namespace detail

// What the constructor was given and nothing changes.
template< auto get >
constexpr Attribute fixed( char const * name, char const * type, Role more = Role::value ) {
   return Attribute( name, type, "", Role::constructorArgument | more, reads< get >() );
}
// A value, which `set` changes.
template< auto get, auto set >
constexpr Attribute plain( char const * name, char const * type ) {
   return Attribute( name, type, "", Role::value, value< get, set >() );
}
// One that is worked out or made by the machine itself.
template< auto get >
constexpr Attribute readOnly( char const * name, char const * type, Role role = Role::value ) {
   return Attribute( name, type, "", role, reads< get >() );
}
// fwkKey, the key in the owner's collection.
template< auto get >
constexpr Attribute ownKey() {
   using K = typename detail::MemberFunction< decltype( get ) >::Result;
   return Attribute( "fwkKey", detail::keyName< K >, "", Role::framework, reads< get >() );
}
// A handler; `argument` is the name of what it takes.
template< auto operation >
constexpr Attribute handler( char const * name, char const * argument = nullptr ) {
   return Attribute( name, "", detail::argumentName< operation >(), Role::handler,
                     calls< operation >( argument ) );
}
// One that is there for one key K, and for all of them.
template< class K, class C, void ( C::*one )( K ), void ( C::*all )() >
constexpr Attribute handlers( char const * name, char const * argument ) {
   return Attribute( name, "", detail::keyName< K >, Role::handler,
                     callsEither< one, all >( argument ) );
}
// An operation that others call.
template< auto called >
constexpr Attribute operation( char const * name, char const * argument = nullptr ) {
   return Attribute( name, "", detail::argumentName< called >(), Role::operation,
                     calls< called >( argument ) );
}

namespace detail {

template< class Machine >
[[gnu::cold]] void markWith( PtrInterface & object, String8 const & name, Value const & value ) {
   static_cast< Machine & >( object ).kivDoZombieReactors( toBool( name, value ) );
}
KIV_EXPORT Value readActivity( PtrInterface const & object );

} // namespace detail

// A row that every state machine has, hasNotificationActiveIs: whether notifications are delivered.
constexpr Attribute notificationSwitch() {
   return Attribute(
      "hasNotificationActiveIs", "bool", "", Role::framework,
      value< &PtrInterface::hasNotificationActive, &PtrInterface::hasNotificationActiveIs >() );
}
// Another one, kivDoZombieReactors: whether it and its reactors are marked for deletion.
template< class Machine >
constexpr Attribute zombieSwitch() {
   Access access = reads< &PtrInterface::kivMarkedForDeletion >();
   access.write = &detail::markWith< Machine >;
   return Attribute( "kivDoZombieReactors", "bool", "", Role::framework, access );
}
// A third, kivFwkActivity: where the handlers run. `set`, if given, sets it.
template< auto set = nullptr >
constexpr Attribute activity() {
   Access access;
   access.read = &detail::readActivity;
   if constexpr( !std::same_as< decltype( set ), std::nullptr_t > )
      access = access.writes< set >();
   return Attribute( "kivFwkActivity", "Kiv::Ptr<Kiv::ActivityConfig>", "", Role::framework,
                     access );
}

// Whether each of these, of a Machine, gives something other than null: for machineTable().
template< class Machine, auto... gets >
bool hasEach( PtrInterface const & object ) {
   auto const & machine = static_cast< Machine const & >( object );
   return ( static_cast< bool >( ( machine.*gets )() ) && ... );
}

// The table of a state machine, or of a reactor that one owns: its own rows, then the two switches.
// `ready`, if given, tells of a Machine whether its handlers and operations may be called: whoever
// calls by name may keep one longer than its owner, or what it watches. A collection that runs
// handlers when it changes says so itself (Access::whenever).
template< class Machine, std::size_t n >
constexpr std::array< Attribute, n + 2 > machineTable( Attribute const ( &rows )[ n ],
                                                       decltype( Access::ready ) ready = nullptr ) {
   return [ & ]< std::size_t... i >( std::index_sequence< i... > ) {
      std::array< Attribute, n + 2 > table{ rows[ i ]..., notificationSwitch(),
                                            zombieSwitch< Machine >() };
      for( Attribute & row : table )
         if( has( row.role, Role::handler | Role::operation ) )
            row.access.ready = ready;
      numberThem( table );
      return table;
   }( std::make_index_sequence< n >() );
}

} // namespace Kiv
