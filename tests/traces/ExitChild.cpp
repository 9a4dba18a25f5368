// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// State machines that live until after main() and pass trace points then: they were made before the
// trace handle was, so it is gone by then.
#include <Ordovan/Ordovan.h>

#include <cstdio>

namespace {

struct Late {
   Kiv::Ptr< Stage::Ordovan > manager;
   Kiv::Ptr< Stage::StatusSm > statusSm;
   ~Late() {
      statusSm->doNextStage();
      statusSm->handleNextStage();
      std::puts( "done" );
   }
} late;

} // namespace

int main() {
   late.manager = Stage::Ordovan::OrdovanIs( "manager" );
   late.statusSm = late.manager->statusSmIs(
      "late", Stage::Config::ConfigIs( "config" ), Stage::Status::StatusIs( "status" ),
      Stage::Progress::ProgressIs( "progress" ), Stage::Log::LogIs( "log" ) );
}
