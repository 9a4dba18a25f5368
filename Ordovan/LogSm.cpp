// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/LogSm.h>

#include <Ordovan/detail/Types.h>

#include <Kiv/Access.h>
#include <Kiv/Exception.h>

namespace Stage {

using Kiv::Attribute;
using Kiv::Role;

namespace {

constexpr auto rows = Kiv::numbered( {
   Attribute( "stageLog", "Kiv::Ptr<Stage::Log>", "", Role::constructorArgument,
              Kiv::reads< &LogSm::stageLog >() ),
   Attribute( "logIs", "", "Kiv::String8", Role::operation, Kiv::calls< &LogSm::logIs >( "msg" ) ),
   Attribute( "kivFwkActivity", "Kiv::Ptr<Kiv::ActivityConfig>", "", Role::framework,
              Kiv::activity() ),
   Kiv::notificationSwitch(),
   Kiv::zombieSwitch< LogSm >(),
} );

} // namespace

namespace {

// Initialised before what follows: a message that is declared finds every type registered.
[[maybe_unused]] bool const typesAreRegistered = ( detail::registerTypes(), true );

} // namespace

Kiv::LogHandle ORDOVAN_STAGE_SLOW(
   "ORDOVAN_STAGE_SLOW", 4, "%s stage %s timed out",
   "A stage in progression is taking longer than expected. Stages that depend on this stage will "
   "begin after this stage is completed.",
   Kiv::NoActionRequired, 0.0, 1.0, 0 );

// Two blanks after the first sentence of the explanation, on purpose: the text is known so.
Kiv::LogHandle ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT(
   "ORDOVAN_STAGE_COMPLETE_AFTER_TIMEOUT", 4, "%s resumed after stage %s completed after timeout.",
   "A stage that had been taking longer than expected to complete has now completed.  Stages that "
   "depend on this completion are able to proceed.",
   Kiv::NoActionRequired, 0.0, 1.0, 0 );

LogSm::LogSm( Kiv::Ptr< Log > const & stageLog ) : stageLog_( stageLog ) {}

LogSm::~LogSm() {
   kivDoZombieReactors( true );
   stageLog_ = nullptr;
}

void LogSm::hasNotificationActiveIs( bool active ) {
   if( active != hasNotificationActive() )
      PtrInterface::hasNotificationActiveIs( active );
}

void LogSm::kivDoZombieReactors( bool zombie ) {
   if( zombie != kivMarkedForDeletion() )
      kivMarkedForDeletionIs( zombie );
}

Kiv::KivType const & LogSm::fwkType() const { return _fwkType(); }
Kiv::KivType const & LogSm::_fwkType() {
   static Kiv::KivType const type( "Stage::LogSm", &PtrInterface::_fwkType(), rows );
   return type;
}

} // namespace Stage
