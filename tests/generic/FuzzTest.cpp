// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// Random requests by name to all objects of a running start-up: whatever is asked of it, a process
// goes on, every refusal is an exception of the framework, and nothing changes through a const
// instance.
//
// ORDOVAN_TEST_CALLS says how many requests, ORDOVAN_TEST_SEED with which random numbers.
#include "StartUp.h"

#include <cstdlib>
#include <deque>
#include <map>
#include <random>
#include <set>

#include <fcntl.h>
#include <unistd.h>

using Kiv::Attribute;
using Kiv::GenericIf;
using Kiv::String8;
using Kiv::Value;
using namespace testing_support;

namespace {

unsigned long fromEnvironment( char const * name, unsigned long otherwise ) {
   char const * const text = std::getenv( name );
   return text && *text ? std::strtoul( text, nullptr, 10 ) : otherwise;
}

// What the state machines print goes nowhere while this lives.
class Silence {
 public:
   Silence() : kept_( dup( 1 ) ) {
      std::fflush( stdout );
      int const nowhere = open( "/dev/null", O_WRONLY );
      dup2( nowhere, 1 );
      close( nowhere );
      before_ = Kiv::logSinkIs( []( Kiv::LogMessage const & ) {} );
   }
   ~Silence() {
      std::fflush( stdout );
      dup2( kept_, 1 );
      close( kept_ );
      Kiv::logSinkIs( before_ );
   }

 private:
   int kept_;
   Kiv::LogSink before_;
};

class Fuzzer {
 public:
   explicit Fuzzer( unsigned long seed ) : random_( static_cast< unsigned >( seed ) ) {
      world_.pass( static_cast< double >( below( 20 ) ) );
      pool_ = { Value( world_.manager ),
                Value( world_.config ),
                Value( world_.dir ),
                Value( world_.progress ),
                Value( world_.log ),
                Value( world_.net ),
                Value( world_.gui ),
                Value( world_.agent( "routing" ) ),
                Value( Kiv::Ptr< Kiv::PtrInterface >( world_.clock ) ) };
      roots_ = pool_;
   }
   ~Fuzzer() {
      // Circles of references that were written, and that nobody else would undo.
      world_.dir->entityPtrDelAll();
      world_.config->agentDirIs( nullptr );
      pool_.clear();
      pump();
   }
   Fuzzer( Fuzzer const & ) = delete;
   Fuzzer & operator=( Fuzzer const & ) = delete;

   void request() {
      Value object = some( pool_ );
      bool const isConst = oneIn( 4 );
      if( isConst )
         object = object.readOnly();
      std::string const before = isConst && oneIn( 50 ) ? everything() : std::string();
      try {
         ask( GenericIf( object ) );
         ++answered;
      } catch( Kiv::Exception const & e ) {
         ++refused[ kindOf( e ) ]; // any other exception ends the test
         EXPECT_STRNE( e.what(), "" );
      }
      if( !before.empty() ) {
         ++compared;
         ASSERT_EQ( everything(), before ) << "changed through a const instance";
      }
      if( oneIn( 10 ) )
         step();
   }

   // Everything that can be read from the manager on, with what the reactors have pending.
   std::string everything() const {
      std::string text = Kiv::activityManager()->idle() ? "idle\n" : "busy\n";
      std::set< Kiv::PtrInterface const * > met;
      std::deque< Value > toVisit( roots_.begin(), roots_.end() );
      while( !toVisit.empty() ) {
         Value const object = toVisit.front();
         toVisit.pop_front();
         if( !met.insert( object.object().get() ).second )
            continue;
         GenericIf const access( object.readOnly() );
         for( auto const & line : textOf( access ) )
            text += line + "\n";
         for( auto const & value : valuesOf( access ) )
            toVisit.push_back( value );
      }
      return text;
   }

   unsigned long answered = 0;
   unsigned long compared = 0;
   unsigned long constObjects = 0;
   std::map< std::string, unsigned long > refused;

 private:
   std::size_t below( std::size_t limit ) {
      return std::uniform_int_distribution< std::size_t >( 0, limit - 1 )( random_ );
   }
   bool oneIn( std::size_t n ) { return below( n ) == 0; }
   template< class C >
   typename C::value_type const & some( C const & all ) {
      return all[ below( all.size() ) ];
   }
   template< class T, std::size_t n >
   T const & some( T const ( &all )[ n ] ) {
      return all[ below( n ) ];
   }

   static std::string kindOf( Kiv::Exception const & e ) {
      for( unsigned id = 0; id != 10; ++id )
         if( e.ids().has( id ) )
            return std::to_string( id );
      return "general";
   }
   static std::vector< Value > valuesOf( GenericIf const & access ) {
      std::vector< Value > objects;
      auto const add = [ & ]( Value const & value ) {
         if( value.is( Kind::object ) )
            objects.push_back( value );
      };
      for( Kiv::KivType const * type = &access.type(); type; type = type->base() )
         for( Attribute const & row : type->attributes() ) {
            if( !row.access.read && !row.access.member )
               continue;
            Value const value = access.read( row.name );
            add( value );
            if( value.is( Kind::list ) )
               for( auto const & entry : value.list() )
                  add( entry.value );
         }
      return objects;
   }

   String8 text() {
      static char const * const texts[] = {
         "",           "true",     "false",  "1",       "0",           "-5",
         "nan",        "inf",      "1e400",  "0.5",     "Net",         "Boot",
         "Gui",        "platform", "screen", "routing", "Net:routing", "Boot:platform",
         "Gui:screen", "agents",   "config", "status",  "a\nb",        "4294967296",
         "x",          "Net:",     "null",   "Disk" };
      if( oneIn( 20 ) )
         return std::string( below( 300 ), static_cast< char >( below( 256 ) ) );
      return some( texts );
   }
   Value value( int depth = 0 ) {
      static double const reals[] = { 0.0,   -0.0,   1.0,           1005.0,         -1.0,
                                      1e300, 5e-324, Kiv::infinity, -Kiv::infinity, 1010.5 };
      switch( below( depth < 3 ? 9 : 6 ) ) {
      case 0:
         return {};
      case 1:
         return oneIn( 2 );
      case 2:
         return some( reals );
      case 3:
         return Kiv::valueFromString< double >( "nan" );
      case 4:
         return static_cast< unsigned int >( below( 1000 ) );
      case 5:
         return text();
      case 6:
         return list( nullptr, depth + 1 );
      default:
         return oneIn( 4 ) ? some( pool_ ).readOnly() : some( pool_ );
      }
   }
   // Mostly what a call that takes `argument` accepts.
   GenericIf::List_ list( char const * argument, int depth = 0 ) {
      GenericIf::List_ made;
      if( argument && !oneIn( 5 ) )
         made.add( argument, oneIn( 10 ) ? value( depth ) : Value( text() ) );
      while( oneIn( argument || depth == 0 ? 20 : 3 ) )
         made.add( text(), value( depth ) );
      return made;
   }
   GenericIf::List_ machineArguments() {
      GenericIf::List_ made{ { "config", world_.config }, { "status", world_.status } };
      if( oneIn( 2 ) )
         return made.add( "agentDir", oneIn( 5 ) ? value() : Value( world_.dir ) );
      return made.add( "application", text() )
         .add( "progress", oneIn( 9 ) ? value() : Value( world_.progress ) )
         .add( "log", world_.log );
   }

   String8 attributeName( GenericIf const & access ) {
      std::vector< std::string > names;
      // Any type's, now and then: most of them are wrong here.
      Kiv::KivType const & any = Kiv::typeNode( below( Kiv::typeNodes() ) );
      for( Kiv::KivType const * type = oneIn( 20 ) ? &any : &access.type(); type;
           type = type->base() )
         for( Attribute const & row : type->attributes() )
            names.emplace_back( row.name );
      if( names.empty() || oneIn( 40 ) )
         return text();
      std::string name = some( names );
      if( oneIn( 30 ) )
         name[ below( name.size() ) ] = static_cast< char >( below( 256 ) );
      return name;
   }

   GenericIf::Index index( GenericIf const & access, Attribute const * row ) {
      if( row && row->access.walk && !oneIn( 4 ) ) {
         auto i = access.attributeIteratorConst( row->id );
         for( std::size_t n = below( 4 ); n != 0 && i; --n )
            ++i;
         if( i )
            return { i.key() };
      }
      return { text() };
   }

   void ask( GenericIf const & access ) {
      String8 const name = attributeName( access );
      Attribute const * const row = access.type().attribute( name );
      static Op const ops[] = { Op::read, Op::read, Op::write, Op::write,
                                Op::call, Op::call, Op::del,   Op::delAll };
      Op op = some( ops );
      if( row && row->access.call && !oneIn( 8 ) )
         op = Op::call;
      if( ( op == Op::del || op == Op::delAll ) && oneIn( 2 ) )
         op = Op::write; // else little would be left
      Value argument = op == Op::call
                          ? ( oneIn( 20 ) ? value() : list( row ? row->access.argument : nullptr ) )
                       : op == Op::write || oneIn( 20 ) ? value()
                                                        : Value();
      if( op == Op::write && ( name == "configSm" || name == "statusSm" ) && !oneIn( 3 ) )
         argument = machineArguments();
      bool const members = row && row->access.member;
      bool const indexed = oneIn( 15 ) ? !members : members && op != Op::delAll && !oneIn( 5 );
      if( row && oneIn( 30 ) )
         walk( access, *row );
      Value const result = indexed ? access.attributeOp( name, op, index( access, row ), argument )
                           : oneIn( 2 ) || !row ? access.attributeOp( name, op, argument )
                                                : access.attributeOp( row->id, op, argument );
      expectConst( access, result );
      keep( result );
   }
   // What is read through a const instance is const, all of it.
   void expectConst( GenericIf const & access, Value const & value ) {
      if( !access.isConst() )
         return;
      if( value.is( Kind::list ) )
         for( auto const & entry : value.list() )
            expectConst( access, entry.value );
      if( value.is( Kind::object ) ) {
         ++constObjects;
         EXPECT_TRUE( value.isConst() ) << access.type().name() << " gave " << value.toString();
      }
   }

   void walk( GenericIf const & access, Attribute const & row ) {
      auto i =
         oneIn( 2 ) ? access.attributeIterator( row.id ) : access.attributeIteratorConst( row.id );
      for( std::size_t n = 0; i && n != 5; ++n, ++i ) {
         Value const member = i.value();
         expectConst( access, member );
         keep( member );
         if( oneIn( 10 ) )
            GenericIf( access ).attributeOp( row.id, Op::del, GenericIf::Index{ i.key() } );
      }
   }

   // Objects stay longer than their owners.
   void keep( Value const & value ) {
      if( value.is( Kind::list ) && !value.list().empty() )
         keep( value.list()[ below( value.list().size() ) ].value );
      if( !value.is( Kind::object ) || value.isConst() )
         return;
      if( pool_.size() < 60 )
         pool_.push_back( value );
      else
         pool_[ roots_.size() + below( pool_.size() - roots_.size() ) ] = value;
   }

   void pump() {
      for( int n = 0; Kiv::activityManager()->runOne() || Kiv::activityManager()->fireOne(); ++n )
         if( n == 100000 )
            FAIL() << "the loop does not come to rest";
   }
   void step() {
      switch( below( 6 ) ) {
      case 0:
         pump();
         break;
      case 1:
         world_.clock->nowIs( world_.clock->now() + static_cast< double >( below( 20 ) ) );
         break;
      case 2:
         Kiv::activityManager()->fireOne();
         break;
      default:
         Kiv::activityManager()->runOne();
      }
   }

   std::mt19937 random_;
   StartUp world_;
   std::vector< Value > pool_;
   std::vector< Value > roots_;
};

} // namespace

TEST( GenericFuzz, NothingThatIsAskedByNameBreaksAnything ) {
   unsigned long const calls = fromEnvironment( "ORDOVAN_TEST_CALLS", 200000 );
   unsigned long const seed = fromEnvironment( "ORDOVAN_TEST_SEED", 1 );
   unsigned long answered = 0;
   unsigned long compared = 0;
   unsigned long constObjects = 0;
   std::map< std::string, unsigned long > refused;
   {
      Silence const silence;
      for( unsigned long n = 0; n < calls; ) {
         SCOPED_TRACE( "start-up after " + std::to_string( n ) + " calls" );
         Fuzzer fuzzer( seed * 1000003 + n );
         for( int i = 0; i != 500 && n < calls; ++i, ++n ) {
            fuzzer.request();
            if( testing::Test::HasFailure() )
               return;
         }
         answered += fuzzer.answered;
         compared += fuzzer.compared;
         constObjects += fuzzer.constObjects;
         for( auto const & [ kind, count ] : fuzzer.refused )
            refused[ kind ] += count;
      }
   }
   // The requests were of every sort.
   EXPECT_GT( answered, calls / 8 );
   EXPECT_GT( compared, calls / 1000 );
   EXPECT_GT( constObjects, calls / 1000 );
   for( unsigned id : { Kiv::Exception::range, Kiv::Exception::constInstance, Kiv::Exception::type,
                        Kiv::Exception::unknownArgument, Kiv::Exception::operationNotSupported,
                        Kiv::Exception::badIndex, Kiv::Exception::unknownAttribute } )
      EXPECT_GT( refused[ std::to_string( id ) ], calls / 1000 ) << "exceptions of kind " << id;
   RecordProperty( "answered", std::to_string( answered ) );
}
