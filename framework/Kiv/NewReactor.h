// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Making a reactor, with all that can be said before it runs about what it would never be told.
#pragma once

#include <Kiv/Entity.h>
#include <Kiv/Exception.h>
#include <Kiv/Notifiee.h>
#include <Kiv/Ptr.h>

#include <concepts>
#include <type_traits>
#include <utility>

namespace Kiv {

namespace detail {

// The forms of a callback. Given the address of a member, each of these yields the class in which
// the member of its form stands, and is no match when there is none, or none that is public.
struct Whole {
   template< class C >
   std::type_identity< C > operator()( void ( C::*callback )() ) const;
};
template< class Key >
struct ForKey {
   template< class C >
   std::type_identity< C > operator()( void ( C::*callback )( Key ) ) const;
};
// A match when there is one member of the name only.
struct Alone {
   template< class Member >
   std::type_identity< Member > operator()( Member member ) const;
};
struct KeyOf {
   template< class C, class Key >
   std::type_identity< Key > operator()( void ( C::*callback )( Key ) ) const;
};

struct EntityCallbacks {
   template< class R >
   static auto kivCallback( Nth< 0 >, auto form ) -> decltype( form( &R::onParent ) );
   template< class R >
   static auto kivCallback( Nth< 1 >, auto form ) -> decltype( form( &R::onVersion ) );
};

// Whether `List` has a row n, and whether what R calls by the name of that row has such a form.
template< class List, class R, int n, class Form >
concept HasForm = requires( Form form ) { List::template kivCallback< R >( Nth< n >(), form ); };
template< class List, class R, int n, class Form >
using Found = typename decltype( List::template kivCallback< R >( Nth< n >(), Form() ) )::type;

// R, or a class between it and the type's own Base, has written that form out.
template< class List, class R, class Base, int n, class Form >
constexpr bool writesOut() {
   if constexpr( HasForm< List, R, n, Form > )
      return !std::derived_from< Base, Found< List, R, n, Form > >;
   else
      return false;
}

// What is wrong with the callbacks of a class of reactors. Whatever is not public is not looked at.
struct Findings {
   bool hides = false;       // a function of that name, which is no callback
   bool neverCalled = false; // forms of a collection's callback, without the one for a key
   bool silent = true;       // nothing is written out
};

template< class List, class R, class Base, int n >
constexpr void lookAtKeyed( Findings & all ) {
   using Key = ForKey< Found< List, Base, n, KeyOf > >;
   constexpr bool forKey = HasForm< List, R, n, Key >;
   constexpr bool alone = HasForm< List, R, n, Alone >;
   constexpr bool whole = writesOut< List, R, Base, n, Whole >();
   constexpr bool deferred = writesOut< List, R, Base, n + 1, Whole >();
   constexpr bool writesKey = writesOut< List, R, Base, n, Key >();
   all.hides |= alone && !forKey && !whole;
   all.neverCalled |= ( whole && alone ) || ( ( whole || deferred ) && forKey && !writesKey );
   all.silent &= forKey && !writesKey && !whole && !deferred;
}

template< class List, class R, class Base, int n = 0 >
constexpr void lookAt( Findings & all ) {
   if constexpr( HasForm< List, Base, n, KeyOf > ) {
      lookAtKeyed< List, R, Base, n >( all );
      lookAt< List, R, Base, n + 1 >( all );
   } else if constexpr( HasForm< List, Base, n, Whole > ) {
      constexpr bool whole = HasForm< List, R, n, Whole >;
      all.hides |= !whole && HasForm< List, R, n, Alone >;
      all.silent &= whole && !writesOut< List, R, Base, n, Whole >();
      lookAt< List, R, Base, n + 1 >( all );
   }
}

template< class E, class Base >
std::type_identity< E > watchedBy( NotifieeOf< E, Base > const & reactor );

// Of a type that does not list its callbacks nothing is known.
template< class R >
constexpr Findings findings() {
   Findings all;
   all.silent = false;
   if constexpr( requires( R const & reactor ) { watchedBy( reactor ); } ) {
      using Watched = typename decltype( watchedBy( std::declval< R const & >() ) )::type;
      using Base = typename Watched::NotifieeConst;
      if constexpr( HasForm< Base, Base, 0, Whole > || HasForm< Base, Base, 0, KeyOf > ) {
         all.silent = true;
         lookAt< Base, R, Base >( all );
         if constexpr( std::derived_from< R, Entity::NotifieeConst > )
            lookAt< EntityCallbacks, R, Entity::NotifieeConst >( all );
      }
   }
   return all;
}

} // namespace detail

// Makes a reactor, whose constructor gets the arguments and says watch( object ), and gives out the
// Ptr in which it belongs: whoever drops that is told of nothing more.
//
//    auto const watcher = Kiv::newReactor< Watcher >( stage );
//
// Does not compile for an R that would never be told of anything, though it looks as if: one that
// overrides no callback; one with a function that has a callback's name and another signature,
// which overrides nothing; one that overrides on<Attribute>() or on<Attribute>kivImmediate() of a
// collection, but not on<Attribute>( key ), the only one that is called for each change. What is
// not public in R is not looked at.
//
// Throws what R's constructor throws, and the range exception "the reactor watches nothing" when
// the constructor has not said watch(), or for null. Cost: that of `new`.
//
// Not for a reactor that is to watch something later only, and not for those that a state machine
// makes and switches on itself.
template< class R, class... Arguments >
[[nodiscard]] Ptr< R > newReactor( Arguments &&... arguments ) {
   static_assert( std::derived_from< R, PtrInterface::NotifieeConst >,
                  "no reactor: derive it from the NotifieeConst of the type that it watches, or "
                  "from its Notifiee to write what it watches" );
   constexpr detail::Findings found = detail::findings< R >();
   static_assert(
      !found.hides,
      "a function of this reactor has the name of a callback and another signature, so "
      "it would never be called: give it the signature that it has in the NotifieeConst "
      "of the watched type, and say override" );
   static_assert( !found.neverCalled,
                  "this reactor would not be told of each change of a collection: override "
                  "on<Attribute>( key ), and do there what it does in on<Attribute>() or "
                  "on<Attribute>kivImmediate()" );
   static_assert( found.hides || !found.silent,
                  "this reactor overrides no callback of what it watches, so it would be told of "
                  "nothing: override one of the functions on<Attribute> in the NotifieeConst of "
                  "the watched type" );
   Ptr< R > reactor( new R( std::forward< Arguments >( arguments )... ) );
   if( !reactor->isRegisteredNotifiee() || !reactor->hasNotificationActive() )
      throwRangeException( "the reactor watches nothing" );
   return reactor;
}

} // namespace Kiv
