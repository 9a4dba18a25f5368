// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <sys/wait.h>

#include <gtest/gtest.h>

// Runs the built command as a user would, in a folder of its own.

namespace Process {

struct Finished {
   int status = -1;
   std::string out;
   std::string err;
};

inline std::string contents( std::filesystem::path const & path ) {
   std::ifstream in( path, std::ios::binary );
   return { std::istreambuf_iterator< char >( in ), {} };
}

struct Folder : testing::Test {
   Folder() {
      auto name = testing::TempDir() + "ordovan-XXXXXX";
      folder = mkdtemp( name.data() ) ? name : throw std::runtime_error( "no temporary folder" );
   }
   ~Folder() override { std::filesystem::remove_all( folder ); }

   std::string file( std::string const & name, std::string const & text ) const {
      std::ofstream( folder / name, std::ios::binary ) << text;
      return name;
   }

   // Runs a line of shell in the folder, with the command as $ordovan.
   Finished shell( std::string const & line ) const {
      auto const command = "cd '" + folder.string() + "' && ordovan='" ORDOVAN_COMMAND "' && { " +
                           line + "\n} >out 2>err </dev/null";
      int const status = std::system( command.c_str() );
      return { WIFEXITED( status ) ? WEXITSTATUS( status ) : -1, contents( folder / "out" ),
               contents( folder / "err" ) };
   }
   Finished ordovan( std::string const & arguments ) const {
      return shell( "\"$ordovan\" " + arguments );
   }

   std::filesystem::path folder;
};

} // namespace Process
