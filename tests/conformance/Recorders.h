// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// For each entity type a reactor that writes down every callback it gets, as "who.onX(key)".
#pragma once

#include <Stage/Stage.h>

#include <string>
#include <utility>
#include <vector>

namespace conformance {

using Trail = std::vector< std::string >;

// What the recorders of all types share.
template< class E >
class RecorderOf : public E::Notifiee {
 public:
   RecorderOf( Kiv::Ptr< E > const & entity, Trail & trail, std::string who )
      : trail_( trail ), who_( std::move( who ) ) {
      this->watch( entity );
   }
   void onParent() override { say( "onParent()" ); }
   void onVersion() override { say( "onVersion()" ); }

 protected:
   void say( std::string const & callback ) { trail_.push_back( who_ + "." + callback ); }
   void say( std::string const & callback, Kiv::Text const & key ) {
      say( callback + "(" + key.str() + ")" );
   }

 private:
   Trail & trail_;
   std::string const who_;
};

template< class E >
class Recorder;

template<>
class Recorder< Kiv::Dir > : public RecorderOf< Kiv::Dir > {
 public:
   using RecorderOf::RecorderOf;
   void onEntityPtr( Kiv::Name name ) override { say( "onEntityPtr", name ); }
   void onEntityPtrkivImmediate() override { say( "onEntityPtrkivImmediate()" ); }
   void onEntityPtr() override { say( "onEntityPtr()" ); }
};

template<>
class Recorder< Stage::Config > : public RecorderOf< Stage::Config > {
 public:
   using RecorderOf::RecorderOf;
   void onIsNondestructing() override { say( "onIsNondestructing()" ); }
   void onAgentDir() override { say( "onAgentDir()" ); }
   void onEnabled() override { say( "onEnabled()" ); }
};

template<>
class Recorder< Stage::AgentConfig > : public RecorderOf< Stage::AgentConfig > {
 public:
   using RecorderOf::RecorderOf;
   void onIsNondestructing() override { say( "onIsNondestructing()" ); }
   void onEvent( Kiv::Name stage ) override { say( "onEvent", stage ); }
   void onEventkivImmediate() override { say( "onEventkivImmediate()" ); }
   void onEvent() override { say( "onEvent()" ); }
};

template<>
class Recorder< Stage::EventConfig > : public RecorderOf< Stage::EventConfig > {
 public:
   using RecorderOf::RecorderOf;
   void onIsNondestructing() override { say( "onIsNondestructing()" ); }
   void onComplete() override { say( "onComplete()" ); }
   void onDependency( Kiv::String8 stage ) override { say( "onDependency", stage ); }
   void onDependencykivImmediate() override { say( "onDependencykivImmediate()" ); }
   void onDependency() override { say( "onDependency()" ); }
   void onTimeout() override { say( "onTimeout()" ); }
   void onCritical() override { say( "onCritical()" ); }
};

template<>
class Recorder< Stage::Status > : public RecorderOf< Stage::Status > {
 public:
   using RecorderOf::RecorderOf;
   void onIsNondestructing() override { say( "onIsNondestructing()" ); }
   void onStage( Kiv::Name stage ) override { say( "onStage", stage ); }
   void onStagekivImmediate() override { say( "onStagekivImmediate()" ); }
   void onStage() override { say( "onStage()" ); }
   void onActiveStage( Kiv::Name stage ) override { say( "onActiveStage", stage ); }
   void onActiveStagekivImmediate() override { say( "onActiveStagekivImmediate()" ); }
   void onActiveStage() override { say( "onActiveStage()" ); }
   void onProgress() override { say( "onProgress()" ); }
   void onSorted() override { say( "onSorted()" ); }
   void onComplete() override { say( "onComplete()" ); }
};

template<>
class Recorder< Stage::StageStatus > : public RecorderOf< Stage::StageStatus > {
 public:
   using RecorderOf::RecorderOf;
   void onIsNondestructing() override { say( "onIsNondestructing()" ); }
   void onDependency( Kiv::String8 stage ) override { say( "onDependency", stage ); }
   void onDependencykivImmediate() override { say( "onDependencykivImmediate()" ); }
   void onDependency() override { say( "onDependency()" ); }
   void onEvent( Kiv::String8 agent ) override { say( "onEvent", agent ); }
   void onEventkivImmediate() override { say( "onEventkivImmediate()" ); }
   void onEvent() override { say( "onEvent()" ); }
   void onTimeout() override { say( "onTimeout()" ); }
   void onCritical() override { say( "onCritical()" ); }
};

template<>
class Recorder< Stage::Progress > : public RecorderOf< Stage::Progress > {
 public:
   using RecorderOf::RecorderOf;
   void onIsNondestructing() override { say( "onIsNondestructing()" ); }
};

template<>
class Recorder< Stage::Log > : public RecorderOf< Stage::Log > {
 public:
   using RecorderOf::RecorderOf;
   void onIsNondestructing() override { say( "onIsNondestructing()" ); }
};

} // namespace conformance
