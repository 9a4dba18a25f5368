// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <Kiv/Exception.h>

#include <cstdio>
#include <cstdlib>

namespace Kiv {

namespace {
thread_local Expect const * innermost = nullptr;
} // namespace

Exception::Exception( String8 text, IdBitArray ids, bool expected )
   : text_( std::move( text ) ), ids_( ids ), expected_( expected ) {}
Exception::~Exception() = default;

RangeException::RangeException( String8 text, bool expected )
   : Exception( std::move( text ), IdBitArray( range ), expected ) {}
RangeException::~RangeException() = default;

NameInUseException::NameInUseException( String8 text, bool expected )
   : Exception( std::move( text ), IdBitArray( nameInUse ), expected ) {}
NameInUseException::~NameInUseException() = default;

void throwRangeException( char const * text ) { throwRangeException( String8( text ) ); }

void throwRangeException( String8 const & text ) {
   throw RangeException( text, Expect::isExpected( IdBitArray( Exception::range ) ) );
}

void throwNameInUseException( String8 const & text ) {
   throw NameInUseException( text, Expect::isExpected( IdBitArray( Exception::nameInUse ) ) );
}

void invariantBroken( char const * invariant ) {
   std::fprintf( stderr, "invariant broken: %s\n", invariant );
   std::abort();
}

Expect::Expect( IdBitArray ids ) : ids_( ids ), outer_( innermost ) { innermost = this; }
Expect::~Expect() { innermost = outer_; }

bool Expect::isExpected( IdBitArray ids ) {
   for( Expect const * region = innermost; region; region = region->outer_ )
      if( region->ids_.meets( ids ) )
         return true;
   return false;
}

} // namespace Kiv
