// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include "History.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>

namespace convergence {

using Stage::AgentConfig;
using Stage::ConfigSm;
using Stage::EventConfig;
using Stage::StageStatus;

namespace {

std::string list( std::set< std::string > const & names ) {
   std::string text = "{";
   for( std::string const & name : names )
      text += " " + name;
   return text + " }";
}

double constexpr largestFloat = std::numeric_limits< float >::max();
double constexpr halfAUnitBeyond = 0x1.ffffffp127;

// As aggregation keeps a timeout.
double narrowed( double seconds ) {
   if( std::fabs( seconds ) >= halfAUnitBeyond )
      return std::copysign( std::numeric_limits< double >::infinity(), seconds );
   if( std::fabs( seconds ) > largestFloat )
      return std::copysign( largestFloat, seconds );
   return static_cast< double >( static_cast< float >( seconds ) );
}

bool same( double a, double b ) { return a == b || ( std::isnan( a ) && std::isnan( b ) ); }

// The largest timeout, in the order of the stage's collection, which counts when one is no number.
double recomputed( StageStatus const & stage ) {
   double largest = 0;
   for( auto i = stage.eventIteratorConst(); i; ++i )
      if( !( largest > i.ptr()->timeout() ) )
         largest = narrowed( i.ptr()->timeout() );
   return largest;
}

} // namespace

History::History( std::uint64_t seed, Kind const & kind ) : random_( seed ), kind_( kind ) {
   unsigned const agents = 1 + random_.below( 3 );
   for( unsigned i = 0; i != agents; ++i )
      agents_.push_back( "a" + std::to_string( i ) );
   unsigned const stages = 2 + random_.below( 4 );
   for( unsigned i = 0; i != stages; ++i )
      stages_.push_back( "S" + std::to_string( i ) );
   // The order in which stages may depend on each other is not that of their names.
   for( unsigned i = stages; i > 1; --i )
      std::swap( stages_[ i - 1 ], stages_[ random_.below( i ) ] );
   if( kind_.links ) {
      join( agents_[ 0 ] );
      for( std::string const & stage : stages_ )
         declare( agents_[ 0 ], stage );
   }
   // Some of it may be there before the aggregation is.
   unsigned const early = random_.below( 6 );
   for( unsigned i = 0; i != early; ++i )
      write();
   machine_ = w_.configSm();
   say( "-- aggregation made" );
}

std::string History::told() const {
   std::string text;
   for( std::string const & line : told_ )
      text += line + "\n";
   return text;
}

std::optional< std::string > History::play() {
   unsigned const batches = 4 + random_.below( 8 );
   for( unsigned i = 0; i != batches; ++i ) {
      batch();
      if( std::optional< std::string > const wrong = check() )
         return wrong;
   }
   return {};
}

void History::batch() {
   remember();
   unsigned const writes = kind_.single ? 1 : 1 + random_.below( kind_.links ? 12 : 6 );
   for( unsigned i = 0; i != writes; ++i ) {
      write();
      if( kind_.partial && random_.oneIn( 3 ) )
         deliverSome();
      if( kind_.remade && !delivered_ && random_.oneIn( 12 ) )
         remake();
   }
   w_.idle();
   say( "-- idle" );
   left_.clear();
   withdrawn_.clear();
   delivered_ = false;
}

void History::deliverSome() {
   unsigned const count = 1 + random_.below( 4 );
   for( unsigned i = 0; i != count; ++i )
      delivered_ = Kiv::activityManager()->runOne() || delivered_;
   say( "-- deliver " + std::to_string( count ) );
}

// In a clean history nobody may have left while nobody was looking.
void History::remake() {
   if( kind_.clean )
      w_.idle();
   machine_ = nullptr;
   machine_ = w_.configSm();
   say( "-- aggregation made anew" );
}

// --------------------------------------------------------------------------------------- writes

void History::write() {
   if( kind_.stagesGo && random_.oneIn( 8 ) ) {
      changeStages();
      return;
   }
   if( kind_.links && !random_.oneIn( 20 ) ) {
      changeEvent();
      return;
   }
   std::string const agent = agents_[ random_.below( static_cast< unsigned >( agents_.size() ) ) ];
   std::string const stage = stages_[ random_.below( static_cast< unsigned >( stages_.size() ) ) ];
   switch( random_.below( 16 ) ) {
   case 0:
   case 1:
      join( agent );
      return;
   case 2:
      leave( agent );
      return;
   case 3:
      if( random_.oneIn( 4 ) )
         anotherType( agent );
      return;
   case 4:
   case 5:
   case 6:
   case 7:
      declare( agent, stage );
      return;
   case 8:
      withdraw( agent, stage );
      return;
   case 9:
      if( random_.oneIn( 3 ) )
         withdrawAll( agent );
      return;
   case 10:
      if( random_.oneIn( 3 ) )
         changeStages();
      return;
   default:
      changeEvent();
   }
}

Ptr< AgentConfig > History::entry( std::string const & agent ) const {
   return Kiv::ptrCast< AgentConfig >( w_.dir->entityPtr( agent ) );
}

void History::join( std::string const & agent ) {
   Ptr< AgentConfig > const there = entry( agent );
   if( kind_.clean && ( there || left_.count( agent ) != 0 ) )
      return;
   Ptr< AgentConfig > object;
   // The very object that left before, or another one.
   if( random_.oneIn( 3 ) )
      for( Ptr< AgentConfig > const & old : absent_ )
         if( old->name() == agent )
            object = old;
   bool const old = static_cast< bool >( object );
   if( !old )
      object = AgentConfig::AgentConfigIs( agent );
   if( there && there != object )
      absent_.push_back( there );
   w_.dir->entityPtrIs( object );
   say( agent + " joins" + ( old ? " again as the same object" : "" ) +
        ( there ? " in place of another" : "" ) );
}

void History::leave( std::string const & agent ) {
   if( Ptr< AgentConfig > const there = entry( agent ) )
      absent_.push_back( there );
   if( w_.dir->entityPtr( agent ) )
      left_.insert( agent );
   w_.dir->entityPtrDel( agent );
   say( agent + " leaves" );
}

void History::anotherType( std::string const & agent ) {
   if( Ptr< AgentConfig > const there = entry( agent ) )
      absent_.push_back( there );
   w_.dir->entityPtrIs( Kiv::Dir::DirIs( agent ) );
   left_.insert( agent );
   say( agent + "'s entry becomes one of another type" );
}

History::Event History::newEvent( std::string const & agent, std::string const & stage ) {
   Event const event = EventConfig::EventConfigIs( stage, agent );
   std::string line = "   new event " + stage + ":" + agent;
   if( !random_.oneIn( 5 ) )
      event->timeoutIs( anyTimeout() );
   event->criticalIs( random_.oneIn( 4 ) );
   for( unsigned i = random_.below( 3 ); i != 0; --i ) {
      std::string const name = anyDependency( stage );
      bool const counts = !random_.oneIn( 4 );
      if( name.empty() )
         continue;
      event->dependencyIs( name, counts );
      line += " " + name + ( counts ? "=true" : "=false" );
   }
   say( line + ( event->critical() ? " critical" : "" ) + " timeout " +
        Kiv::valueToString( event->timeout() ).str() );
   events_.push_back( event );
   return event;
}

void History::declare( std::string const & agent, std::string const & stage ) {
   Ptr< AgentConfig > const there = entry( agent );
   if( !there )
      return;
   if( kind_.clean && ( there->event( stage ) || withdrawn_.count( { agent, stage } ) != 0 ) )
      return;
   Event event;
   if( random_.oneIn( 3 ) )
      for( Event const & old : events_ )
         if( old->uid() == stage + ":" + agent )
            event = old;
   bool const old = static_cast< bool >( event );
   if( !old )
      event = newEvent( agent, stage );
   say( agent + " declares " + stage + ( old ? " again by the same object" : "" ) +
        ( there->event( stage ) ? " in place of another" : "" ) );
   there->eventIs( stage, event );
}

void History::withdraw( std::string const & agent, std::string const & stage ) {
   Ptr< AgentConfig > const there = entry( agent );
   if( !there )
      return;
   there->eventDel( stage );
   withdrawn_.insert( { agent, stage } );
   say( agent + " withdraws " + stage );
}

void History::withdrawAll( std::string const & agent ) {
   Ptr< AgentConfig > const there = entry( agent );
   if( !there )
      return;
   for( std::string const & stage : stages_ )
      withdrawn_.insert( { agent, stage } );
   there->eventDelAll();
   say( agent + " withdraws all" );
}

// Events that are in no stage any more are changed too.
History::Event History::anyEvent() {
   if( events_.empty() )
      return {};
   return events_[ random_.below( static_cast< unsigned >( events_.size() ) ) ];
}

double History::anyTimeout() {
   static constexpr double odd[] = { 0.1,
                                     0.7,
                                     -1,
                                     -1e39,
                                     1e39,
                                     16777217,
                                     largestFloat,
                                     0x1.fffffefp127, // rounds to the largest float
                                     -0x1.fffffefp127,
                                     halfAUnitBeyond,
                                     std::numeric_limits< double >::quiet_NaN(),
                                     std::numeric_limits< double >::infinity(),
                                     -std::numeric_limits< double >::infinity() };
   if( kind_.oddTimeouts && !random_.oneIn( 3 ) )
      return odd[ random_.below( sizeof odd / sizeof odd[ 0 ] ) ];
   return random_.below( 8 ) * 0.5;
}

// A stage that an event of `stage` may depend on; "" when there is none.
std::string History::anyDependency( std::string const & stage ) {
   if( random_.oneIn( 8 ) )
      return "nowhere";
   unsigned limit = static_cast< unsigned >( stages_.size() );
   if( kind_.acyclic ) {
      limit = 0;
      while( stages_[ limit ] != stage )
         ++limit;
      if( limit == 0 )
         return "";
   }
   return stages_[ random_.below( limit ) ];
}

void History::changeDependency( Event const & event ) {
   std::string const uid = event->uid().str();
   std::string const name = anyDependency( uid.substr( 0, uid.find( ':' ) ) );
   if( name.empty() )
      return;
   if( random_.oneIn( 8 ) ) {
      event->dependencyDelAll();
      say( uid + " loses all dependencies" );
   } else if( random_.oneIn( 4 ) ) {
      event->dependencyDel( name );
      say( uid + " loses " + name );
   } else {
      bool const counts = !random_.oneIn( 3 );
      event->dependencyIs( name, counts );
      say( uid + " sets " + name + ( counts ? " true" : " false" ) );
   }
}

void History::changeEvent() {
   Event const event = anyEvent();
   if( !event )
      return;
   std::string const uid = event->uid().str();
   switch( random_.below( 5 ) ) {
   case 0:
      event->timeoutIs( anyTimeout() );
      say( uid + " timeout " + Kiv::valueToString( event->timeout() ).str() );
      return;
   case 1:
   case 2:
      event->criticalIs( !event->critical() );
      say( uid + ( event->critical() ? " critical" : " not critical" ) );
      return;
   default:
      changeDependency( event );
   }
}

void History::changeStages() {
   std::string const stage = stages_[ random_.below( static_cast< unsigned >( stages_.size() ) ) ];
   if( kind_.stagesGo && random_.oneIn( 16 ) ) {
      w_.status->stageDelAll();
      say( "the outside removes all stages" );
      return;
   }
   bool const goes = kind_.stagesGo && !random_.oneIn( 3 );
   if( goes ) {
      w_.status->stageDel( stage );
      say( "the outside removes " + stage );
      if( kind_.partial && random_.oneIn( 2 ) )
         deliverSome();
   }
   if( goes && random_.oneIn( 2 ) )
      return;
   Ptr< StageStatus > const made = w_.status->stageIs( stage );
   say( "the outside creates " + stage );
   // What was in it is gone, and no agent declares it again; the outside may put it back.
   if( goes && random_.oneIn( 2 ) )
      for( std::string const & agent : agents_ )
         if( Ptr< AgentConfig > const there = entry( agent ) )
            if( Ptr< EventConfig const > const event = there->event( stage ) )
               made->eventIs( event );
}

// --------------------------------------------------------------------------------------- checks

std::optional< std::string > History::check() const {
   for( auto const & step :
        { &History::checkReactors, &History::checkEvents, &History::checkDependencies,
          &History::checkCritical, &History::checkTimeouts, &History::checkTimeoutSteps } )
      if( std::optional< std::string > wrong = ( this->*step )() )
         return wrong;
   return {};
}

// One reactor per agent, per stage and per event, each on the object that counts.
std::optional< std::string > History::checkReactors() const {
   for( auto i = machine_->agentConfigIteratorConst(); i; ++i )
      if( !entry( i.key().str() ) || !i.ptr()->notifier() )
         return "reactor of agent " + i.key().str() + ", which is no agent";
   for( std::string const & agent : agents_ ) {
      if( !entry( agent ) )
         continue;
      if( !machine_->agentConfig( agent ) )
         return "no reactor for agent " + agent;
      if( kind_.clean && machine_->agentConfig( agent )->notifier() != entry( agent ) )
         return "reactor of agent " + agent + " watches another object";
   }
   if( machine_->stageStatuss() != w_.status->stages() )
      return "number of stage reactors";
   for( auto i = w_.status->stageIteratorConst(); i; ++i ) {
      Ptr< ConfigSm::KivStageStatus > const reactor = machine_->stageStatus( i.key() );
      if( !reactor || reactor->stage() != i.ptr() )
         return "reactor of stage " + i.key().str();
      if( reactor->eventConfigs() != i.ptr()->events() )
         return "number of event reactors of stage " + i.key().str();
      for( auto e = i.ptr()->eventIteratorConst(); e; ++e )
         if( !reactor->eventConfig( e.key() ) ||
             reactor->eventConfig( e.key() )->notifier() != e.ptr() )
            return "reactor of event " + e.ptr()->uid().str();
   }
   return {};
}

// What agents in the directory declare stands in the stages: the very objects in clean histories.
std::optional< std::string > History::checkEvents() const {
   if( !kind_.clean || kind_.stagesGo )
      return {};
   for( std::string const & name : stages_ ) {
      Ptr< StageStatus > const stage = w_.stage( name );
      for( std::string const & agent : agents_ ) {
         Ptr< AgentConfig > const there = entry( agent );
         Ptr< EventConfig const > const declared =
            there ? there->event( name ) : Ptr< EventConfig const >();
         Ptr< EventConfig const > const held =
            stage ? stage->event( agent ) : Ptr< EventConfig const >();
         if( declared != held )
            return "event of " + agent + " in " + name +
                   ( held ? declared ? " is another object" : " is left over" : " is missing" );
      }
   }
   return {};
}

std::optional< std::string > History::checkDependencies() const {
   for( auto i = w_.status->stageIteratorConst(); i; ++i ) {
      std::set< std::string > expected;
      for( auto e = i.ptr()->eventIteratorConst(); e; ++e )
         for( auto d = e.ptr()->dependencyIteratorConst(); d; ++d )
            if( d.value() )
               expected.insert( d.key().str() );
      std::set< std::string > const found = testing_support::dependenciesOf( i.ptr() );
      if( found != expected )
         return "dependencies of " + i.key().str() + " are " + list( found ) + ", not " +
                list( expected );
   }
   return {};
}

// Stages with a critical event and all that they depend on.
std::set< std::string > History::criticalFromScratch() const {
   std::set< std::string > critical;
   std::vector< std::string > open;
   auto const reach = [ & ]( std::string const & name ) {
      if( w_.stage( name ) && critical.insert( name ).second )
         open.push_back( name );
   };
   for( auto i = w_.status->stageIteratorConst(); i; ++i )
      for( auto e = i.ptr()->eventIteratorConst(); e; ++e )
         if( e.ptr()->critical() )
            reach( i.key().str() );
   while( !open.empty() ) {
      Ptr< StageStatus > const stage = w_.stage( open.back() );
      open.pop_back();
      for( auto e = stage->eventIteratorConst(); e; ++e )
         for( auto d = e.ptr()->dependencyIteratorConst(); d; ++d )
            if( d.value() )
               reach( d.key().str() );
   }
   return critical;
}

std::optional< std::string > History::checkCritical() const {
   std::set< std::string > found;
   for( auto i = w_.status->stageIteratorConst(); i; ++i ) {
      if( i.ptr()->critical() )
         found.insert( i.key().str() );
      // Who is an ancestor, and that a reason is what makes a stage critical.
      Ptr< ConfigSm::KivStageStatus > const reactor = machine_->stageStatus( i.key() );
      std::set< std::string > ancestors;
      for( auto a = reactor->criticalAncestorIteratorConst(); a; ++a )
         ancestors.insert( a.key().str() );
      std::set< std::string > expected;
      for( auto s = w_.status->stageIteratorConst(); s; ++s )
         if( s.ptr()->critical() && s.ptr()->hasDependency( String8( i.key() ) ) )
            expected.insert( s.key().str() );
      if( ancestors != expected )
         return "critical ancestors of " + i.key().str() + " are " + list( ancestors ) + ", not " +
                list( expected );
      bool reason = !ancestors.empty();
      for( auto e = i.ptr()->eventIteratorConst(); e; ++e )
         reason = reason || e.ptr()->critical();
      if( reason != i.ptr()->critical() )
         return i.key().str() + ( reason ? " has a reason to be critical" : " has no reason" );
   }
   std::set< std::string > const scratch = criticalFromScratch();
   if( kind_.acyclic && found != scratch )
      return "critical are " + list( found ) + ", not " + list( scratch );
   // A cycle may keep stages critical without any other reason.
   for( std::string const & name : scratch )
      if( found.count( name ) == 0 )
         return name + " is not critical";
   return {};
}

// With timeouts that single precision holds exactly, nothing is ever left behind.
std::optional< std::string > History::checkTimeouts() const {
   if( kind_.oddTimeouts )
      return {};
   for( auto i = w_.status->stageIteratorConst(); i; ++i )
      if( double const expected = recomputed( *i.ptr() ); i.ptr()->timeout() != expected )
         return "timeout of " + i.key().str() + " is " +
                Kiv::valueToString( i.ptr()->timeout() ).str() + ", not " +
                Kiv::valueToString( expected ).str();
   return {};
}

void History::remember() {
   before_.clear();
   for( auto i = w_.status->stageIteratorConst(); i; ++i ) {
      Before & b = before_[ i.key().str() ];
      b.timeout = i.ptr()->timeout();
      for( auto e = i.ptr()->eventIteratorConst(); e; ++e )
         b.events[ e.key().str() ] = { e.ptr().get(), e.ptr()->timeout() };
   }
}

// After one write: recomputed when an event came or changed its timeout; when one went, only if
// its timeout was exactly the stage's; else as it was.
std::optional< std::string > History::checkTimeoutSteps() const {
   if( !kind_.single )
      return {};
   for( auto i = w_.status->stageIteratorConst(); i; ++i ) {
      auto const known = before_.find( i.key().str() );
      static Before const fresh{ 0, {} };
      Before const & b = known == before_.end() ? fresh : known->second;
      bool recompute = false;
      for( auto e = i.ptr()->eventIteratorConst(); e; ++e ) {
         auto const was = b.events.find( e.key().str() );
         recompute = recompute || was == b.events.end() || was->second.first != e.ptr().get() ||
                     !same( was->second.second, e.ptr()->timeout() );
      }
      for( auto const & [ agent, was ] : b.events )
         recompute = recompute || ( !i.ptr()->event( agent ) && was.second == b.timeout );
      double const expected = recompute ? recomputed( *i.ptr() ) : b.timeout;
      if( !same( i.ptr()->timeout(), expected ) )
         return "timeout of " + i.key().str() + " is " +
                Kiv::valueToString( i.ptr()->timeout() ).str() + ", not " +
                Kiv::valueToString( expected ).str() +
                ( recompute ? ", which is the largest" : ", which it was" );
   }
   return {};
}

Picture History::picture() const {
   Picture shown;
   for( auto i = w_.status->stageIteratorConst(); i; ++i ) {
      std::string & text = shown[ i.key().str() ];
      text = "events " + list( testing_support::agentsOf( i.ptr() ) ) + " dependencies " +
             list( testing_support::dependenciesOf( i.ptr() ) ) + " timeout " +
             Kiv::valueToString( i.ptr()->timeout() ).str() +
             ( kind_.acyclic && i.ptr()->critical() ? " critical" : "" );
   }
   return shown;
}

// ------------------------------------------------------------------------------------- many seeds

std::pair< std::uint64_t, unsigned > seeds( unsigned usual ) {
   char const * const first = std::getenv( "ORDOVAN_TEST_FIRST_SEED" );
   char const * const count = std::getenv( "ORDOVAN_TEST_SEEDS" );
   return { first ? std::strtoull( first, nullptr, 10 ) : 1,
            count ? static_cast< unsigned >( std::strtoul( count, nullptr, 10 ) ) : usual };
}

void orderIs( [[maybe_unused]] std::uint64_t order ) {
#ifdef KIV_TEST_HASH_SEED
   Kiv::detail::hashSeed = static_cast< std::uint32_t >( order * 0x9e3779b97f4a7c15U >> 32 );
#endif
}

void playMany( Kind const & kind, unsigned usual ) {
   auto const [ first, count ] = seeds( usual );
   unsigned failures = 0;
   for( std::uint64_t seed = first; seed != first + count && failures < 3; ++seed ) {
      orderIs( seed );
      History history( seed, kind );
      if( std::optional< std::string > const wrong = history.play() ) {
         ++failures;
         ADD_FAILURE() << "seed " << seed << ": " << *wrong << "\n" << history.told();
      }
   }
}

} // namespace convergence
