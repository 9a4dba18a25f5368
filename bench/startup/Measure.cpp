// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <startup/Measure.h>

#include <ctime>

#include <malloc.h>

namespace Bench {

namespace {

// Of the only thread: while the process has a limit of processor time, the clock of the process
// goes in ticks.
double processorSeconds() {
   timespec now{};
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &now );
   return static_cast< double >( now.tv_sec ) + static_cast< double >( now.tv_nsec ) * 1e-9;
}

// Asked of the allocator, its own overhead included: pages are too coarse for a hundred stages.
std::uint64_t heapInUse() {
   auto const info = mallinfo2();
   return std::uint64_t{ info.uordblks } + info.hblkhd;
}

} // namespace

Meter::Meter() : heapBefore_( heapInUse() ), last_( processorSeconds() ) {}

double Meter::lap() {
   double const before = last_;
   last_ = processorSeconds();
   return last_ - before;
}

std::uint64_t Meter::heapBytes() const { return heapInUse() - heapBefore_; }

} // namespace Bench
