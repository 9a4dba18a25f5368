// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A start-up of two stages, for the programs beside this file, which run it inside loops of four
// kinds. Its agents need some time, another thread, and an answer from outside.
#pragma once

#include <Ordovan/Ordovan.h>

#include <array>
#include <cstdio>
#include <functional>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

// An agent with one event. It does its part when the event's stage becomes active.
class Agent : public Stage::Status::NotifieeConst {
 public:
   Agent( Kiv::Name stage, Kiv::Name name, Kiv::Ptr< Kiv::Dir > agents,
          Kiv::Ptr< Stage::Status > status )
      : stage_( stage ), config_( Stage::AgentConfig::AgentConfigIs( name ) ),
        event_( Stage::EventConfig::EventConfigIs( stage, name ) ) {
      config_->eventIs( stage, event_ );
      agents->entityPtrIs( config_ );
      watch( status );
   }
   using NotifieeConst::onActiveStage;
   void onActiveStage( Kiv::Name stage ) override {
      if( stage == stage_ )
         begin();
   }
   Kiv::Ptr< Stage::EventConfig > event() const { return event_; }

 protected:
   virtual void begin() = 0;
   void say( char const * what ) const {
      std::printf( "%s %s\n", config_->name().charPtr(), what );
   }

 private:
   Kiv::Name const stage_;
   Kiv::Ptr< Stage::AgentConfig > const config_;
   Kiv::Ptr< Stage::EventConfig > const event_;
};

// Lets the power settle, which takes a timer, then tests itself, which would block the loop.
class Platform : public Agent {
 public:
   using Agent::Agent;
   ~Platform() override {
      if( test_.joinable() )
         test_.join();
   }

 protected:
   void begin() override {
      say( "lets the power settle" );
      settled_->timeMinIs( Kiv::now() + 0.01 );
   }

 private:
   struct Timer : Kiv::Clock::NotifieeConst {
      explicit Timer( Platform & platform ) : platform_( platform ) {
         watch( Kiv::activityManager()->clock() );
      }
      void onTime() override { platform_.test(); }
      Platform & platform_;
   };

   void test() {
      say( "tests itself" );
      test_ = std::thread( [ this ] {
         // On the other thread: nothing of the libraries but post() may be used here.
         Kiv::activityManager()->post( [ this ] {
            // On the loop's thread again.
            say( "is in order" );
            event()->completeIs( true );
         } );
      } );
   }

   Kiv::Ptr< Timer > const settled_ = Kiv::newReactor< Timer >( *this );
   std::thread test_;
};

// Asks somebody else, whose answer comes through a pipe.
class Routing : public Agent {
 public:
   using Agent::Agent;
   ~Routing() override {
      if( neighbour_.joinable() )
         neighbour_.join();
      ::close( pipe_[ 0 ] );
      ::close( pipe_[ 1 ] );
   }
   // Becomes readable when the answer is there. Stays the agent's.
   int descriptor() const { return pipe_[ 0 ]; }
   // REQUIRES: the descriptor is readable.
   void answered() {
      char answer = 0;
      if( ::read( pipe_[ 0 ], &answer, 1 ) == 1 ) {
         say( "has an answer" );
         event()->completeIs( true );
      }
   }

 protected:
   void begin() override {
      say( "asks its neighbour" );
      neighbour_ = std::thread( [ this ] {
         if( ::write( pipe_[ 1 ], "!", 1 ) != 1 )
            std::perror( "the neighbour" );
      } );
   }

 private:
   static std::array< int, 2 > openPipe() {
      std::array< int, 2 > ends{};
      if( ::pipe2( ends.data(), O_NONBLOCK | O_CLOEXEC ) != 0 )
         throw std::system_error( errno, std::generic_category(), "pipe2" );
      return ends;
   }

   std::array< int, 2 > const pipe_ = openPipe();
   std::thread neighbour_;
};

// Everything together.
class StartUp {
 public:
   StartUp() {
      config_->agentDirIs( agents_ );
      config_->enabledIs( true );
      routing_->event()->dependencyIs( "Hardware", true );
      manager_->configSmIs( config_, status_, agents_ );
      manager_->statusSmIs( "Router", config_, status_, Stage::Progress::ProgressIs( "progress" ),
                            Stage::Log::LogIs( "log" ) );
   }
   Routing & routing() { return *routing_; }
   bool complete() const { return status_->complete(); }

 private:
   Kiv::Ptr< Kiv::Dir > const agents_ = Kiv::Dir::DirIs( "agents" );
   Kiv::Ptr< Stage::Config > const config_ = Stage::Config::ConfigIs( "config" );
   Kiv::Ptr< Stage::Status > const status_ = Stage::Status::StatusIs( "status" );
   Kiv::Ptr< Platform > const platform_ =
      Kiv::newReactor< Platform >( "Hardware", "Platform", agents_, status_ );
   Kiv::Ptr< Routing > const routing_ =
      Kiv::newReactor< Routing >( "Protocols", "Routing", agents_, status_ );
   Kiv::Ptr< Stage::Ordovan > const manager_ = Stage::Ordovan::OrdovanIs( "manager" );
};
