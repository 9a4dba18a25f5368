// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/detail/Thread.h>

#include <Kiv/Attribute.h>
#include <Kiv/detail/ErrorLine.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <pthread.h>
#include <unistd.h>

namespace Kiv::detail {

constinit thread_local char const threadMark = 0;
constinit std::atomic< void const * > ownerMark = nullptr;

namespace {

std::atomic< int > ownerNumber = 0;

// A number as the system's tools show it.
struct Digits {
   explicit Digits( int number )
      : view( text, static_cast< std::size_t >(
                       std::to_chars( text, text + sizeof text, number ).ptr - text ) ) {}
   char text[ 16 ];
   std::string_view view;
};

// What was touched, as far as there is memory for its name.
void tell( ErrorLine & line, PtrInterface const * object, char const * attribute ) {
   if( *attribute )
      line << attribute << " of ";
   if( !object ) {
      line << "the activity";
      return;
   }
   if( auto const * reactor = dynamic_cast< PtrInterface::NotifieeConst const * >( object ) ) {
      line << "a reactor";
      if( !reactor->notifierPtr() )
         return;
      line << " on ";
   }
   try {
      line << valueToString( object ).view();
   } catch( ... ) {
      line << object->fwkType().name();
   }
}

} // namespace

void ownThread() noexcept {
   ownerNumber = gettid();
   ownerMark = &threadMark;
}

void onOtherThread( PtrInterface const * object, char const * attribute ) noexcept {
   void const * nobody = nullptr;
   if( ownerMark.compare_exchange_strong( nobody, &threadMark ) ) {
      ownerNumber = gettid();
      return;
   }
   {
      char name[ 16 ] = "";
      pthread_getname_np( pthread_self(), name, sizeof name );
      ErrorLine line;
      line << "kiv: ";
      tell( line, object, attribute );
      line << " was touched outside of the activity's thread: on thread " << Digits( gettid() ).view
           << " (" << std::string_view( name, strnlen( name, sizeof name ) )
           << "), while the activity's is " << Digits( ownerNumber ).view
           << "; other threads may only call ActivityManager::post";
   }
   std::abort();
}

} // namespace Kiv::detail
