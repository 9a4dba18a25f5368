// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
//
// Calls are put down as they come, and taken up by turn(), as many as make one instant: what they
// change is written together, then everybody is answered, then those who watch are told.
#include <live/Hub.h>

#include <live/Protocol.h>
#include <live/detail/Inputs.h>
#include <live/detail/View.h>
#include <live/detail/Watchers.h>

#include <simulation/Engine.h>

#include <Explain/Explain.h>
#include <Kiv/Activity.h>
#include <Stage/Stage.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <deque>
#include <random>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <variant>

#include <fnmatch.h>
#include <poll.h>
#include <unistd.h>

namespace Live {

namespace {

using namespace Protocol;
using detail::KnownAgent;
using detail::others;

std::function< double() > monotonic() {
   using Time = std::chrono::steady_clock;
   return [ start = Time::now() ] {
      return std::chrono::duration< double >( Time::now() - start ).count();
   };
}

std::string randomName() {
   std::random_device random;
   std::string name;
   for( int n = 0; n != 4; ++n ) {
      char part[ 9 ];
      std::snprintf( part, sizeof part, "%08x", random() );
      name += part;
   }
   return name;
}

Simulation::Beginning beginningOf( HubOptions const & options ) {
   Simulation::Beginning beginning;
   beginning.application = options.application;
   beginning.enabled = false;
   beginning.decideOnDeclarations = true;
   return beginning;
}

// A connection has ended; whoever spoke there is lost.
struct Ended {
   Kiv::Ptr< Varlink::Connection > connection;
};
using Said =
   std::variant< Ended, Join, Declare, Report, Leave, Enable, Watch, Wait, Status, Explain, Log >;

char const * wordOf( ::Stage::Explanation::Root::Kind kind ) {
   using Kind = ::Stage::Explanation::Root::Kind;
   switch( kind ) {
   case Kind::events:
      return "events";
   case Kind::undeclared:
      return "undeclared";
   case Kind::cycle:
      return "cycle";
   case Kind::untracked:
      return "untracked";
   case Kind::disabled:
      return "disabled";
   case Kind::decision:
      return "decision";
   }
   return "";
}

} // namespace

class Hub::Impl {
 public:
   Impl( int listening, HubOptions options )
      : options_( withDefaults( std::move( options ) ) ),
        engine_( beginningOf( options_ ), {}, { true, options_.expect } ),
        view_( engine_, agents_ ), watchers_( view_, options_.startup ),
        server_( listening, options_.about, options_.limits ) {
      server_.interfaceIs(
         { std::string( interfaceName ),
           std::string( interfaceText() ),
           { method< Join >( "Join" ), method< Declare >( "Declare" ), method< Report >( "Report" ),
             method< Leave >( "Leave" ), method< Watch >( "Watch", true ), method< Wait >( "Wait" ),
             method< Status >( "Status" ), method< Explain >( "Explain" ), method< Log >( "Log" ),
             method< Enable >( "Enable" ) } } );
      if( options_.peer )
         server_.peerIs( options_.peer );
      server_.onClosedIs( [ this ]( auto const & connection ) {
         queue_.push_back( { nullptr, Ended{ connection } } );
      } );
   }

   void turn() {
      double const now = options_.time();
      while( !queue_.empty() ) {
         Batch batch;
         while( !queue_.empty() && admit( queue_.front(), batch ) )
            queue_.pop_front();
         if( !batch.input.empty() )
            engine_.takeIn( engine_.instant( now, std::move( batch.input ) ) );
         for( auto const & answer : batch.answer )
            answer();
      }
      engine_.fireUntil( now );
      watchers_.tell( now );
   }
   double nextTime() const {
      return queue_.empty() ? std::min( engine_.nextDue(), watchers_.nextTime() ) : 0;
   }
   void run() {
      auto const & manager = Kiv::activityManager();
      for( stopped_ = false; !stopped_; ) {
         pollfd watched{ manager->descriptor(), POLLIN, 0 };
         if( ::poll( &watched, 1, delay() ) < 0 && errno != EINTR )
            throw std::system_error( errno, std::generic_category(), "poll" );
         manager->runDue();
         turn();
      }
   }
   void stop() { stopped_ = true; }

 private:
   using CallPtr = Kiv::Ptr< Varlink::Call >;
   struct Queued {
      CallPtr call; // null for Ended
      Said said;
   };
   // What becomes one instant.
   struct Batch {
      std::vector< Simulation::Input > input;
      std::vector< std::function< void() > > answer;
      std::set< std::string > agent; // of which it says something
      std::set< std::string > stage; // that nobody has known before
      std::size_t agents = 0;        // that nobody has known before
   };
   // What a call means for an agent.
   struct Speaking {
      CallPtr const & call;
      std::string const & agent;
      Batch & batch;
      uid_t user() const { return call->connection()->peer().uid; }
   };

   static HubOptions withDefaults( HubOptions options ) {
      if( options.startup.empty() )
         options.startup = randomName();
      if( !options.time )
         options.time = monotonic();
      return options;
   }

   // Milliseconds until something is due, rounded up; -1 for ever.
   int delay() const {
      double const left = std::ceil( ( nextTime() - options_.time() ) * 1000 );
      return std::isinf( left ) ? -1 : static_cast< int >( std::clamp( left, 0.0, 3600e3 ) );
   }

   template< class Asked >
   Varlink::Method method( char const * name, bool needsMore = false ) {
      return { name,
               [ this ]( CallPtr const & call ) {
                  answerOrRefuse( call, [ & ] {
                     queue_.push_back( { call, decoded< Asked >( call->parameters() ) } );
                  } );
               },
               needsMore };
   }

   // ---- taking up

   // False when it belongs to the next instant. What cannot be done is refused at once.
   bool admit( Queued const & queued, Batch & batch ) {
      if( auto const * const ended = std::get_if< Ended >( &queued.said ) )
         return admitEnd( *ended, batch );
      bool admitted = true;
      answerOrRefuse( queued.call, [ & ] {
         std::visit( [ & ]( auto const & said ) { admitted = take( queued.call, said, batch ); },
                     queued.said );
      } );
      return admitted;
   }

   bool take( CallPtr const &, Ended const &, Batch & ) { return true; } // is no call

   // Those that say something of an agent.
   template< class Asked >
      requires requires( Asked asked ) { asked.agent; }
   bool take( CallPtr const & call, Asked const & asked, Batch & batch ) {
      std::string const agent = agentOf( call, asked.agent );
      if( batch.agent.contains( agent ) )
         return false;
      Speaking const speaking{ call, agent, batch };
      if( !maySpeak( speaking.user(), agent ) )
         throw Refused( Error::notYours() );
      speak( speaking, asked );
      batch.agent.insert( agent );
      return true;
   }

   bool take( CallPtr const & call, Enable const & asked, Batch & batch ) {
      uid_t const user = call->connection()->peer().uid;
      if( !trusted( user ) )
         throw Refused( Error::permissionDenied() );
      batch.input.push_back( { Simulation::Enable{ asked.enabled }, user } );
      batch.answer.push_back( [ call ] { call->reply(); } );
      return true;
   }
   // The rest changes nothing, and is answered as things stand after the instant.
   template< class Asked >
   bool take( CallPtr const & call, Asked const & asked, Batch & batch ) {
      batch.answer.push_back(
         [ this, call, asked ] { answerOrRefuse( call, [ & ] { answer( call, asked ); } ); } );
      return true;
   }

   bool admitEnd( Ended const & ended, Batch & batch ) {
      auto const speaker = speakers_.find( ended.connection.get() );
      if( speaker == speakers_.end() )
         return true;
      std::string const agent = speaker->second;
      if( !batch.agent.insert( agent ).second )
         return false;
      speakers_.erase( speaker );
      auto const known = agents_.find( agent );
      if( known->second.lost == Lost::withdraw ) {
         batch.input.push_back( { Simulation::Leave{ agent }, ended.connection->peer().uid } );
         agents_.erase( known );
         return true;
      }
      known->second.connection = nullptr;
      touch( agent );
      return true;
   }

   std::string agentOf( CallPtr const &, std::string const & said ) const { return said; }
   std::string agentOf( CallPtr const & call, std::optional< std::string > const & said ) const {
      if( said )
         return *said;
      auto const speaker = speakers_.find( call->connection().get() );
      if( speaker == speakers_.end() )
         throw Refused( Error::notJoined() );
      return speaker->second;
   }

   static bool trusted( uid_t user ) { return user == 0 || user == ::geteuid(); }
   bool maySpeak( uid_t user, std::string const & agent ) const {
      if( trusted( user ) )
         return true;
      if( std::any_of( options_.allow.begin(), options_.allow.end(), [ & ]( auto const & allowed ) {
             return allowed.user == user &&
                    ::fnmatch( allowed.agent.c_str(), agent.c_str(), 0 ) == 0;
          } ) )
         return true;
      auto const known = agents_.find( agent );
      return options_.open && ( known == agents_.end() || known->second.user == user );
   }

   // ---- what is said of an agent. Everything that can be refused is, before anything is done.

   void speak( Speaking const & s, Join const & join ) {
      auto const connection = s.call->connection();
      if( speakers_.contains( connection.get() ) )
         throw Refused( Error::alreadyJoined() );
      auto const found = agents_.find( s.agent );
      auto const older = found == agents_.end() ? nullptr : found->second.connection;
      if( older && !join.take )
         throw Refused( Error::connected( older->peer().pid ) );
      declareOrChange( s, join.event.value_or( std::vector< Event >() ),
                       join.event ? Whole::yes : Whole::no, {} );

      KnownAgent & known = agents_.find( s.agent )->second;
      known.connection = connection;
      known.joined = true;
      known.lost = join.lost;
      speakers_[ connection.get() ] = s.agent;
      touch( s.agent );
      if( older ) {
         speakers_.erase( older.get() );
         older->close();
      }
      s.batch.answer.push_back( [ this, call = s.call ] {
         auto const sequence = static_cast< std::int64_t >( engine_.sequence() );
         call->reply( encoded( JoinReply{ options_.startup, sequence } ) );
      } );
   }

   void speak( Speaking const & s, Declare const & declare ) {
      declareOrChange( s, declare.event, Whole::no, declare.withdraw );
      answerWithNothing( s );
   }

   void speak( Speaking const & s, Report const & report ) {
      auto const config = known( s.agent );
      auto const event = config->event( report.stage );
      if( !event )
         throw Refused( Error::noSuchStage() );
      if( report.complete || !report.note ) {
         bool const complete = report.complete.value_or( true );
         if( event->complete() != complete )
            input( s, Simulation::Set{
                         s.agent, report.stage, { Simulation::CompleteWrite{ complete } } } );
      }
      if( report.note ) {
         agents_.find( s.agent )->second.note[ report.stage ] = *report.note;
         watchers_.stageTouched( report.stage );
      }
      answerWithNothing( s );
   }

   void speak( Speaking const & s, Leave const & ) {
      (void)known( s.agent );
      input( s, Simulation::Leave{ s.agent } );
      auto const found = agents_.find( s.agent );
      if( found->second.connection )
         speakers_.erase( found->second.connection.get() );
      agents_.erase( found );
      answerWithNothing( s );
   }

   enum class Whole { no, yes };

   // The agent need not be there yet.
   void declareOrChange( Speaking const & s, std::vector< Event > const & events, Whole whole,
                         std::vector< std::string > withdraw ) {
      auto const config = configOf( s.agent );
      if( config && whole == Whole::yes )
         withdraw = others( *config, events );
      checkLimits( s, config.get(), events, withdraw );
      if( !config ) {
         Simulation::Join join{ s.agent, {} };
         for( auto const & event : events )
            join.event.push_back( detail::inputOf( event ) );
         input( s, std::move( join ) );
         agents_[ s.agent ].user = s.user();
         ++s.batch.agents;
         return;
      }
      for( auto & operation : detail::changes( *config, events, withdraw ) )
         input( s, std::move( operation ) );
      auto & note = agents_.find( s.agent )->second.note;
      for( auto const & stage : withdraw )
         note.erase( stage );
   }

   void checkLimits( Speaking const & s, ::Stage::AgentConfig const * config,
                     std::vector< Event > const & events,
                     std::vector< std::string > const & withdraw ) {
      std::size_t count = config ? config->events() : 0;
      for( auto const & stage : withdraw )
         count -= config && config->event( stage ) ? 1 : 0;
      std::set< std::string > stages;
      for( auto const & event : events ) {
         count += config && config->event( event.stage ) ? 0 : 1;
         if( !view_.known( event.stage ) && !s.batch.stage.contains( event.stage ) )
            stages.insert( event.stage );
      }
      auto const check = []( std::size_t many, std::size_t limit, char const * what ) {
         if( many > limit )
            throw Refused( Error::tooMuch( std::to_string( limit ) + what ) );
      };
      if( !events.empty() )
         check( count, options_.eventsOfAgent, " events of an agent" );
      if( !config )
         check( engine_.agentDir()->entityPtrs() + s.batch.agents + 1, options_.agents, " agents" );
      if( !stages.empty() )
         check( engine_.status()->stages() + s.batch.stage.size() + stages.size(), options_.stages,
                " stages" );
      s.batch.stage.merge( stages );
   }

   static void input( Speaking const & s, Simulation::Operation operation ) {
      s.batch.input.push_back( { std::move( operation ), s.user() } );
   }
   static void answerWithNothing( Speaking const & s ) {
      s.batch.answer.push_back( [ call = s.call ] { call->reply(); } );
   }
   // Null when it is not there.
   Kiv::Ptr< ::Stage::AgentConfig const > configOf( std::string const & agent ) const {
      return Kiv::ptrCast< ::Stage::AgentConfig >( engine_.agentDir()->entityPtr( agent ) );
   }
   Kiv::Ptr< ::Stage::AgentConfig const > known( std::string const & agent ) const {
      auto const config = configOf( agent );
      if( !config )
         throw Refused( Error::noSuchAgent() );
      return config;
   }
   // Its connection has come or gone, which its stages show.
   void touch( std::string const & agent ) {
      if( auto const config = configOf( agent ) )
         for( auto i = config->eventIteratorConst(); i; ++i )
            watchers_.stageTouched( i.key().str() );
   }

   // ---- what is asked

   void answer( CallPtr const & call, Watch const & asked ) { watchers_.watch( call, asked ); }
   void answer( CallPtr const & call, Wait const & asked ) {
      watchers_.wait( call, asked, options_.time() );
   }
   void answer( CallPtr const & call, Log const & asked ) {
      if( asked.follow && !call->more() )
         throw Refused( Error::expectedMore() );
      watchers_.log( call, asked );
   }
   void answer( CallPtr const & call, Status const & ) {
      StatusReply reply{ options_.application,
                         options_.startup,
                         engine_.config()->enabled(),
                         engine_.complete(),
                         static_cast< std::int64_t >( engine_.sequence() ),
                         engine_.now(),
                         {},
                         {} };
      for( auto const & stage : view_.stages( false ) )
         reply.stage.push_back( view_.stage( stage, true ) );
      for( auto const & [ agent, known ] : agents_ )
         reply.agent.push_back( view_.agent( agent ) );
      orTooMuch( call, reply );
   }
   void answer( CallPtr const & call, Explain const & asked ) {
      auto const & machine = *engine_.manager()->statusSm();
      auto const explanation = asked.stage ? ::Stage::explain( machine, Kiv::Name( *asked.stage ) )
                                           : ::Stage::explain( machine );
      bool const heardOf = !asked.stage || view_.known( *asked.stage ) ||
                           std::any_of( explanation.root.begin(), explanation.root.end(),
                                        []( auto const & root ) { return !root.by.empty(); } );
      if( !heardOf )
         throw Refused( Error::noSuchStage() );
      ExplainReply reply;
      for( auto const & root : explanation.root ) {
         std::string const text = ::Stage::sentence( explanation, root );
         reply.text += text + "\n";
         Json of = Json::array();
         for( auto const stage : root.of )
            of.push_back( explanation.stage[ stage ].name.str() );
         reply.cause.push_back( { { "kind", wordOf( root.kind ) },
                                  { "stage", root.stage.str() },
                                  { "of", std::move( of ) },
                                  { "waiting", root.waiting },
                                  { "text", text } } );
      }
      orTooMuch( call, reply );
   }
   template< class Answered >
   static void orTooMuch( CallPtr const & call, Answered const & reply ) {
      try {
         call->reply( encoded( reply ) );
      } catch( std::length_error const & ) {
         throw Refused( Error::tooMuch( "bytes of one answer" ) );
      }
   }

   HubOptions const options_;
   detail::KnownAgents agents_;                              // those in the directory
   std::map< Varlink::Connection *, std::string > speakers_; // agents, by who speaks for them
   std::deque< Queued > queue_;
   Simulation::Engine engine_;
   detail::View view_;
   detail::Watchers watchers_;
   bool stopped_ = false;
   Varlink::Server server_; // goes first: it calls what stands above
};

Hub::Hub( int listening, HubOptions options )
   : impl_( std::make_unique< Impl >( listening, std::move( options ) ) ) {}
Hub::~Hub() = default;
void Hub::turn() { impl_->turn(); }
double Hub::nextTime() const { return impl_->nextTime(); }
void Hub::run() { impl_->run(); }
void Hub::stop() { impl_->stop(); }

} // namespace Live
