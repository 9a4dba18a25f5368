# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# GoogleTest as GTest::gtest_main: the system's library, or built here from its source package for
# the other word size and for sanitizers, which want every object to be built alike.

option( ORDOVAN_BUILD_GOOGLETEST "Build GoogleTest from source instead of using the system's" OFF )
set( ORDOVAN_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "Where GoogleTest's source is" )

if( ORDOVAN_BUILD_GOOGLETEST )
   if( NOT EXISTS "${ORDOVAN_GOOGLETEST_SOURCE}/CMakeLists.txt" )
      message( FATAL_ERROR "No GoogleTest source in ${ORDOVAN_GOOGLETEST_SOURCE}. Debian's package "
         "googletest brings it; ORDOVAN_GOOGLETEST_SOURCE names another folder." )
   endif()
   set( INSTALL_GTEST OFF )
   set( BUILD_GMOCK OFF )
   set( CMAKE_POLICY_DEFAULT_CMP0077 NEW )
   add_subdirectory( "${ORDOVAN_GOOGLETEST_SOURCE}" "${CMAKE_BINARY_DIR}/googletest"
      EXCLUDE_FROM_ALL SYSTEM )
   unset( CMAKE_POLICY_DEFAULT_CMP0077 )
   if( NOT TARGET GTest::gtest_main )
      add_library( GTest::gtest_main ALIAS gtest_main )
   endif()
else()
   find_package( GTest REQUIRED )
endif()
