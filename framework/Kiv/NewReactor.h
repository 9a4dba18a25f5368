// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Making a reactor, with all that can be said before it runs about what it would never be told.
#pragma once

#include <Kiv/Entity.h>
#include <Kiv/Exception.h>
#include <Kiv/Notifiee.h>
#include <Kiv/Ptr.h>

#include <concepts>
#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>

namespace Kiv {

namespace detail {

// The forms of a callback. Each is a match for two functions of one name, one of a class R of
// reactors and the one of the type's own NotifieeConst, of which R may have overloads.
struct Whole {
   template< class C, class D >
   void operator()( void ( C::*callback )(), void ( D::*declared )() ) const;
};
struct ForKey {
   template< class C, class D, class Key >
   void operator()( void ( C::*callback )( Key ), void ( D::*declared )( Key ) ) const;
};
// R has one member of the name only.
struct Alone {
   template< class Member, class D >
   void operator()( Member member, void ( D::*declared )() ) const;
};
// The same as the first two, if R or a class between it and Base has written it out.
template< class Base >
struct OwnWhole {
   template< class C, class D >
   void operator()( void ( C::*callback )(), void ( D::*declared )() ) const
      requires( !std::derived_from< Base, C > );
};
template< class Base >
struct OwnForKey {
   template< class C, class D, class Key >
   void operator()( void ( C::*callback )( Key ), void ( D::*declared )( Key ) ) const
      requires( !std::derived_from< Base, C > );
};

struct EntityCallbacks {
   template< class R, class Form >
   static constexpr bool kivCallbacks[] = {
      ( requires { Form()( &R::onParent, &Entity::NotifieeConst::onParent ); } ),
      ( requires { Form()( &R::onVersion, &Entity::NotifieeConst::onVersion ); } ),
   };
};

// What is wrong with the callbacks of a class of reactors. Whatever is not public is not looked at.
struct Findings {
   bool hides = false;       // a function of that name, which is no callback
   bool neverCalled = false; // forms of a collection's callback, without the one for a key
   bool silent = true;       // nothing is written out
};

template< class List, class R, class Base >
constexpr void lookAt( Findings & all ) {
   auto const & inBaseForKey = List::template kivCallbacks< Base, ForKey >;
   auto const & inWhole = List::template kivCallbacks< R, Whole >;
   auto const & inForKey = List::template kivCallbacks< R, ForKey >;
   auto const & inAlone = List::template kivCallbacks< R, Alone >;
   auto const & inOwnWhole = List::template kivCallbacks< R, OwnWhole< Base > >;
   auto const & inOwnForKey = List::template kivCallbacks< R, OwnForKey< Base > >;
   for( std::size_t n = 0; n < std::size( inWhole ); ++n ) {
      bool const whole = inOwnWhole[ n ];
      if( !inBaseForKey[ n ] ) {
         all.hides |= !inWhole[ n ] && inAlone[ n ];
         all.silent &= inWhole[ n ] && !whole;
         continue;
      }
      bool const forKey = inForKey[ n ];
      bool const writesKey = inOwnForKey[ n ];
      bool const deferred = inOwnWhole[ n + 1 ];
      all.hides |= inAlone[ n ] && !forKey && !whole;
      all.neverCalled |=
         ( whole && inAlone[ n ] ) || ( ( whole || deferred ) && forKey && !writesKey );
      all.silent &= forKey && !writesKey && !whole && !deferred;
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
      if constexpr( requires { Base::template kivCallbacks< Base, Whole >; } ) {
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
