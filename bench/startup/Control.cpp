// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The same start-up by hand: the least work that does the same job for agents that never change
// their minds. What the library does beyond it: declarations may change at any time and in any
// order, anybody may watch anything, and everything can be reached by name.
//
// Names become numbers when something is declared, so that no text is looked up afterwards. A
// decision looks at nothing but the stages that have become ready, which are found because each
// stage counts the dependencies that it waits for and knows who depends on it.
#include <startup/Startup.h>

#include <algorithm>
#include <deque>
#include <numeric>

namespace Bench {

namespace {

// Numbers for names, from 0 on, by open addressing.
class Names {
 public:
   std::uint32_t number( std::string_view name ) {
      if( 2 * names_.size() >= slots_.size() )
         grow();
      std::size_t const hash = std::hash< std::string_view >()( name );
      std::size_t slot = hash & ( slots_.size() - 1 );
      for( ; slots_[ slot ] != 0; slot = ( slot + 1 ) & ( slots_.size() - 1 ) ) {
         std::uint32_t const number = slots_[ slot ] - 1;
         if( hashes_[ number ] == hash && names_[ number ] == name )
            return number;
      }
      names_.emplace_back( name );
      hashes_.push_back( hash );
      return ( slots_[ slot ] = static_cast< std::uint32_t >( names_.size() ) ) - 1;
   }
   std::string const & name( std::uint32_t number ) const { return names_[ number ]; }
   std::uint32_t size() const { return static_cast< std::uint32_t >( names_.size() ); }

 private:
   void grow() {
      slots_.assign( std::max< std::size_t >( 16, 2 * slots_.size() ), 0 );
      for( std::uint32_t number = 0; number != hashes_.size(); ++number ) {
         std::size_t slot = hashes_[ number ] & ( slots_.size() - 1 );
         while( slots_[ slot ] != 0 )
            slot = ( slot + 1 ) & ( slots_.size() - 1 );
         slots_[ slot ] = number + 1;
      }
   }

   std::deque< std::string > names_;
   std::vector< std::size_t > hashes_;
   std::vector< std::uint32_t > slots_; // a number and 1, or 0: empty
};

// Lists of numbers, one for each of so many owners, in one array.
class Lists {
 public:
   // First all sizes are counted, then all numbers are put, then lists are read.
   explicit Lists( std::uint32_t owners = 0 ) : begin_( owners + 1 ) {}
   void count( std::uint32_t owner, std::size_t many = 1 ) {
      begin_[ owner ] += static_cast< std::uint32_t >( many );
   }
   void counted() {
      std::uint32_t sum = 0;
      for( std::uint32_t & begin : begin_ )
         begin = sum += begin;
      number_.resize( sum );
   }
   // From the last place of the list to the first, so that the ends become the beginnings.
   void put( std::uint32_t owner, std::uint32_t number ) { number_[ --begin_[ owner ] ] = number; }

   std::uint32_t const * begin( std::uint32_t owner ) const {
      return number_.data() + begin_[ owner ];
   }
   std::uint32_t const * end( std::uint32_t owner ) const { return begin( owner + 1 ); }

 private:
   std::vector< std::uint32_t > begin_;
   std::vector< std::uint32_t > number_;
};

struct Range {
   std::uint32_t const * begin_;
   std::uint32_t const * end_;
   auto begin() const { return begin_; }
   auto end() const { return end_; }
};
Range of( Lists const & lists, std::uint32_t owner ) {
   return { lists.begin( owner ), lists.end( owner ) };
}

// Timers of stages: a heap in which each knows its place.
class Timers {
 public:
   explicit Timers( std::uint32_t stages = 0 ) : place_( stages, none ) {}
   void arm( std::uint32_t stage, double time ) {
      heap_.push_back( { time, stage } );
      up( static_cast< std::uint32_t >( heap_.size() - 1 ) );
   }
   void cancel( std::uint32_t stage ) {
      std::uint32_t const place = place_[ stage ];
      place_[ stage ] = none;
      Timer const last = heap_.back();
      heap_.pop_back();
      if( place == heap_.size() )
         return;
      put( place, last );
      up( place );
      down( place_[ last.stage ] );
   }

 private:
   static constexpr std::uint32_t none = UINT32_MAX;
   struct Timer {
      double time;
      std::uint32_t stage;
   };

   void put( std::uint32_t place, Timer timer ) {
      heap_[ place ] = timer;
      place_[ timer.stage ] = place;
   }
   void up( std::uint32_t place ) {
      Timer const timer = heap_[ place ];
      while( place > 0 && timer.time < heap_[ ( place - 1 ) / 2 ].time ) {
         put( place, heap_[ ( place - 1 ) / 2 ] );
         place = ( place - 1 ) / 2;
      }
      put( place, timer );
   }
   void down( std::uint32_t place ) {
      Timer const timer = heap_[ place ];
      for( std::uint32_t child; ( child = 2 * place + 1 ) < heap_.size(); place = child ) {
         if( child + 1 < heap_.size() && heap_[ child + 1 ].time < heap_[ child ].time )
            ++child;
         if( timer.time <= heap_[ child ].time )
            break;
         put( place, heap_[ child ] );
      }
      put( place, timer );
   }

   std::vector< Timer > heap_;
   std::vector< std::uint32_t > place_;
};

// As the library asks its clock: through a virtual call, for a time that stands still.
class Clock {
 public:
   virtual ~Clock() = default;
   virtual double now() const { return 0; }
};

struct Entry {
   double time;
   std::string text;
};

// A queue whose reader takes entries out and owns them then.
class Log {
 public:
   Log( Clock const & clock, LogIs is ) : clock_( clock ), is_( is ) {}
   void write( std::initializer_list< std::string_view > pieces ) {
      std::size_t length = 0;
      for( std::string_view piece : pieces )
         length += piece.size();
      Entry & entry = entries_.emplace_back();
      entry.time = clock_.now();
      entry.text.reserve( length );
      for( std::string_view piece : pieces )
         entry.text += piece;
   }
   void read() {
      for( ; !entries_.empty(); entries_.pop_front() ) {
         Entry const entry = std::move( entries_.front() );
         if( is_ == LogIs::kept )
            kept_ += entry.text + '\n';
      }
   }
   std::string const & kept() const { return kept_; }

 private:
   Clock const & clock_;
   std::deque< Entry > entries_;
   LogIs const is_;
   std::string kept_;
};

struct Event {
   std::uint32_t stage;
   std::uint32_t agent;
   std::vector< std::uint32_t > dependency;
   double timeout;
   bool critical;
   bool complete;
};

// At its place in the order of the tables.
struct Stage {
   std::string const * name;
   double timeout = 0;
   double completionTime = 0;
   std::uint32_t declared = 0; // its place in the declarations
   std::uint32_t waitsFor = 0; // dependencies that are not complete
   std::uint32_t pending = 0;  // events that are not complete
   bool critical = false;
   bool active = false;
   bool complete = false;
   bool inProgress = false; // as an agent sees it
};

class ControlStartup : public Startup {
 public:
   ControlStartup( Declarations const & declared, TableOrder const & table, Reports reports,
                   LogIs log )
      : declared_( declared ), table_( table ), reports_( reports ), log_( clock_, log ) {
      // Memory of the observer, not of the start-up.
      activated_.reserve( declared.stage.size() );
   }

   void declare() override;
   void aggregate() override;
   void progress() override;
   Result result() const override;
   std::string const & log() const override;

 private:
   void stagesInOrder();
   void linkStages();
   void spreadCritical();
   void decide();
   void begin( std::uint32_t stage );
   bool completed( std::uint32_t event );
   void activatedIs( std::uint32_t stage );

   Declarations const & declared_;
   TableOrder const & table_;
   Reports const reports_;
   Clock clock_;
   Log mutable log_;

   Names agents_;
   Names names_; // of stages
   std::vector< Event > events_;
   std::vector< std::uint32_t > place_; // of a stage by its number
   std::vector< Stage > stages_;
   Lists eventsOf_, dependenciesOf_, dependentsOf_;

   Timers timers_;
   std::vector< std::uint32_t > ready_, readyCritical_, batch_;
   std::uint32_t criticalWaiting_ = 0;
   std::uint32_t inactive_ = 0;
   std::uint32_t incomplete_ = 0; // of the active ones
   bool complete_ = false;

   // The agents' part.
   std::vector< std::uint32_t > reported_; // events, in order; those before next_ were handled
   std::size_t next_ = 0;
   std::vector< std::uint32_t > activated_;
};

void ControlStartup::declare() {
   for( std::string const & name : declared_.agent )
      agents_.number( name );
   for( Declaration const & d : declared_.event ) {
      Event event = { names_.number( declared_.stage[ d.stage ] ),
                      agents_.number( declared_.agent[ d.agent ] ),
                      {},
                      d.timeout,
                      d.critical,
                      false };
      event.dependency.reserve( d.dependency.size() );
      for( std::uint32_t needed : d.dependency )
         event.dependency.push_back( names_.number( declared_.stage[ needed ] ) );
      events_.push_back( std::move( event ) );
   }
}

void ControlStartup::aggregate() {
   stagesInOrder();
   linkStages();
   spreadCritical();
}

void ControlStartup::stagesInOrder() {
   stages_.resize( names_.size() );
   place_.resize( names_.size() );
   eventsOf_ = Lists( names_.size() );
   for( std::uint32_t place = 0; place != stages_.size(); ++place ) {
      std::uint32_t const number = table_.stage[ place ];
      place_[ number ] = place;
      stages_[ place ].declared = number;
      stages_[ place ].name = &names_.name( number );
   }
   for( Event & event : events_ ) {
      event.stage = place_[ event.stage ];
      for( std::uint32_t & needed : event.dependency )
         needed = place_[ needed ];
      Stage & stage = stages_[ event.stage ];
      stage.timeout = std::max( stage.timeout, event.timeout );
      stage.critical = stage.critical || event.critical;
      eventsOf_.count( event.stage );
   }
   eventsOf_.counted();
   for( auto i = table_.event.rbegin(); i != table_.event.rend(); ++i )
      eventsOf_.put( events_[ *i ].stage, *i );
}

// A dependency that several events of a stage have counts once.
void ControlStartup::linkStages() {
   auto const stages = static_cast< std::uint32_t >( stages_.size() );
   dependenciesOf_ = Lists( stages );
   dependentsOf_ = Lists( stages );
   std::vector< std::uint32_t > seenFor( stages, UINT32_MAX );
   auto const each = [ & ]( auto call ) {
      std::fill( seenFor.begin(), seenFor.end(), UINT32_MAX );
      for( std::uint32_t stage = 0; stage != stages; ++stage )
         for( std::uint32_t event : of( eventsOf_, stage ) )
            for( std::uint32_t needed : events_[ event ].dependency )
               if( seenFor[ needed ] != stage ) {
                  seenFor[ needed ] = stage;
                  call( stage, needed );
               }
   };
   each( [ & ]( std::uint32_t stage, std::uint32_t needed ) {
      ++stages_[ stage ].waitsFor;
      dependenciesOf_.count( stage );
      dependentsOf_.count( needed );
   } );
   dependenciesOf_.counted();
   dependentsOf_.counted();
   each( [ & ]( std::uint32_t stage, std::uint32_t needed ) {
      dependenciesOf_.put( stage, needed );
      dependentsOf_.put( needed, stage );
   } );
}

// A stage that a critical one depends on is critical, at any distance.
void ControlStartup::spreadCritical() {
   std::vector< std::uint32_t > todo;
   for( std::uint32_t stage = 0; stage != stages_.size(); ++stage )
      if( stages_[ stage ].critical )
         todo.push_back( stage );
   criticalWaiting_ = static_cast< std::uint32_t >( todo.size() );
   while( !todo.empty() ) {
      std::uint32_t const stage = todo.back();
      todo.pop_back();
      for( std::uint32_t needed : of( dependenciesOf_, stage ) )
         if( !stages_[ needed ].critical ) {
            stages_[ needed ].critical = true;
            ++criticalWaiting_;
            todo.push_back( needed );
         }
   }
}

void ControlStartup::progress() {
   timers_ = Timers( static_cast< std::uint32_t >( stages_.size() ) );
   inactive_ = static_cast< std::uint32_t >( stages_.size() );
   for( std::uint32_t stage = 0; stage != stages_.size(); ++stage )
      if( stages_[ stage ].waitsFor == 0 )
         ( stages_[ stage ].critical ? readyCritical_ : ready_ ).push_back( stage );
   log_.write( { "Stage progression started" } );
   decide();
   while( next_ != reported_.size() ) {
      std::size_t const end = reports_ == Reports::atOnce ? reported_.size() : next_ + 1;
      bool asked = false;
      while( next_ != end )
         asked |= completed( reported_[ next_++ ] );
      if( reports_ == Reports::oneByOne )
         log_.read();
      if( asked )
         decide();
   }
}

// While a critical stage has not been activated, no other is. What was ready before comes in the
// order of the tables, not in the order in which it became ready.
void ControlStartup::decide() {
   std::vector< std::uint32_t > & candidates = criticalWaiting_ != 0 ? readyCritical_ : ready_;
   batch_.clear();
   std::swap( batch_, candidates );
   if( !std::is_sorted( batch_.begin(), batch_.end() ) )
      std::sort( batch_.begin(), batch_.end() );
   for( std::uint32_t stage : batch_ ) {
      log_.write( { "stage ", *stages_[ stage ].name, " started" } );
      stages_[ stage ].active = true;
      --inactive_;
      ++incomplete_;
      criticalWaiting_ -= stages_[ stage ].critical;
   }
   if( batch_.empty() && inactive_ == 0 && incomplete_ == 0 ) {
      complete_ = true;
      log_.write( { "Stage progression is complete" } );
   }
   for( std::uint32_t stage : batch_ )
      begin( stage );
}

void ControlStartup::begin( std::uint32_t number ) {
   Stage & stage = stages_[ number ];
   for( std::uint32_t i : of( eventsOf_, number ) ) {
      Event const & event = events_[ i ];
      log_.write( { "  event ", *stage.name, ":", agents_.name( event.agent ), " started" } );
      stage.pending += !event.complete;
   }
   timers_.arm( number, clock_.now() + stage.timeout );
   stage.inProgress = true;
   activatedIs( number );
}

// The agents' part: events are reported in the order in which they were declared.
void ControlStartup::activatedIs( std::uint32_t stage ) {
   activated_.push_back( stages_[ stage ].declared );
   auto const first = static_cast< std::ptrdiff_t >( reported_.size() );
   for( std::uint32_t event : of( eventsOf_, stage ) )
      reported_.push_back( event );
   std::sort( reported_.begin() + first, reported_.end() );
   log_.read();
}

// Whether its stage is complete now.
bool ControlStartup::completed( std::uint32_t number ) {
   Event & event = events_[ number ];
   Stage & stage = stages_[ event.stage ];
   event.complete = true;
   log_.write( { "  event ", *stage.name, ":", agents_.name( event.agent ), " completed" } );
   if( --stage.pending != 0 )
      return false;
   timers_.cancel( event.stage );
   stage.completionTime = clock_.now();
   stage.complete = true;
   --incomplete_;
   log_.write( { "stage ", *stage.name, " is complete" } );
   for( std::uint32_t dependent : of( dependentsOf_, event.stage ) )
      if( --stages_[ dependent ].waitsFor == 0 )
         ( stages_[ dependent ].critical ? readyCritical_ : ready_ ).push_back( dependent );
   return true;
}

Result ControlStartup::result() const {
   Result result;
   result.complete = complete_;
   result.activated = activated_;
   result.table = table_;
   for( Stage const & stage : stages_ )
      result.criticalStages += stage.critical;
   return result;
}

std::string const & ControlStartup::log() const {
   log_.read();
   return log_.kept();
}

} // namespace

TableOrder inOrder( Declarations const & declared ) {
   TableOrder order;
   order.stage.resize( declared.stage.size() );
   order.event.resize( declared.event.size() );
   std::iota( order.stage.begin(), order.stage.end(), 0 );
   std::iota( order.event.begin(), order.event.end(), 0 );
   return order;
}

std::unique_ptr< Startup > controlStartup( Declarations const & declared, TableOrder const & table,
                                           Reports reports, LogIs log ) {
   return std::make_unique< ControlStartup >( declared, table, reports, log );
}

} // namespace Bench
