// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Every collection that tells of its members, under one interface: for tests that hold for all.
//
// A Home owns the entity with the collection, adds and removes members by key, and leads a Watcher
// of that entity to told( key ) and toldDeferred().
#pragma once

#include <Ordovan/Ordovan.h>
#include <Stage/Stage.h>

#include <string>

namespace delivery {

// What all Watchers have in common, seen without their types.
class Told {
 public:
   virtual ~Told() = default;
   virtual void told( std::string const & key ) = 0;
   virtual void toldDeferred() = 0;
};

struct DirEntries {
   using Entity = Kiv::Dir;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onEntityPtr( Kiv::Name key ) override { told( key.str() ); }
      void onEntityPtrkivImmediate() override { toldDeferred(); }
      void onEntityPtr() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = Kiv::Dir::DirIs( "home" );
   static void add( Entity & e, char const * key ) {
      if( !e.entityPtr( key ) )
         e.entityPtrIs( Stage::Progress::ProgressIs( key ) );
   }
   static void remove( Entity & e, char const * key ) { e.entityPtrDel( key ); }
   static void removeAll( Entity & e ) { e.entityPtrDelAll(); }
};

struct AgentEvents {
   using Entity = Stage::AgentConfig;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onEvent( Kiv::Name key ) override { told( key.str() ); }
      void onEventkivImmediate() override { toldDeferred(); }
      void onEvent() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = Stage::AgentConfig::AgentConfigIs( "home" );
   static void add( Entity & e, char const * key ) {
      if( !e.event( key ) )
         e.eventIs( key, Stage::EventConfig::EventConfigIs( key, e.name() ) );
   }
   static void remove( Entity & e, char const * key ) { e.eventDel( key ); }
   static void removeAll( Entity & e ) { e.eventDelAll(); }
};

struct EventDependencies {
   using Entity = Stage::EventConfig;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onDependency( Kiv::String8 key ) override { told( key.str() ); }
      void onDependencykivImmediate() override { toldDeferred(); }
      void onDependency() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = Stage::EventConfig::EventConfigIs( "Home", "agent" );
   static void add( Entity & e, char const * key ) { e.dependencyIs( key, true ); }
   static void remove( Entity & e, char const * key ) { e.dependencyDel( key ); }
   static void removeAll( Entity & e ) { e.dependencyDelAll(); }
};

struct Stages {
   using Entity = Stage::Status;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onStage( Kiv::Name key ) override { told( key.str() ); }
      void onStagekivImmediate() override { toldDeferred(); }
      void onStage() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = Stage::Status::StatusIs( "home" );
   static void add( Entity & e, char const * key ) { e.stageIs( key ); }
   static void remove( Entity & e, char const * key ) { e.stageDel( key ); }
   static void removeAll( Entity & e ) { e.stageDelAll(); }
};

struct ActiveStages {
   using Entity = Stage::Status;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onActiveStage( Kiv::Name key ) override { told( key.str() ); }
      void onActiveStagekivImmediate() override { toldDeferred(); }
      void onActiveStage() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = Stage::Status::StatusIs( "home" );
   static void add( Entity & e, char const * key ) { e.activeStageIs( e.stageIs( key ) ); }
   static void remove( Entity & e, char const * key ) { e.activeStageDel( key ); }
   static void removeAll( Entity & e ) { e.activeStageDelAll(); }
};

struct StageEvents {
   using Entity = Stage::StageStatus;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onEvent( Kiv::String8 key ) override { told( key.str() ); }
      void onEventkivImmediate() override { toldDeferred(); }
      void onEvent() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = Stage::Status::StatusIs( "status" )->stageIs( "home" );
   static void add( Entity & e, char const * key ) {
      if( !e.event( key ) )
         e.eventIs( Stage::EventConfig::EventConfigIs( "Home", key ) );
   }
   static void remove( Entity & e, char const * key ) { e.eventDel( key ); }
   static void removeAll( Entity & e ) { e.eventDelAll(); }
};

struct StageDependencies {
   using Entity = Stage::StageStatus;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onDependency( Kiv::String8 key ) override { told( key.str() ); }
      void onDependencykivImmediate() override { toldDeferred(); }
      void onDependency() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = Stage::Status::StatusIs( "status" )->stageIs( "home" );
   static void add( Entity & e, char const * key ) { e.dependencyIs( key, true ); }
   static void remove( Entity & e, char const * key ) { e.dependencyDel( key ); }
   static void removeAll( Entity & e ) { e.dependencyDelAll(); }
};

// What a state machine of an active stage needs around it: a progression that is not enabled.
struct Progression {
   Kiv::Ptr< Stage::Config > config = Stage::Config::ConfigIs( "config" );
   Kiv::Ptr< Stage::Status > status = Stage::Status::StatusIs( "status" );
   Kiv::Ptr< Stage::Log > log = Stage::Log::LogIs( "log" );
   Kiv::Ptr< Stage::StatusSm > main = new Stage::StatusSm(
      "application", config, status, Stage::Progress::ProgressIs( "progress" ), log );

   Kiv::Ptr< Stage::StageSm > newStageSm() {
      return new Stage::StageSm( status->stageIs( "Home" ), main->logSm(), main.get() );
   }
};

struct PendingEvents : Progression {
   using Entity = Stage::StageSm;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onPendingEvent( Kiv::String8 uid ) override { told( uid.str().substr( 5 ) ); }
      void onPendingEventkivImmediate() override { toldDeferred(); }
      void onPendingEvent() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = newStageSm();
   static Kiv::String8 uid( char const * key ) { return Kiv::String8( "Home:" ) + key; }
   static void add( Entity & e, char const * key ) {
      if( !e.pendingEvent( uid( key ) ) )
         e.pendingEventIs( Stage::EventConfig::EventConfigIs( "Home", key ) );
   }
   static void remove( Entity & e, char const * key ) { e.pendingEventDel( uid( key ) ); }
   static void removeAll( Entity & e ) { e.pendingEventDelAll(); }
};

struct MirroredEvents : Progression {
   using Entity = Stage::StageSm;
   class Watcher : public Entity::NotifieeConst, public Told {
    public:
      void onEvent( Kiv::String8 key ) override { told( key.str() ); }
      void onEventkivImmediate() override { toldDeferred(); }
      void onEvent() override { told( "whole" ); }
   };
   Kiv::Ptr< Entity > entity = newStageSm();
   static void add( Entity & e, char const * key ) {
      if( !e.event( key ) )
         e.eventIs( key, Stage::EventConfig::EventConfigIs( "Home", key ) );
   }
   static void remove( Entity & e, char const * key ) { e.eventDel( key ); }
   static void removeAll( Entity & e ) { e.eventDelAll(); }
};

} // namespace delivery
