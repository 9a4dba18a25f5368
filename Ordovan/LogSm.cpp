// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/LogSm.h>

#include <Ordovan/detail/Types.h>

#include <Kiv/Access.h>

namespace Stage {

namespace {

constexpr auto rows = Kiv::machineTable< LogSm >( {
   Kiv::fixed< &LogSm::stageLog >( "stageLog", "Kiv::Ptr<Stage::Log>" ),
   Kiv::operation< &LogSm::logIs >( "logIs", "msg" ),
   Kiv::activity(),
} );

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

Kiv::KivType const & LogSm::_fwkType() { return Kiv::typeOf< rows >( "Stage::LogSm" ); }

} // namespace Stage
