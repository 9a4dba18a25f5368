// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Ordovan/LogSm.h>

#include <Kiv/Access.h>

namespace Stage {

namespace {

constexpr auto rows = Kiv::machineTable< LogSm >( {
   Kiv::fixed< &LogSm::stageLog >( "stageLog", "Kiv::Ptr<Stage::Log>" ),
   Kiv::operation< &LogSm::logIs >( "logIs", "msg" ),
   Kiv::activity(),
} );

} // namespace

Kiv::KivType const & LogSm::_fwkType() { return Kiv::typeOf< rows >( "Stage::LogSm" ); }

} // namespace Stage
