// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace testing_support {

// A folder that goes with everything in it.
class Folder {
 public:
   Folder() : path_( testing::TempDir() + "ordovan-XXXXXX" ) {
      if( !mkdtemp( path_.data() ) )
         ADD_FAILURE() << "no folder: " << path_;
   }
   ~Folder() { std::filesystem::remove_all( path_ ); }
   Folder( Folder const & ) = delete;
   Folder & operator=( Folder const & ) = delete;

   std::string operator/( std::string const & name ) const { return path_ + "/" + name; }
   std::vector< std::string > files() const {
      std::vector< std::string > names;
      for( auto const & entry : std::filesystem::directory_iterator( path_ ) )
         names.push_back( entry.path().filename() );
      return names;
   }

 private:
   std::string path_;
};

} // namespace testing_support
