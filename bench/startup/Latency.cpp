// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// latency STAGES...
//
// How long it takes on a real clock, in a loop that sleeps between reports, from an agent's report
// until the agent of the next stage is told: a line for each number of stages. ../README.md says
// what is in it.
#include <startup/Library.h>
#include <startup/Process.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace {

using namespace Bench;
using Time = std::chrono::steady_clock;

// All agents of a chain. Each reports a fifth of a millisecond after its stage has become active,
// which in a chain makes the next stage ready.
class Agents : public Stage::Status::NotifieeConst {
 public:
   Agents( LibraryStartup const & startup, std::size_t reports )
      : startup_( startup ), reports_( reports ), alarm_( new Alarm( *this ) ) {
      watch( startup.status() );
   }
   using Stage::Status::NotifieeConst::onActiveStage;
   void onActiveStage( Kiv::Name ) override {
      if( active_++ != 0 )
         seconds_.push_back( std::chrono::duration< double >( Time::now() - reported_ ).count() );
      if( seconds_.size() == reports_ )
         Kiv::activityManager()->stop();
      else
         alarm_->timeMinIs( Kiv::now() + 0.0002 );
   }
   // Of each report until the next stage was active.
   std::vector< double > const & seconds() const { return seconds_; }

 private:
   class Alarm : public Kiv::Clock::NotifieeConst {
    public:
      explicit Alarm( Agents & agents ) : agents_( agents ) {
         watch( Kiv::activityManager()->clock() );
      }
      void onTime() override { agents_.report(); }

    private:
      Agents & agents_;
   };

   void report() {
      reported_ = Time::now();
      startup_.event( active_ - 1 )->completeIs( true );
   }

   LibraryStartup const & startup_;
   std::size_t const reports_;
   std::uint32_t active_ = 0; // stages, in the order of the chain
   Time::time_point reported_;
   std::vector< double > seconds_;
   Kiv::Ptr< Alarm > const alarm_;
};

std::vector< double > measure( std::uint32_t stages ) {
   auto const clock = Kiv::activityManager()->clock();
   Declarations const declared = declarations( Shape::chain, stages );
   // What Agents do not report, nobody does.
   LibraryStartup startup( declared, Reports::oneByOne );
   Kiv::activityManager()->clockIs( clock );
   startup.declare();
   startup.aggregate();
   Kiv::Ptr< Agents > const agents = new Agents( startup, std::min( stages - 1, 300U ) );
   startup.config()->enabledIs( true );
   Kiv::activityManager()->run();
   return agents->seconds();
}

int run( std::vector< std::string_view > const & arguments ) {
   if( arguments.empty() )
      throw std::invalid_argument( "usage: latency STAGES..." );
   std::puts( "                  |  report to activation, us" );
   std::puts( "  stages  reports |   least  median     times the first" );
   double first = 0;
   for( std::string_view argument : arguments ) {
      std::uint32_t const stages = numberOf( argument, 2, "stages" );
      auto const said = inProcess( 0, [ & ] {
         Bytes bytes;
         bytes.put( measure( stages ) );
         return bytes.text();
      } );
      std::vector< double > seconds;
      Bytes( *said ).get( seconds );
      if( first == 0 )
         first = median( seconds );
      std::printf( "%8u %8zu | %7.1f %7.1f %13.1f\n", stages, seconds.size(),
                   least( seconds ) * 1e6, median( seconds ) * 1e6, median( seconds ) / first );
   }
   return 0;
}

} // namespace

int main( int count, char ** arguments ) { return mainOf( count, arguments, run ); }
