// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// StatusSm's plumbing; its handlers are in Ordovan.cpp.

#include <Ordovan/StatusSm.h>

#include <Index/Candidates.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using namespace Kiv;

namespace {

// What the handlers need.
constexpr auto works =
   &hasEach< StatusSm, &StatusSm::config, &StatusSm::status, &StatusSm::recalculateNextStage >;

constexpr auto rows = machineTable< StatusSm >(
   {
      fixed< &StatusSm::application >( "application", "Kiv::String8" ),
      Attribute( "config", "Kiv::Ptr<Stage::Config const>", "",
                 Role::constructorArgument | Role::reactor, {}, reads< &StatusSm::config >() ),
      fixed< &StatusSm::status >( "status", "Kiv::Ptr<Stage::Status>", Role::reactor ),
      fixed< &StatusSm::progress >( "progress", "Kiv::Ptr<Stage::Progress>" ),
      fixed< &StatusSm::log >( "log", "Kiv::Ptr<Stage::Log>" ),
      readOnly< &StatusSm::logSm >( "logSm", "Kiv::Ptr<Stage::LogSm>" ),
      Attribute(
         "stageEnableSm", "Stage::StageEnableSm", "Kiv::Name", Role::collection,
         keyed< &StatusSm::stageEnableSm, &StatusSm::stageEnableSms,
                &StatusSm::stageEnableSmIteratorConst >()
            .memberWritesUnder< &StatusSm::stageEnableSmIs, &StageStatus::name >()
            .memberDeletes< &StatusSm::stageEnableSmDel, &StatusSm::stageEnableSmDelAll >() ),
      Attribute( "stageSm", "Stage::StageSm", "Kiv::Name", Role::collection,
                 keyed< &StatusSm::stageSm, &StatusSm::stageSms, &StatusSm::stageSmIteratorConst >()
                    .memberDeletes< &StatusSm::stageSmDel, &StatusSm::stageSmDelAll >() ),
      handlers< String8, StatusSm, &StatusSm::handleActiveStage, &StatusSm::handleActiveStage >(
         "handleActiveStage", "name" ),
      plain< &StatusSm::needRecalculateNextStage, &StatusSm::needRecalculateNextStageIs >(
         "needRecalculateNextStage", "bool" ),
      handler< &StatusSm::handleNextStage >( "handleNextStage" ),
      operation< &StatusSm::doNextStage >( "doNextStage" ),
      readOnly< &StatusSm::recalculateNextStage >( "recalculateNextStage", "Kiv::Clock",
                                                   Role::reactor ),
      handler< &StatusSm::handleEnabled >( "handleEnabled" ),
      plain< &StatusSm::initialized, &StatusSm::initializedIs >( "initialized", "bool" ),
      handler< &StatusSm::handleInitialized >( "handleInitialized" ),
      activity(),
   },
   works );

using Timer = StatusSm::KivRecalculateNextStage;
constexpr auto timerRows = machineTable< Timer >( {
   fixed< &Timer::notifier >( "clock", "Kiv::Ptr<Kiv::Clock const>" ),
   plain< &Timer::timeMin, &Timer::timeMinIs >( "timeMin", "double" ),
} );

} // namespace

KivType const & StatusSm::_fwkType() { return typeOf< rows >( "Stage::StatusSm" ); }
KivType const & StatusSm::KivRecalculateNextStage::_fwkType() {
   return typeOf< timerRows >( "Stage::StatusSm::KivRecalculateNextStage" );
}

StatusSm::StatusSm( String8 const & application, Ptr< Config const > const & config,
                    Ptr< Status > const & status, Ptr< Progress > const & progress,
                    Ptr< Log > const & log )
   : application_( application ), progress_( progress ), log_( log ) {
   KeepDuringConstruction const keep( *this );
   if( config )
      config_.reactorIs( newConfig( config ) );
   if( status )
      status_.reactorIs( newStatus( status ) );
   handleActiveStage();
   handleInitialized();
}

StatusSm::~StatusSm() {
   kivDoZombieReactors( true );
   candidates_ = nullptr;
   config_.ownerGoes();
   status_.ownerGoes();
   recalculateNextStage_.ownerGoes();
   logSmDel();
   stageEnableSmDelAll();
   stageSmDelAll();
}

void StatusSm::logSmIs( Ptr< Log > const & log ) {
   if( logSm_ && logSm_->stageLog() == log )
      return;
   logSm_ = newLogSm( log );
}
Ptr< LogSm > StatusSm::newLogSm( Ptr< Log > const & log ) {
   Ptr< LogSm > const made = new LogSm( log );
   made->hasNotificationActiveIs( true );
   return made;
}

Ptr< StageEnableSm > StatusSm::newStageEnableSm( Ptr< StageStatus const > const & stageStatus ) {
   return new StageEnableSm( valid( stageStatus ), this );
}
Ptr< StageEnableSm > StatusSm::stageEnableSmIs( Ptr< StageStatus const > const & stageStatus ) {
   return stageEnableSm_.memberIs(
      valid( stageStatus )->name(), stageStatus, [ & ] { return newStageEnableSm( stageStatus ); },
      []( StageEnableSm & stored ) { stored.hasNotificationActiveIs( true ); } );
}

Ptr< StageSm > StatusSm::newStageSm( Ptr< StageStatus const > const & stageStatus,
                                     Ptr< LogSm > const & logSm ) {
   return new StageSm( valid( stageStatus ), logSm, this );
}
Ptr< StageSm > StatusSm::stageSmIs( Ptr< StageStatus const > const & stageStatus,
                                    Ptr< LogSm > const & logSm ) {
   Ptr< StageSm > const held = stageSm_.memberIs(
      valid( stageStatus )->name(), stageStatus, [ & ] { return newStageSm( stageStatus, logSm ); },
      [ this ]( StageSm & stored ) {
         stored.hasNotificationActiveIs( true );
         completionChanged( stored.name() );
      } );
   if( held->logSm() != logSm )
      throwNameInUseException(
         String8( "Reinstantiating the pointer interface where constructor parameter attribute "
                  "_logSm has a different value of " ) +
         valueToString( logSm ) + " than the current value of " + valueToString( held->logSm() ) +
         " not allowed" );
   return held;
}

void StatusSm::stageSmDel( Name const & name ) {
   Ptr< StageSm > const gone = stageSm( name );
   if( gone && candidates_ )
      candidates_->leaves( gone->completion_ );
   stageSm_.memberDel( name );
}

void StatusSm::completionChanged( Name const & stage ) noexcept {
   if( candidates_ )
      candidates_->changed( stage );
}

Candidates & StatusSm::candidatesOf( Status & stages ) {
   if( !candidates_ || !candidates_->serves( stages ) ) {
      candidates_ = nullptr;
      candidates_ = std::make_unique< Candidates >( stages, [ this ]( Text const & stage ) {
         Ptr< StageSm > const sm = stageSm( Name( stage ) );
         return sm ? &sm->completion_ : nullptr;
      } );
   }
   return *candidates_;
}

} // namespace Stage
