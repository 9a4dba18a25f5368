// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <live/detail/Watchers.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Live::detail {

namespace {

constexpr double never = std::numeric_limits< double >::infinity();
// An answer is full when its stages and events count so many: some hundred bytes each.
constexpr std::size_t weightOfAnswer = 500;
constexpr std::size_t entriesOfAnswer = 500;

// Sends by `send`; what is too long for one message is said to be.
template< class Send >
void orTooMuch( Kiv::Ptr< Varlink::Call > const & call, Send const & send ) {
   try {
      send();
   } catch( std::length_error const & ) {
      auto const error = Protocol::Error::tooMuch( "bytes of one answer" );
      call->fail( error.name, error.parameters );
   }
}

} // namespace

void Watchers::watch( Kiv::Ptr< Varlink::Call > const & call, Protocol::Watch const & asked ) {
   auto const watcher = std::make_shared< Watcher >();
   watcher->call = call;
   watcher->all = asked.all;
   auto const sequence = static_cast< std::int64_t >( view_.engine().sequence() );
   watcher->snapshot =
      !asked.after || *asked.after > sequence || ( asked.startup && *asked.startup != startup_ );
   if( watcher->snapshot )
      watcher->stage = view_.stages( !asked.all );
   else
      watcher->sequence = *asked.after;
   if( !watcher->snapshot )
      begin( *watcher );
   watcher->sequence = sequence;
   watcher->telling = true;
   // The watcher is gone with its call.
   call->onRoomIs( [ this, weak = std::weak_ptr( watcher ) ] {
      if( auto const one = weak.lock() )
         go( *one );
   } );
   watcher_.push_back( watcher );
   go( *watcher );
}

// What is to be told next: what has changed since it was told last.
void Watchers::begin( Watcher & watcher ) const {
   watcher.stage = view_.engine().changedSince( static_cast< std::uint64_t >( watcher.sequence ) );
   auto const changed = watcher.stage.size();
   for( auto const & stage : std::exchange( watcher.touched, {} ) )
      if( !std::binary_search( watcher.stage.begin(),
                               watcher.stage.begin() + static_cast< std::ptrdiff_t >( changed ),
                               stage ) )
         watcher.stage.push_back( stage );
   if( !watcher.all )
      std::erase_if( watcher.stage,
                     [ & ]( auto const & stage ) { return !view_.active( stage ); } );
   std::sort( watcher.stage.begin(), watcher.stage.end() );
   watcher.next = 0;
   watcher.sequence = static_cast< std::int64_t >( view_.engine().sequence() );
   watcher.telling = !watcher.stage.empty() || watcher.complete != view_.engine().complete();
}

void Watchers::go( Watcher & watcher ) {
   orTooMuch( watcher.call, [ & ] {
      while( !watcher.call->over() ) {
         auto const sequence = static_cast< std::int64_t >( view_.engine().sequence() );
         if( !watcher.telling && ( watcher.sequence != sequence || !watcher.touched.empty() ) )
            begin( watcher );
         if( !watcher.telling || !tellPart( watcher ) )
            return;
      }
   } );
}

// False when there is no room.
bool Watchers::tellPart( Watcher & watcher ) const {
   if( !watcher.call->room() )
      return false;
   Protocol::WatchReply part{ startup_,
                              watcher.sequence,
                              view_.engine().now(),
                              watcher.snapshot,
                              false,
                              view_.engine().complete(),
                              {} };
   std::size_t weight = 0;
   std::size_t next = watcher.next;
   for( ; next != watcher.stage.size() && weight < weightOfAnswer; ++next ) {
      auto const & name = watcher.stage[ next ];
      if( !view_.known( name ) )
         continue;
      part.stage.push_back( view_.stage( name, watcher.all ) );
      weight += 1 + part.stage.back().event.size() + part.stage.back().dependency.size();
   }
   part.partial = next != watcher.stage.size();
   if( !watcher.call->replyMore( encoded( part ) ) )
      return false;
   watcher.next = next;
   watcher.snapshot = false;
   watcher.complete = part.complete;
   watcher.telling = part.partial;
   if( !watcher.telling )
      watcher.stage = {};
   return true;
}

bool Watchers::isSo( Protocol::Wait const & asked ) const {
   bool const active = asked.state == Protocol::State::active;
   if( !asked.stage )
      return active ? view_.engine().started() : view_.engine().complete();
   return active ? view_.active( *asked.stage ) : view_.complete( *asked.stage );
}

void Watchers::wait( Kiv::Ptr< Varlink::Call > const & call, Protocol::Wait const & asked,
                     double now ) {
   waiter_.push_back( { call, asked, asked.timeout ? now + *asked.timeout : never } );
   tell( now );
}

void Watchers::log( Kiv::Ptr< Varlink::Call > const & call, Protocol::Log const & asked ) {
   if( !asked.follow ) {
      orTooMuch( call, [ & ] {
         call->reply( encoded( Protocol::LogReply{
            view_.log( asked.after.value_or( 0 ), std::numeric_limits< std::size_t >::max() ) } ) );
      } );
      return;
   }
   auto const follower =
      std::make_shared< Follower >( Follower{ call, asked.after.value_or( 0 ) } );
   call->onRoomIs( [ this, weak = std::weak_ptr( follower ) ] {
      if( auto const one = weak.lock() )
         go( *one );
   } );
   follower_.push_back( follower );
   go( *follower );
}

void Watchers::go( Follower & follower ) const {
   orTooMuch( follower.call, [ & ] {
      while( true ) {
         auto const entries = view_.log( follower.after, entriesOfAnswer );
         if( entries.empty() ||
             !follower.call->replyMore( encoded( Protocol::LogReply{ entries } ) ) )
            return;
         follower.after = entries.back().sequence;
      }
   } );
}

void Watchers::stageTouched( std::string const & stage ) {
   for( auto const & watcher : watcher_ )
      if( watcher->all )
         watcher->touched.insert( stage );
}

void Watchers::tell( double now ) {
   std::erase_if( watcher_, []( auto const & one ) { return one->call->over(); } );
   std::erase_if( follower_, []( auto const & one ) { return one->call->over(); } );
   for( auto const & watcher : watcher_ )
      go( *watcher );
   for( auto const & follower : follower_ )
      go( *follower );
   std::erase_if( waiter_, [ & ]( Waiter const & waiter ) {
      if( waiter.call->over() )
         return true;
      if( isSo( waiter.asked ) ) {
         bool const late = waiter.asked.stage && view_.timedOut( *waiter.asked.stage );
         waiter.call->reply( encoded( Protocol::WaitReply{ view_.engine().now(), late } ) );
         return true;
      }
      if( waiter.until > now )
         return false;
      waiter.call->fail( Protocol::Error::timedOut().name );
      return true;
   } );
}

double Watchers::nextTime() const {
   double next = never;
   for( auto const & waiter : waiter_ )
      next = std::min( next, waiter.until );
   return next;
}

} // namespace Live::detail
