// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Tasks that wait to be run, first in, first out.
//
//    first_ -> [ ran  ran  t1  t2 ] -> [ t3  t4  t5  - ] <- last_        spare_ -> [ -  -  -  - ]
//                          begin              end
//
// They stand in blocks, so that a post asks for no memory of its own, a list that is appended to
// another one needs none, and a burst gives back what it took. One block is kept for the next use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace Kiv::detail {

class Tasks {
 public:
   using Task = std::function< void() >;

   Tasks() = default;
   ~Tasks() {
      while( first_ )
         delete std::exchange( first_, first_->next );
      delete spare_;
   }
   Tasks( Tasks const & ) = delete;
   Tasks & operator=( Tasks const & ) = delete;

   bool empty() const { return size_ == 0; }
   std::size_t size() const { return size_; }

   // Throws std::bad_alloc, having changed nothing.
   void push( Task && task ) {
      if( !last_ || last_->end == blockSize ) [[unlikely]]
         addBlock();
      last_->tasks[ last_->end++ ] = std::move( task );
      ++size_;
   }
   // REQUIRES: not empty.
   Task takeFirst() noexcept {
      Task task = std::move( first_->tasks[ first_->begin++ ] );
      --size_;
      if( first_->begin == first_->end )
         dropBlock();
      return task;
   }
   // All of the others' come behind these. What is to spare here goes there, if they have none.
   void append( Tasks & others ) noexcept {
      if( others.first_ ) {
         ( last_ ? last_->next : first_ ) = others.first_;
         last_ = others.last_;
         size_ += others.size_;
         others.first_ = others.last_ = nullptr;
         others.size_ = 0;
      }
      if( !others.spare_ )
         others.spare_ = std::exchange( spare_, nullptr );
   }

 private:
   static constexpr std::uint32_t blockSize = 31; // with the rest a kilobyte, on 64 bits
   struct Block {
      Block * next = nullptr;
      std::uint32_t begin = 0;
      std::uint32_t end = 0;
      Task tasks[ blockSize ]; // those from begin to end wait, the others are empty
   };

   void addBlock() {
      Block * const block = spare_ ? std::exchange( spare_, nullptr ) : new Block;
      ( last_ ? last_->next : first_ ) = block;
      last_ = block;
   }
   void dropBlock() noexcept {
      Block * const block = std::exchange( first_, first_->next );
      if( !first_ )
         last_ = nullptr;
      if( spare_ ) {
         delete block;
         return;
      }
      block->next = nullptr;
      block->begin = block->end = 0;
      spare_ = block;
   }

   Block * first_ = nullptr; // none of these is empty
   Block * last_ = nullptr;
   Block * spare_ = nullptr;
   std::size_t size_ = 0;
};

} // namespace Kiv::detail
