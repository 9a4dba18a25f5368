// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <simulation/Stamp.h>

#include <algorithm>
#include <cmath>

namespace Simulation {

namespace {

double constexpr perSecond = 1e6;
double constexpr greatest = 9007199254740992.0; // 2^53

} // namespace

std::optional< std::int64_t > microsecondsOf( double seconds ) {
   if( !( seconds >= 0 ) || !( seconds * perSecond <= greatest ) )
      return std::nullopt;
   auto const microseconds = static_cast< std::int64_t >( std::round( seconds * perSecond ) );
   return secondsOf( microseconds ) == seconds ? std::optional( microseconds ) : std::nullopt;
}

double secondsOf( std::int64_t microseconds ) {
   return static_cast< double >( microseconds ) / perSecond;
}

double stampFrom( double seconds, std::optional< double > last ) {
   auto const before = []( double time ) {
      auto const limited = std::clamp( std::floor( time * perSecond ), 0.0, greatest - 1 );
      return static_cast< std::int64_t >( limited );
   };
   auto stamp = before( seconds );
   while( stamp > 0 && secondsOf( stamp ) > seconds )
      --stamp; // the product was rounded up
   if( last && secondsOf( stamp ) <= *last ) {
      stamp = before( *last );
      while( secondsOf( stamp ) <= *last )
         ++stamp;
   }
   return secondsOf( stamp );
}

} // namespace Simulation
