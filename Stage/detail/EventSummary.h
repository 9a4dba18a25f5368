// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What all events of a stage say together, kept up to date inside the setters of both.
//
// Without it aggregation walks all events of a stage for each that comes, changes or goes: "agents"
// in bench/startup, 10,000 agents with an event each on one stage. A stage with few events has
// none, and its events nothing but a null pointer.
//
//    StageStatus --> EventSummary           the stages that hold an event, by its list of shares:
//                     |  |  |
//                     v  v  v
//                    shares, one per event:  EventConfig --> share in one stage --> in another -->
//                    .
//
// Invariants:
//  1. The shares of a summary are those of the events that its stage holds, one each. While an
//  event
//     joins, it may have its share already; none is left when one has left or the stage has gone.
//  2. An event's list has exactly the shares that there are of it.
//  3. A share's timeout is its event's. It stands in `longest_` unless it is not a number, and in
//     `critical_` exactly while its event is critical.
//  4. `holders_` has, for each name, the number of shares whose event has a dependency of that name
//     with value true, and no name for which there is none.
//  5. `loose_` is the number of the stage's dependencies that `holders_` does not have.
#pragma once

#include <Kiv/HashMap.h>
#include <Kiv/Memory.h>
#include <Kiv/Ptr.h>
#include <Kiv/Text.h>
#include <Stage/detail/Heap.h>

#include <cstdint>

namespace Stage {

class EventConfig;
class StageStatus;

namespace detail {

class EventSummary;

// One event's part in the summary of one stage.
struct EventShare : Kiv::KivMemPool {
   EventConfig const * event;
   EventSummary * summary;
   EventShare * nextOfEvent;
   EventShare * nextOfSummary;
   EventShare * previousOfSummary;
   double timeout;
   std::uint32_t placeInLongest = nowhere;
   std::uint32_t placeInCritical = nowhere;
};

class EventSummary : public Kiv::KivMemPool {
 public:
   // A stage with at least so many events has a summary; it is dropped when fewer than `few` are
   // left. Below, a walk is as quick.
   static constexpr std::uint32_t many = 8;
   static constexpr std::uint32_t few = 4;

   // Of no events yet. REQUIRES: the stage lives as long.
   explicit EventSummary( StageStatus const & stage );
   ~EventSummary();
   EventSummary( EventSummary const & ) = delete;
   EventSummary & operator=( EventSummary const & ) = delete;

   // An event is about to come. Throws std::bad_alloc, having changed nothing. Cost: linear in its
   // dependencies, logarithmic in the events.
   void eventAdd( EventConfig const & event );
   // One has gone. Nothing happens for one that has no share.
   void eventDel( EventConfig const & event ) noexcept;

   // The stage's own dependency came or went, all of them went.
   void stageDependencyCame( Kiv::String8 const & name ) noexcept;
   void stageDependencyWent( Kiv::String8 const & name ) noexcept;
   void stageDependencysWent() noexcept { loose_ = 0; }

   // ---- what has happened to one event, in all stages that hold it: `shares` is its list

   static void timeoutChanged( EventShare * shares ) noexcept;
   static void criticalChanged( EventShare * shares ) noexcept;
   // It is about to get a dependency that counts. Throws std::bad_alloc, having changed nothing.
   static void dependencyAdd( EventShare * shares, Kiv::String8 const & name );
   static void dependencyDel( EventShare * shares, Kiv::String8 const & name ) noexcept;

   // ---- what they say together; StageStatus.h has the meaning

   EventConfig const * firstCritical() const;
   double longestTimeout() const;
   bool holds( Kiv::String8 const & name ) const { return holders_.has( name ); }
   bool holdsAll() const { return loose_ == 0; }

 private:
   static bool isLonger( EventShare const & a, EventShare const & b ) {
      return a.timeout > b.timeout;
   }
   static bool standsBefore( EventShare const & a, EventShare const & b );

   void dependencysAdd( EventConfig const & event );
   void dependencyAdd( Kiv::String8 const & name );
   void dependencyDel( Kiv::String8 const & name ) noexcept;
   void timeoutAdd( EventShare & share ) noexcept;
   void timeoutDel( EventShare & share ) noexcept;
   void remove( EventShare & share ) noexcept;
   static void leave( EventShare & share ) noexcept;

   StageStatus const & stage_;
   EventShare * shares_ = nullptr;
   std::uint32_t count_ = 0; // of shares
   std::uint32_t odd_ = 0;   // of timeouts for which the order of the events matters
   Heap< EventShare, &EventShare::placeInLongest, &EventSummary::isLonger > longest_;
   Heap< EventShare, &EventShare::placeInCritical, &EventSummary::standsBefore > critical_;
   Kiv::HashMap< std::uint32_t, Kiv::String8 > holders_;
   std::uint32_t loose_ = 0;
};

} // namespace detail
} // namespace Stage
