// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Flitlog/Reader.h>
#include <Flitlog/Ring.h>
#include <Flitlog/detail/Format.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// A folder for a test's files, and short ways to write and read small rings in it.

namespace Rings {

using Flitlog::MsgDesc;
using Flitlog::put;
using Flitlog::RingBuf;
using Flitlog::TraceFile;
using Flitlog::Varg;

inline std::string contents( std::string const & path ) {
   std::ifstream in( path, std::ios::binary );
   return { std::istreambuf_iterator< char >( in ), {} };
}
inline void contentsIs( std::string const & path, std::string const & bytes ) {
   std::ofstream( path, std::ios::binary ) << bytes;
}

// Time as the tests want it: 1, 2, 3, ...
inline double theTime = 0;
inline double tick() { return ++theTime; }

// The smallest there is.
inline TraceFile::Options const smallest{ 4096, &tick, 1024 };

struct Read {
   std::vector< Flitlog::Record > records;
   std::vector< std::string > problems;

   std::vector< std::string > texts() const {
      std::vector< std::string > all;
      for( Flitlog::Record const & record : records )
         all.push_back( record.text );
      return all;
   }
};

inline Read rest( Flitlog::Reader & reader ) {
   Read all;
   for( Flitlog::Record record; reader.next( record ); )
      all.records.push_back( record );
   all.problems = reader.problems();
   return all;
}
inline Read read( std::string const & path ) { return rest( *Flitlog::Reader::ReaderIs( path ) ); }

struct Folder : testing::Test {
   Folder() {
      auto name = testing::TempDir() + "flitlog-XXXXXX";
      folder = mkdtemp( name.data() ) ? name : throw std::runtime_error( "no temporary folder" );
      path = folder + "/ring";
      theTime = 0;
   }
   ~Folder() override { std::filesystem::remove_all( folder ); }

   std::size_t files() const {
      return static_cast< std::size_t >(
         std::distance( std::filesystem::directory_iterator( folder ), {} ) );
   }

   std::string folder;
   std::string path;
};

// A point whose message is a number and a text.
inline int numberAndText( TraceFile * file ) {
   MsgDesc desc( file, "Source", 42 );
   desc.handleIs( "Handle" );
   desc.levelIs( 8 );
   desc.functionIs( "function" );
   desc << "number " << Varg{ "m" } << " text " << Varg{ "s" };
   return desc.finish();
}
inline void write( TraceFile * file, int id, std::uint64_t number, std::string_view text ) {
   RingBuf & record = RingBuf::startMsg( file, id );
   put( record, number );
   put( record, text );
   record.endMsg();
}

template< class T >
T at( std::string const & bytes, std::size_t offset ) {
   T v;
   std::memcpy( &v, bytes.data() + offset, sizeof v );
   return v;
}
template< class T >
void atIs( std::string & bytes, std::size_t offset, T v ) {
   std::memcpy( bytes.data() + offset, &v, sizeof v );
}

// Makes the header's check sum right again.
inline void resumHeader( std::string & bytes ) {
   auto header = at< Flitlog::detail::Header >( bytes, 0 );
   header.check = Flitlog::detail::headerCheck( header );
   atIs( bytes, 0, header );
}

} // namespace Rings
