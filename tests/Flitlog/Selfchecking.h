// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Support.h"

#include <atomic>
#include <new>

// A process that writes records as fast as it can, each of which says what it must look like.

namespace Rings {

// What record `number` carries: a text whose length and letters follow from the number.
std::string selfcheckingText( std::uint64_t number );

// Checks records in the order in which they are read.
class Checker {
 public:
   // Empty, or what is wrong with the record.
   std::string wrong( Flitlog::Record const & record );
   // Records that were skipped between those that were read.
   std::uint64_t gaps() const { return gaps_; }
   std::uint64_t first() const { return first_; }
   std::uint64_t last() const { return last_; }

 private:
   std::uint64_t first_ = 0;
   std::uint64_t last_ = 0;
   std::uint64_t gaps_ = 0;
};

// The process. It is there, and its file, when the constructor returns.
class Writer {
 public:
   // It goes on until it is killed.
   Writer( std::string const & path, std::uint64_t ringBytes );
   ~Writer();
   Writer( Writer const & ) = delete;
   Writer & operator=( Writer const & ) = delete;

   void kill();
   // The newest record of which the writer knew that it had been published.
   std::uint64_t published() const { return published_->load(); }

 private:
   std::atomic< std::uint64_t > * published_; // shared with the process
   pid_t process_;
};

double steady(); // seconds
double secondsOf( char const * variable, double otherwise );
unsigned long countOf( char const * variable, unsigned long otherwise );

} // namespace Rings
