// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Every row of the state machines and their reactors does by name what its own handler, getter,
// setter or deleter does, and not what another one does.
#include "StartUp.h"

#include "../support/TraceRecorder.h"

#include <functional>
#include <map>

using Kiv::GenericIf;
using Kiv::Ptr;
using Kiv::Value;
using namespace testing_support;

namespace {

// By type and row, as in "Stage::StageSm complete".
using Values = std::map< std::string, Value >;

std::string idOf( GenericIf const & access, Kiv::Attribute const & row ) {
   return std::string( access.type().name() ) + " " + row.name;
}

bool same( Value const & a, Value const & b ) {
   return a == b && ( !a.is( Kind::object ) || a.isConst() == b.isConst() );
}

Value objectOf( StartUp const & world, std::string const & type ) {
   for( Value const & object : world.machines() )
      if( GenericIf( object ).type().name() == type )
         return object;
   ADD_FAILURE() << "there is no " << type;
   return {};
}

template< class Call >
void forEachRow( StartUp const & world, Call call ) {
   for( Value const & object : world.machines() ) {
      GenericIf const access( object );
      for( Kiv::Attribute const & row : access.type().attributes() ) {
         SCOPED_TRACE( idOf( access, row ) );
         call( access, row );
      }
   }
}

// ---------------------------------------------------------------------------------- calls

struct Handler {
   std::string id;
   std::string argument; // "" for none
   std::string trace;    // what the first trace of the call begins with
};

std::string const aggregation = "void Stage::ConfigSm::";
std::string const stageReactor = aggregation + "KivStageStatus::";
std::string const eventReactor = stageReactor + "KivEventConfig::";

std::vector< Handler > const handlers = {
   { "Stage::LogSm logIs", "hello", "void Stage::LogSm::logIs(Kiv::String8) hello" },

   { "Stage::ConfigSm handleAgent", "routing", aggregation + "handleAgent(Kiv::Name) " },
   { "Stage::ConfigSm handleAgent", "", aggregation + "handleAgent() " },
   { "Stage::ConfigSm handleStage", "Net", aggregation + "handleStage(Kiv::Name) stage=Net" },
   { "Stage::ConfigSm::KivAgentConfig handleEvent", "Net",
     aggregation + "KivAgentConfig::handleEvent(Kiv::Name) routing Net" },
   { "Stage::ConfigSm::KivAgentConfig handleEvent", "",
     aggregation + "KivAgentConfig::handleEvent() routing" },

   { "Stage::ConfigSm::KivStageStatus handleDependency", "Boot",
     stageReactor + "handleDependency(Kiv::String8) for stage Net (dependency:Boot)" },
   { "Stage::ConfigSm::KivStageStatus handleDependencyDel", "Boot",
     stageReactor + "handleDependencyDel(Kiv::String8) for some event in stage Net "
                    "(dependency: Boot)" },
   { "Stage::ConfigSm::KivStageStatus handleEventDel", "routing",
     stageReactor + "handleEventDel(Kiv::String8) Net (event:routing)" },
   { "Stage::ConfigSm::KivStageStatus handleStage", "Boot",
     stageReactor + "handleStage(Kiv::String8) for stage Net detected stage Boot" },
   { "Stage::ConfigSm::KivStageStatus handleCritical", "Gui",
     stageReactor + "handleCritical(Kiv::String8) key Gui" },
   { "Stage::ConfigSm::KivStageStatus handleCritical", "",
     stageReactor + "handleCritical() for stage Net" },
   { "Stage::ConfigSm::KivStageStatus handleTimeout", "", stageReactor + "handleTimeout() Net" },

   { "Stage::ConfigSm::KivStageStatus::KivEventConfig handleDependency", "Boot",
     eventReactor + "handleDependency(Kiv::String8) Net:routing (dependency:Boot)" },
   { "Stage::ConfigSm::KivStageStatus::KivEventConfig handleDependency", "",
     eventReactor + "handleDependency() Net:routing" },
   { "Stage::ConfigSm::KivStageStatus::KivEventConfig handleTimeout", "",
     eventReactor + "handleTimeout() Net:routing" },
   { "Stage::ConfigSm::KivStageStatus::KivEventConfig handleCritical", "",
     eventReactor + "handleCritical() Net:routing" },

   { "Stage::StatusSm handleActiveStage", "Gui",
     "void Stage::StatusSm::handleActiveStage(Kiv::String) Gui" },
   { "Stage::StatusSm handleActiveStage", "", "void Stage::StatusSm::handleActiveStage()" },
   { "Stage::StatusSm handleNextStage", "", "void Stage::StatusSm::handleNextStage()" },
   { "Stage::StatusSm doNextStage", "", "void Stage::StatusSm::doNextStage()" },
   { "Stage::StatusSm handleEnabled", "", "void Stage::StatusSm::handleEnabled()" },
   { "Stage::StatusSm handleInitialized", "", "void Stage::StatusSm::handleInitialized()" },

   { "Stage::StageSm handlePendingEvent", "Net:routing",
     "void Stage::StageSm::handlePendingEvent(Kiv::String8) Net:routing" },
   { "Stage::StageSm handlePendingEvent", "", "void Stage::StageSm::handlePendingEvent() Net" },
   { "Stage::StageSm handleEventDel", "routing",
     "void Stage::StageSm::handleEventDel(Kiv::String8) Net routing" },
   { "Stage::StageSm handleStageUncompleted", "",
     "void Stage::StageSm::handleStageUncompleted() Net" },
   { "Stage::StageSm handleInitialized", "", "void Stage::StageSm::handleInitialized() Net" },
   { "Stage::StageSm::KivEvent handleComplete", "",
     "void Stage::StageSm::KivEvent::handleComplete() Net:routing" },
};

// The first trace of a call by name, in a start-up of its own.
std::string firstTraceOf( Handler const & handler ) {
   StartUp world;
   std::size_t const blank = handler.id.find( ' ' );
   GenericIf const access( objectOf( world, handler.id.substr( 0, blank ) ) );
   Kiv::Attribute const & row = access.attribute( handler.id.substr( blank + 1 ) );
   GenericIf::List_ arguments;
   if( !handler.argument.empty() )
      arguments.add( row.access.argument, handler.argument );
   TraceRecorder recorder;
   access.call( row.name, arguments );
   auto const lines = recorder.taken();
   return lines.empty() ? "nothing" : lines.front();
}

} // namespace

TEST( Wiring, EveryHandlerThatIsCalledByNameIsTheOneOfThatName ) {
   for( Handler const & handler : handlers )
      EXPECT_EQ( firstTraceOf( handler ).substr( 0, handler.trace.size() ), handler.trace )
         << handler.id;
}

TEST( Wiring, EveryFormOfEveryHandlerIsTried ) {
   std::map< std::string, int > keyed;
   std::map< std::string, int > whole;
   for( Handler const & handler : handlers )
      ++( handler.argument.empty() ? whole : keyed )[ handler.id ];
   // Those two do not trace; see the next test.
   keyed[ "Stage::StageEnableSm handleDependencyDel" ] = 1;
   whole[ "Stage::StageEnableSm handleCritical" ] = 1;
   StartUp const world;
   forEachRow( world, [ & ]( GenericIf const & access, Kiv::Attribute const & row ) {
      bool const takesOne = row.access.call && row.access.argument;
      bool const takesNone =
         row.access.call && ( !row.access.argument || row.access.argumentMayMiss );
      EXPECT_EQ( keyed[ idOf( access, row ) ], takesOne ? 1 : 0 );
      EXPECT_EQ( whole[ idOf( access, row ) ], takesNone ? 1 : 0 );
   } );
}

TEST( Wiring, AWaitingStagesHandlersAskForADecisionEachForItsOwnReason ) {
   StartUp world;
   // Gui is critical, and what it depends on is not complete; with Late it is the other way round.
   world.declare( "late", "Late", { "Boot" }, 5 );
   world.idle();
   world.statusSm()->stageEnableSmIs( world.stage( "Late" ) );
   auto const asks = [ & ]( char const * stage, char const * handler, auto const & arguments ) {
      world.statusSm()->needRecalculateNextStageIs( false );
      GenericIf( world.stageEnableSm( stage ) ).call( handler, arguments );
      return world.statusSm()->needRecalculateNextStage();
   };
   GenericIf::List_ const none;
   EXPECT_TRUE( asks( "Gui", "handleCritical", none ) );
   EXPECT_FALSE( asks( "Late", "handleCritical", none ) );
   EXPECT_FALSE( asks( "Gui", "handleDependencyDel", GenericIf::List_{ { "key", "gone" } } ) );
   EXPECT_TRUE( asks( "Late", "handleDependencyDel", GenericIf::List_{ { "key", "gone" } } ) );
   EXPECT_FALSE( asks( "Late", "handleDependencyDel", GenericIf::List_{ { "key", "Boot" } } ) )
      << "it is still there";
}

// --------------------------------------------------------------------------------- values

namespace {

void addSwitches( Values & all, std::string const & type, Kiv::PtrInterface const & object ) {
   all[ type + " hasNotificationActiveIs" ] = object.hasNotificationActive();
   all[ type + " kivDoZombieReactors" ] = object.kivMarkedForDeletion();
}
void addMachine( Values & all, std::string const & type, Kiv::PtrInterface const & object ) {
   addSwitches( all, type, object );
   all[ type + " kivFwkActivity" ] = Kiv::activityManager()->config();
}

void addAggregation( Values & all, StartUp const & world ) {
   auto const sm = world.configSmHeld();
   addMachine( all, "Stage::ConfigSm", *sm );
   all[ "Stage::ConfigSm config" ] = sm->config();
   all[ "Stage::ConfigSm status" ] = sm->status();
   all[ "Stage::ConfigSm agentDir" ] = sm->agentDir();

   auto const agent = sm->agentConfig( "routing" );
   addSwitches( all, "Stage::ConfigSm::KivAgentConfig", *agent );
   all[ "Stage::ConfigSm::KivAgentConfig agentConfig" ] = agent->notifier();
   all[ "Stage::ConfigSm::KivAgentConfig fwkKey" ] = agent->fwkKey();

   auto const stage = sm->stageStatus( "Net" );
   addSwitches( all, "Stage::ConfigSm::KivStageStatus", *stage );
   all[ "Stage::ConfigSm::KivStageStatus stageStatus" ] = stage->stage();
   all[ "Stage::ConfigSm::KivStageStatus fwkKey" ] = stage->fwkKey();

   auto const event = stage->eventConfig( "routing" );
   std::string const type = "Stage::ConfigSm::KivStageStatus::KivEventConfig";
   addSwitches( all, type, *event );
   all[ type + " eventConfig" ] = event->notifier();
   all[ type + " fwkKey" ] = event->fwkKey();
}

template< class Timer >
void addTimer( Values & all, std::string const & type, Timer const & timer ) {
   addSwitches( all, type, timer );
   all[ type + " clock" ] = timer.notifier();
   all[ type + " timeMin" ] = timer.timeMin();
}

void addProgression( Values & all, StartUp const & world ) {
   auto const sm = world.statusSm();
   addMachine( all, "Stage::StatusSm", *sm );
   all[ "Stage::StatusSm application" ] = sm->application();
   all[ "Stage::StatusSm config" ] = sm->config();
   all[ "Stage::StatusSm status" ] = sm->status();
   all[ "Stage::StatusSm progress" ] = sm->progress();
   all[ "Stage::StatusSm log" ] = sm->log();
   all[ "Stage::StatusSm logSm" ] = sm->logSm();
   all[ "Stage::StatusSm needRecalculateNextStage" ] = sm->needRecalculateNextStage();
   all[ "Stage::StatusSm initialized" ] = sm->initialized();
   all[ "Stage::StatusSm recalculateNextStage" ] = sm->recalculateNextStage();
   addTimer( all, "Stage::StatusSm::KivRecalculateNextStage", *sm->recalculateNextStage() );

   addMachine( all, "Stage::LogSm", *sm->logSm() );
   all[ "Stage::LogSm stageLog" ] = sm->logSm()->stageLog();

   auto const waiting = world.stageEnableSm();
   addSwitches( all, "Stage::StageEnableSm", *waiting );
   all[ "Stage::StageEnableSm kivFwkActivity" ] = waiting->kivFwkActivity();
   all[ "Stage::StageEnableSm stage" ] = waiting->stage();
   all[ "Stage::StageEnableSm name" ] = waiting->name();
   all[ "Stage::StageEnableSm mainSm" ] = Ptr< Stage::StatusSm >( waiting->mainSm() );
   all[ "Stage::StageEnableSm fwkKey" ] = waiting->fwkKey();
}

void addActiveStage( Values & all, StartUp const & world ) {
   auto const sm = world.stageSm();
   addMachine( all, "Stage::StageSm", *sm );
   all[ "Stage::StageSm stage" ] = sm->stage();
   all[ "Stage::StageSm logSm" ] = sm->logSm();
   all[ "Stage::StageSm name" ] = sm->name();
   all[ "Stage::StageSm complete" ] = sm->complete();
   all[ "Stage::StageSm timedOut" ] = sm->timedOut();
   all[ "Stage::StageSm completionTime" ] = sm->completionTime();
   all[ "Stage::StageSm stageUncompleted" ] = sm->stageUncompleted();
   all[ "Stage::StageSm initialized" ] = sm->initialized();
   all[ "Stage::StageSm mainSm" ] = Ptr< Stage::StatusSm >( sm->mainSm() );
   all[ "Stage::StageSm fwkKey" ] = sm->fwkKey();
   addTimer( all, "Stage::StageSm::KivStageUncompleted", *sm->stageUncompleted() );

   if( auto const event = sm->event( "routing" ) ) {
      addSwitches( all, "Stage::StageSm::KivEvent", *event );
      all[ "Stage::StageSm::KivEvent event" ] = event->event();
      all[ "Stage::StageSm::KivEvent fwkKey" ] = event->fwkKey();
   }
   if( auto const pending = sm->pendingEvent( "Net:routing" ) )
      all[ "Stage::StageSm::KivPendingEvent pendingEvent" ] = pending->pendingEvent();
}

// What the typed getters give now.
Values typedValues( StartUp const & world ) {
   Values all;
   all[ "Stage::Ordovan isNondestructing" ] = world.manager->isNondestructing();
   all[ "Stage::Ordovan configSm" ] = world.manager->configSm();
   all[ "Stage::Ordovan statusSm" ] = world.manager->statusSm();
   addAggregation( all, world );
   addProgression( all, world );
   addActiveStage( all, world );
   return all;
}

// Reads every row that is no collection, by name; how many there were.
std::size_t compareReads( StartUp const & world ) {
   Values const typed = typedValues( world );
   std::size_t compared = 0;
   forEachRow( world, [ & ]( GenericIf const & access, Kiv::Attribute const & row ) {
      if( !row.access.read )
         return;
      ++compared;
      auto const found = typed.find( idOf( access, row ) );
      ASSERT_NE( found, typed.end() );
      Value const named = access.read( row.name );
      EXPECT_TRUE( same( named, found->second ) )
         << named.toString() << " by name, " << found->second.toString();
   } );
   EXPECT_EQ( compared, typed.size() );
   return compared;
}

// Another value that may be written; nothing where a write makes a state machine.
Value another( Value const & value, Kiv::Attribute const & row ) {
   if( value.is( Kind::boolean ) )
      return !value.boolean();
   if( value.is( Kind::real ) )
      return 5000.5;
   return row.name == std::string( "kivFwkActivity" ) ? Value( Kiv::activityManager()->config() )
                                                      : Value();
}

} // namespace

TEST( Wiring, EveryValueThatIsReadByNameIsWhatItsGetterGives ) {
   StartUp const world;
   EXPECT_EQ( compareReads( world ), 3U + 6 + 4 + 4 + 4 + 12 + 4 + 4 + 7 + 13 + 4 + 4 + 1 );
}

TEST( Wiring, AKeyIsNotTheNameOfWhatIsWatchedNow ) {
   StartUp const world;
   world.stageEnableSm()->stageIs( Ptr< Stage::StageStatus const >( world.stage( "Boot" ) ) );
   world.stageSm()->notifierIs( Ptr< Kiv::PtrInterface const >( world.stage( "Gui" ) ) );
   Values const typed = typedValues( world );
   for( std::string const type : { "Stage::StageEnableSm", "Stage::StageSm" } ) {
      GenericIf const access( type == "Stage::StageSm" ? Value( world.stageSm() )
                                                       : Value( world.stageEnableSm() ) );
      EXPECT_EQ( access.read( "name" ), typed.at( type + " name" ) );
      EXPECT_EQ( access.read( "fwkKey" ), typed.at( type + " fwkKey" ) );
      EXPECT_FALSE( access.read( "name" ) == access.read( "fwkKey" ) );
   }
}

TEST( Wiring, AWriteByNameChangesItsOwnAttributeAndNoOther ) {
   std::size_t written = 0;
   StartUp const any;
   forEachRow( any, [ & ]( GenericIf const & anyAccess, Kiv::Attribute const & row ) {
      StartUp const world;
      std::string const type = anyAccess.type().name();
      GenericIf const access( objectOf( world, type ) );
      Values expected = typedValues( world );
      std::string const id = idOf( access, row );
      Value const value = row.access.write ? another( expected[ id ], row ) : Value();
      if( value.is( Kind::nothing ) )
         return;
      ++written;
      expected[ id ] = value;
      using Watcher = Kiv::PtrInterface::NotifieeConst;
      if( row.name == std::string( "kivDoZombieReactors" ) &&
          dynamic_cast< Watcher const * >( access.instance().get() ) )
         expected[ type + " hasNotificationActiveIs" ] = false; // it hears nothing any more
      access.write( row.name, value );
      Values const typed = typedValues( world );
      for( auto const & [ name, is ] : typed )
         if( name.rfind( type + " ", 0 ) == 0 )
            EXPECT_TRUE( same( is, expected[ name ] ) ) << name << " is " << is.toString();
      compareReads( world );
      access.write( row.name, value );
      EXPECT_TRUE( same( typedValues( world )[ id ], value ) ) << "the same once more";
   } );
   EXPECT_EQ( written, 1U + 2 + 2 + 2 + 2 + 4 + 2 + 3 + 3 + 6 + 2 + 3 );
}

// ---------------------------------------------------------------------------- collections

namespace {

struct Collection {
   std::string type;
   char const * name;
   char const * key;
   Value value; // to be written under the key; nothing where members cannot be written
   std::function< Value() > member;
   std::function< std::uint32_t() > count;
};

std::vector< Collection > collectionsOf( StartUp const & world ) {
   auto const config = world.configSmHeld();
   auto const status = world.statusSm();
   auto const stage = config->stageStatus( "Net" );
   auto const active = world.stageSm();
   std::string const reactor = "Stage::ConfigSm::KivStageStatus";
   auto const ancestor = [ stage ] {
      return stage->hasCriticalAncestor( "Gui" ) ? Value( stage->criticalAncestor( "Gui" ) )
                                                 : Value();
   };
   return {
      { "Stage::ConfigSm", "agentConfig", "routing", config->agentConfig( "routing" )->notifier(),
        [ config ] { return Value( config->agentConfig( "routing" ) ); },
        [ config ] { return config->agentConfigs(); } },
      { "Stage::ConfigSm", "stageStatus", "Net", world.stage( "Net" ),
        [ config ] { return Value( config->stageStatus( "Net" ) ); },
        [ config ] { return config->stageStatuss(); } },
      { reactor, "eventConfig", "routing", world.net,
        [ stage ] { return Value( stage->eventConfig( "routing" ) ); },
        [ stage ] { return stage->eventConfigs(); } },
      { reactor, "criticalAncestor", "Gui", true, ancestor,
        [ stage ] { return stage->criticalAncestors(); } },
      { "Stage::StatusSm", "stageEnableSm", "Gui", world.stage( "Gui" ),
        [ status ] { return Value( status->stageEnableSm( "Gui" ) ); },
        [ status ] { return status->stageEnableSms(); } },
      { "Stage::StatusSm",
        "stageSm",
        "Net",
        {},
        [ status ] { return Value( status->stageSm( "Net" ) ); },
        [ status ] { return status->stageSms(); } },
      { "Stage::StageSm", "pendingEvent", "Net:routing", world.net,
        [ active ] { return Value( active->pendingEvent( "Net:routing" ) ); },
        [ active ] { return active->pendingEvents(); } },
      { "Stage::StageSm", "event", "routing", world.net,
        [ active ] { return Value( active->event( "routing" ) ); },
        [ active ] { return active->events(); } },
   };
}

void tryCollection( GenericIf const & access, Collection const & c ) {
   std::uint32_t const before = c.count();
   ASSERT_NE( before, 0U );
   ASSERT_FALSE( c.member().is( Kind::nothing ) );
   EXPECT_TRUE( same( access.read( c.name, { c.key } ), c.member() ) );
   EXPECT_EQ( access.attributeCount( access.attributeId( c.name ) ), before );
   access.attributeOp( c.name, Op::del, GenericIf::Index{ "absent" } );
   EXPECT_EQ( c.count(), before );
   access.attributeOp( c.name, Op::del, GenericIf::Index{ c.key } );
   EXPECT_TRUE( c.member().is( Kind::nothing ) );
   EXPECT_EQ( c.count(), before - 1 );
   if( !c.value.is( Kind::nothing ) ) {
      access.attributeOp( c.name, Op::write, GenericIf::Index{ c.key }, c.value );
      EXPECT_EQ( c.count(), before );
      ASSERT_FALSE( c.member().is( Kind::nothing ) );
      EXPECT_TRUE( same( access.read( c.name, { c.key } ), c.member() ) );
   }
   access.attributeOp( c.name, Op::delAll );
   EXPECT_EQ( c.count(), 0U );
}

} // namespace

TEST( Wiring, ACollectionIsReadWrittenAndDeletedFromByNameAsByItsOwnAccessors ) {
   std::size_t const collections = collectionsOf( StartUp() ).size();
   for( std::size_t n = 0; n != collections; ++n ) {
      StartUp const world;
      Collection const tried = collectionsOf( world )[ n ];
      SCOPED_TRACE( tried.type + " " + tried.name );
      tryCollection( GenericIf( objectOf( world, tried.type ) ), tried );
   }
   std::size_t rows = 0;
   StartUp const world;
   forEachRow( world, [ & ]( GenericIf const &, Kiv::Attribute const & row ) {
      rows += row.access.member != nullptr;
   } );
   EXPECT_EQ( rows, collections );
}
