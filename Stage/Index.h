// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// What indexes beside a Status are told, inside the setters.
//
// A reactor hears of a change when the loop delivers it; by then anyone may have written again. An
// index that has to be right whenever it is asked is told here: after the change was made, before
// the setter returns, and on its thread. It notes what it is told and does no more: it writes to no
// entity, lets go of nothing that could be the last reference to something, and does not throw. One
// that cannot note it, for want of memory, has to know that it is incomplete.
#pragma once

#include <Kiv/Text.h>
#include <Stage/Export.h>

namespace Stage {

class StageStatus;

// Indexes in a chain, without memory of its own.
template< class Index >
class IndexList {
 public:
   explicit operator bool() const { return first_ != nullptr; }
   void add( Index & index ) noexcept {
      index.next_ = first_;
      first_ = &index;
   }
   // Does nothing for one that is not in the list.
   void remove( Index & index ) noexcept {
      for( Index ** at = &first_; *at; at = &( *at )->next_ )
         if( *at == &index ) {
            *at = index.next_;
            return;
         }
   }
   // `tell` may remove the index that it is called with.
   template< class Tell >
   void each( Tell tell ) const noexcept {
      for( Index * next = first_; Index * const index = next; ) {
         next = index->next_;
         tell( *index );
      }
   }

 private:
   Index * first_ = nullptr;
};

// Of one stage, with StageStatus::indexIs().
class STAGE_EXPORT StageIndex {
 public:
   StageIndex() = default;
   StageIndex( StageIndex const & ) = delete;
   StageIndex & operator=( StageIndex const & ) = delete;

   virtual void dependencyCame( [[maybe_unused]] Kiv::String8 const & stage ) noexcept {}
   virtual void dependencyWent( [[maybe_unused]] Kiv::String8 const & stage ) noexcept {}
   virtual void criticalChanged() noexcept {}

 protected:
   virtual ~StageIndex() = default;

 private:
   friend class IndexList< StageIndex >;
   StageIndex * next_ = nullptr;
};

// Of a status, with Status::indexIs().
class STAGE_EXPORT StatusIndex {
 public:
   StatusIndex() = default;
   StatusIndex( StatusIndex const & ) = delete;
   StatusIndex & operator=( StatusIndex const & ) = delete;

   // A member of `stage` came or went; before it goes it leaves the active stages.
   virtual void stageCame( StageStatus & stage ) noexcept = 0;
   virtual void stageWent( StageStatus & stage ) noexcept = 0;
   // A stage, still a member, has become active or has ceased to be.
   virtual void activeChanged( StageStatus & stage ) noexcept = 0;
   // The status is being destroyed; all its stages are still there. This is removed already.
   virtual void statusGoes() noexcept = 0;

 protected:
   virtual ~StatusIndex() = default;

 private:
   friend class IndexList< StatusIndex >;
   StatusIndex * next_ = nullptr;
};

} // namespace Stage
