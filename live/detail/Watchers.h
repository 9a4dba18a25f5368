// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Those who wait for answers: by Watch, Wait, and a following Log.
#pragma once

#include <live/Protocol.h>
#include <live/detail/View.h>

#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Live::detail {

// Each is told as fast as it reads: an answer is made when there is room for it, of how things
// stand then. So a slow one misses states in between, never the last, and holds nobody up.
class Watchers {
 public:
   Watchers( View const & view, std::string startup )
      : view_( view ), startup_( std::move( startup ) ) {}

   void watch( Kiv::Ptr< Varlink::Call > const & call, Protocol::Watch const & asked );
   // `now` and what else is time here: on the hub's scale, not that of the state machines.
   void wait( Kiv::Ptr< Varlink::Call > const & call, Protocol::Wait const & asked, double now );
   void log( Kiv::Ptr< Varlink::Call > const & call, Protocol::Log const & asked );

   // Something to be seen of a stage has changed that is no change of the start-up: who is
   // connected, a note.
   void stageTouched( std::string const & stage );
   // An instant is over, or something was touched.
   void tell( double now );
   // When the first of those who wait has waited long enough; +infinity: nobody.
   double nextTime() const;

 private:
   struct Watcher {
      Kiv::Ptr< Varlink::Call > call;
      bool all = false;
      std::int64_t sequence = 0; // up to which it has been told, or is being told
      bool complete = false;     // start-up was, as it was told last
      std::set< std::string > touched;
      std::vector< std::string > stage; // to be told now
      std::size_t next = 0;             // of these
      bool telling = false;             // an answer at least is still to be sent
      bool snapshot = false;
   };
   struct Waiter {
      Kiv::Ptr< Varlink::Call > call;
      Protocol::Wait asked;
      double until;
   };
   struct Follower {
      Kiv::Ptr< Varlink::Call > call;
      std::int64_t after;
   };

   void go( Watcher & watcher );
   void begin( Watcher & watcher ) const;
   bool tellPart( Watcher & watcher ) const;
   void go( Follower & follower ) const;
   bool isSo( Protocol::Wait const & asked ) const;

   View const & view_;
   std::string const startup_;
   std::list< std::shared_ptr< Watcher > > watcher_;
   std::list< Waiter > waiter_;
   std::list< std::shared_ptr< Follower > > follower_;
};

} // namespace Live::detail
