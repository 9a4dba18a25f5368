// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What makes a handler that was cut short harmless, and worth running again.
#pragma once

#include <Kiv/Notifiee.h>

#include <exception>
#include <utility>

namespace Stage::detail {

// Runs `undo` when an exception leaves the block in which this stands. A handler that an exception
// has cut short is delivered again; with this it finds then what made it act the first time.
// REQUIRES: `undo` does not throw.
template< class Undo >
class OnException {
 public:
   explicit OnException( Undo undo ) : undo_( std::move( undo ) ) {}
   ~OnException() {
      if( std::uncaught_exceptions() > before_ )
         undo_();
   }
   OnException( OnException const & ) = delete;
   OnException & operator=( OnException const & ) = delete;

 private:
   Undo undo_;
   int const before_ = std::uncaught_exceptions();
};

// Attaches a reactor to another object, as its Base does it, and lets it react. When that throws,
// the reactor watches what it watched before: whoever attaches it again makes it react again.
template< class Base, class Reactor, class React >
void reattach( Reactor & reactor, Kiv::Ptr< Kiv::PtrInterface const > const & object,
               React react ) {
   Kiv::Ptr< Kiv::PtrInterface const > const before = reactor.notifierPtr();
   bool const registered = reactor.isRegisteredNotifiee();
   reactor.Base::notifierIs( object );
   OnException const undo( [ & ] {
      reactor.Base::notifierIs( before );
      reactor.isRegisteredNotifieeIs( registered );
   } );
   react();
}

} // namespace Stage::detail
