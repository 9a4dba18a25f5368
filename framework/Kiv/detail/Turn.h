// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// How much one turn of the loop has delivered, and whether it is time for what waits outside.
#pragma once

#include <Kiv/Notifiee.h>
#include <Kiv/detail/Queue.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace Kiv::detail {

// Reactors that answer each other, or a timer that is set for "now" whenever it fires, make a turn
// without an end. It is cut when it has delivered `limit` callbacks and timers.
//
// A burst, however large, ends by itself, and is not cut: timers that fired in the middle of it
// would see half of what was declared in one instant. What tells the two apart is how often work
// has led to more work. All that was asked for by the time the turn begins is its first generation,
// what came by the end of that its second, and so on: an aggregation has few generations, whatever
// its size, an endless turn as many as one waits for. So a turn is cut in its 64th generation at
// the earliest.
class Turn {
 public:
   using Reactor = PtrInterface::NotifieeConst;

   std::size_t limit() const { return limit_; }
   void limitIs( std::size_t limit ) { limit_ = limit; }

   // This is about to be delivered. It was the `number`-th thing that was asked of the loop.
   void delivers( Reactor const & reactor, AttributeId attribute, std::uint64_t number ) {
      ++delivered_;
      if( number > asked_ ) {
         ++generations_;
         asked_ = queue().asked();
      }
      if( delivered_ + lookedAt >= limit_ ) [[unlikely]]
         lookAt( reactor, attribute );
   }
   // Whether others are next.
   bool over() const { return delivered_ >= limit_ && generations_ >= leastGenerations; }

   // They begin. Of the timers those are meant that had been set by now, to a `time` that has come.
   // Tells of the busy ones, once until end().
   void othersBegin( double time );
   bool othersHaveBegun() const { return othersHaveBegun_; }
   std::uint64_t asked() const { return asked_; }
   double time() const { return time_; }
   // They have had their turn.
   void goesOn();
   // Nothing is queued or due any more.
   void ends();

 private:
   static constexpr std::size_t leastGenerations = 64;
   // The busy ones are looked for among the last of a turn, in which there is nothing else.
   static constexpr std::size_t lookedAt = 64;
   static constexpr std::size_t generationsLookedAt = 8;
   struct Busy {
      PtrInterface const * watched = nullptr;
      AttributeId attribute = noAttribute;
      String8 text;
   };

   void lookAt( Reactor const & reactor, AttributeId attribute ) noexcept;
   void forgetBusy();

   std::size_t limit_ = 100000;
   std::size_t delivered_ = 0;
   std::size_t generations_ = 0;
   std::uint64_t asked_ = 0; // when the generation, or the others' turn, began
   double time_ = 0;
   bool othersHaveBegun_ = false;
   bool told_ = false;
   std::array< Busy, 8 > busy_;
   std::size_t found_ = 0;
   bool more_ = false; // than could be written down
};

} // namespace Kiv::detail
