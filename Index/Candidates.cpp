// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Index/Candidates.h>

#include <Kiv/HashMap.h>

#include <algorithm>
#include <new>
#include <utility>

namespace Stage {

using namespace Kiv;

// A stage that is not active.
struct Candidates::Waiting final : StageIndex {
   Waiting( Candidates & candidates, StageStatus & watched )
      : home( candidates ), stage( watched ), name( watched.name() ),
        critical( watched.critical() ) {
      stage.indexIs( *this );
      home.criticals_ += critical;
   }
   ~Waiting() override {
      stage.indexDel( *this );
      home.criticals_ -= critical;
      home.leaveList( *this );
   }
   void dependencyWent( String8 const & dependency ) noexcept override {
      if( waitsFor == dependency )
         home.isCandidate( *this );
   }
   void criticalChanged() noexcept override {
      if( critical == stage.critical() )
         return;
      critical = !critical;
      critical ? ++home.criticals_ : --home.criticals_;
      if( in == &home.gate_ )
         home.isCandidate( *this );
   }

   Candidates & home;
   StageStatus & stage;
   Text const name;
   bool critical;
   List * in = nullptr;
   Waiting * next = nullptr;
   Waiting * previous = nullptr;
   Text waitsFor; // empty unless it waits for a stage
};

Candidates::Candidates( Status & status, CompletionOf completionOf )
   : completionOf_( std::move( completionOf ) ), status_( &status ) {
   for( auto i = status.stageIterator(); i; ++i )
      if( !status.activeStage( i.key() ) )
         add( *i.ptr() );
   for( auto i = status.activeStageIterator(); i; ++i )
      changed( i.key() );
   status.indexIs( *this );
}
Candidates::~Candidates() {
   if( status_ )
      spoil();
}

// ---- lists

void Candidates::leaveList( Waiting & waiting ) noexcept {
   if( !waiting.in )
      return;
   ( waiting.previous ? waiting.previous->next : waiting.in->first ) = waiting.next;
   if( waiting.next )
      waiting.next->previous = waiting.previous;
   if( !waiting.in->first && !waiting.waitsFor.empty() )
      waitFor_.erase( waiting.waitsFor );
   waiting.in = nullptr;
   waiting.waitsFor = Text();
}
void Candidates::move( Waiting & waiting, List & to ) noexcept {
   if( waiting.in == &to )
      return;
   leaveList( waiting );
   waiting.in = &to;
   waiting.previous = nullptr;
   waiting.next = to.first;
   if( to.first )
      to.first->previous = &waiting;
   to.first = &waiting;
}
void Candidates::waitFor( Waiting & waiting, Text const & dependency ) {
   move( waiting, waitFor_[ dependency ] );
   waiting.waitsFor = dependency;
}
void Candidates::wake( Text const & name ) noexcept {
   auto const found = waitFor_.find( name );
   if( found == waitFor_.end() )
      return;
   // The last one takes the list with it.
   for( Waiting * next = found->second.first; Waiting * const waiting = next; ) {
      next = waiting->next;
      isCandidate( *waiting );
   }
}

// ---- the second pass

void Candidates::passBegins() {
   gateShut_ = criticalStageWaits();
   while( !gateShut_ && gate_.first )
      isCandidate( *gate_.first );
   pass_.clear();
   place_ = 0;
   while( arrived_.first )
      move( *arrived_.first, seen_ );
   for( Waiting * waiting = seen_.first; waiting; waiting = waiting->next )
      pass_.push_back( waiting );
   auto const before = []( Waiting const * a, Waiting const * b ) {
      return standsBefore( a->name, b->name );
   };
   // As they are in the first pass, where they are many.
   if( !std::is_sorted( pass_.begin(), pass_.end(), before ) )
      std::sort( pass_.begin(), pass_.end(), before );
}

// Where a stage of that name has its turn in what is to come of the pass.
std::vector< Candidates::Waiting * >::iterator Candidates::turnOf( Text const & name ) {
   return std::partition_point(
      pass_.begin() + static_cast< std::ptrdiff_t >( place_ ), pass_.end(),
      [ & ]( Waiting const * other ) { return standsBefore( other->name, name ); } );
}

// A stage that becomes a candidate during the pass takes part in it if its turn is still to come.
void Candidates::takeArrived() {
   while( Waiting * const waiting = arrived_.first ) {
      if( place_ == 0 || standsBefore( last_, waiting->name ) )
         pass_.insert( turnOf( waiting->name ), waiting );
      move( *waiting, seen_ );
   }
}

Ptr< StageStatus > Candidates::next() {
   takeArrived();
   while( place_ < pass_.size() ) {
      Waiting & waiting = *pass_[ place_++ ];
      last_ = waiting.name;
      Text dependency;
      if( gateShut_ && !waiting.critical )
         move( waiting, gate_ );
      else if( findUnsatisfied( waiting.stage, dependency ) )
         waitFor( waiting, dependency );
      else
         return &waiting.stage;
   }
   return nullptr;
}

bool Candidates::isSatisfied( Text const & stage ) const {
   Completion const * const completion = completionOf_( stage );
   return completion && completion->satisfied_;
}

bool Candidates::findUnsatisfied( StageStatus const & stage, Text & found ) {
   std::uint32_t met = 0;
   for( auto i = stage.dependencyIteratorConst(); i; ++i ) {
      if( isSatisfied( i.key() ) )
         continue;
      chance_ = chance_ * 1664525U + 1013904223U; // of Numerical Recipes: high bits are good enough
      if( ( chance_ >> 8 ) % ++met == 0 )
         found = i.key();
   }
   return met != 0;
}

// ---- what is kept right

void Candidates::changed( Text const & stage ) noexcept {
   Completion * const completion = status_ ? completionOf_( stage ) : nullptr;
   if( !completion )
      return;
   leaves( *completion );
   if( !completion->complete || !status_->activeStage( Name( stage ) ) )
      return;
   completion->satisfied_ = true;
   ++satisfied_;
   wake( stage );
}
void Candidates::leaves( Completion & completion ) noexcept {
   satisfied_ -= completion.satisfied_;
   completion.satisfied_ = false;
}

void Candidates::add( StageStatus & stage ) {
   auto waiting = std::make_unique< Waiting >( *this, stage );
   Waiting & added = *waiting;
   waiting_[ added.name ] = std::move( waiting );
   isCandidate( added );
}
void Candidates::drop( StageStatus & stage ) noexcept {
   auto const found = waiting_.find( stage.name() );
   if( found == waiting_.end() )
      return;
   Waiting const * const gone = found->second.get();
   // Most have just had their turn.
   if( place_ == 0 || standsBefore( last_, gone->name ) )
      if( auto const turn = turnOf( gone->name ); turn != pass_.end() && *turn == gone )
         pass_.erase( turn );
   waiting_.erase( found );
}

void Candidates::stageCame( StageStatus & stage ) noexcept {
   try {
      add( stage );
   } catch( std::bad_alloc const & ) {
      spoil();
   }
}
void Candidates::stageWent( StageStatus & stage ) noexcept { drop( stage ); }
void Candidates::activeChanged( StageStatus & stage ) noexcept {
   if( status_->activeStage( stage.name() ) )
      drop( stage );
   else if( !waiting_.contains( stage.name() ) )
      stageCame( stage );
   changed( stage.name() );
}
void Candidates::statusGoes() noexcept {
   for( auto i = status_->activeStageIterator(); i; ++i )
      if( Completion * const completion = completionOf_( i.key() ) )
         leaves( *completion );
   status_ = nullptr;
   pass_.clear();
   waiting_.clear();
}
void Candidates::spoil() noexcept {
   status_->indexDel( *this );
   statusGoes();
}

} // namespace Stage
