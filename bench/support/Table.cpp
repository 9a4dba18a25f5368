// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <support/Table.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <vector>

namespace {

std::uint64_t allocations_ = 0;

} // namespace

void * operator new( std::size_t size ) {
   ++allocations_;
   if( void * memory = std::malloc( size ? size : 1 ) )
      return memory;
   throw std::bad_alloc();
}
void operator delete( void * memory ) noexcept { std::free( memory ); }
void operator delete( void * memory, std::size_t ) noexcept { std::free( memory ); }

namespace Bench {

std::uint64_t allocations() { return allocations_; }

namespace {

struct Line {
   std::string what;
   std::string by; // empty: the subject
   std::string name() const { return by.empty() ? what : what + " / " + by; }
};

std::vector< Line > & lines() {
   static std::vector< Line > all;
   return all;
}

void enter( Line const & line, Body body ) {
   lines().push_back( line );
   benchmark::RegisterBenchmark( line.name().c_str(), std::move( body ) );
}

struct Result {
   double nanoseconds = 0; // per operation
   double allocations = 0;
};

class Table : public benchmark::BenchmarkReporter {
 public:
   bool ReportContext( Context const & ) override { return true; }

   void ReportRuns( std::vector< Run > const & runs ) override {
      for( Run const & run : runs ) {
         if( run.run_type != Run::RT_Iteration )
            continue;
         Result next;
         next.nanoseconds = 1e9 / run.counters.at( "items_per_second" ).value;
         next.allocations = run.counters.at( "allocations" ).value;
         auto const [ place, added ] = result_.try_emplace( run.run_name.function_name, next );
         if( !added && next.nanoseconds < place->second.nanoseconds )
            place->second = next;
      }
   }

   void Finalize() override {
      std::printf( "%-43s %9s %7s | %-31s %9s %7s | %8s\n", "", "ns", "allocs", "control", "ns",
                   "allocs", "times" );
      for( Line const & line : lines() )
         if( !line.by.empty() )
            print( line );
   }

 private:
   void print( Line const & line ) const {
      auto const ours = result_.find( line.what );
      auto const theirs = result_.find( line.name() );
      if( ours == result_.end() || theirs == result_.end() )
         return; // left out by a filter
      Result const & a = ours->second;
      Result const & b = theirs->second;
      std::printf( "%-43s %9.2f %7.2f | %-31s %9.2f %7.2f | %8.2f\n", line.what.c_str(),
                   a.nanoseconds, a.allocations, line.by.c_str(), b.nanoseconds, b.allocations,
                   a.nanoseconds / b.nanoseconds );
   }

   std::map< std::string, Result > result_;
};

} // namespace

void subject( std::string const & what, Body body ) { enter( { what, "" }, std::move( body ) ); }
void control( std::string const & what, std::string const & by, Body body ) {
   enter( { what, by }, std::move( body ) );
}

} // namespace Bench

int main( int count, char ** arguments ) {
   benchmark::Initialize( &count, arguments );
   if( benchmark::ReportUnrecognizedArguments( count, arguments ) )
      return 2;
   Bench::benchmarks();
   Bench::Table table;
   benchmark::RunSpecifiedBenchmarks( &table );
   return 0;
}
