# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# ordovan_test( NAME SOURCES FILE... [LIBRARIES LIB...] [SEEDED] [WHOLE] [OPTIMIZED] [TIMEOUT SECONDS]
#               [ENVIRONMENT VAR=VALUE...] )
#
# One executable of GoogleTest tests. Each TEST becomes a test of ctest named NAME.Suite.Test.
#
# SEEDED     link the four libraries and the simulation as the one static library ordovan_seeded,
#            whose hash seed a test can change, in place of those named in LIBRARIES
# WHOLE      the executable is one test of ctest; for groups of very many very small tests, where
#            starting the process would cost more than the tests
# OPTIMIZED  the tests' own code is compiled as the libraries are; else it is not optimised, which
#            compiles in half the time, and with sanitizers in a third
# TIMEOUT    of one test, 60 seconds if not said otherwise; it is ten times that with sanitizers

include( GoogleTest )

# What every test's compilation starts with. It is compiled once and used by all of them, with g++
# only: clang builds without it and so finds a test that forgot to include what it uses.
file( WRITE "${CMAKE_BINARY_DIR}/tests/precompiled.cpp" "" )
add_library( ordovan_test_precompiled OBJECT EXCLUDE_FROM_ALL
   "${CMAKE_BINARY_DIR}/tests/precompiled.cpp" )
target_link_libraries( ordovan_test_precompiled PRIVATE GTest::gtest_main )
set_target_properties( ordovan_test_precompiled PROPERTIES POSITION_INDEPENDENT_CODE OFF )
target_precompile_headers( ordovan_test_precompiled PRIVATE <gtest/gtest.h> )
target_compile_options( ordovan_test_precompiled PRIVATE -O0 )

# Iteration order depends on the hash seed, and no result may depend on iteration order. The fixed
# seed of the shared libraries cannot show that, so this second build of everything can change it.
file( GLOB seededSources CONFIGURE_DEPENDS
   "${PROJECT_SOURCE_DIR}/framework/Flitlog/*.cpp"
   "${PROJECT_SOURCE_DIR}/framework/Flitlog/detail/*.cpp"
   "${PROJECT_SOURCE_DIR}/framework/Kiv/*.cpp"
   "${PROJECT_SOURCE_DIR}/framework/Kiv/detail/*.cpp"
   "${PROJECT_SOURCE_DIR}/Stage/*.cpp"
   "${PROJECT_SOURCE_DIR}/Stage/detail/*.cpp"
   "${PROJECT_SOURCE_DIR}/Ordovan/*.cpp"
   "${PROJECT_SOURCE_DIR}/Ordovan/detail/*.cpp"
   "${PROJECT_SOURCE_DIR}/Index/*.cpp"
   "${PROJECT_SOURCE_DIR}/Explain/*.cpp"
   "${PROJECT_SOURCE_DIR}/Explain/detail/*.cpp"
   "${PROJECT_SOURCE_DIR}/simulation/*.cpp"
   "${PROJECT_SOURCE_DIR}/simulation/detail/*.cpp" )
add_library( ordovan_seeded STATIC EXCLUDE_FROM_ALL ${seededSources} )
target_compile_features( ordovan_seeded PUBLIC cxx_std_20 )
target_compile_definitions( ordovan_seeded PUBLIC KIV_TEST_HASH_SEED )
target_include_directories( ordovan_seeded PUBLIC
   "${PROJECT_SOURCE_DIR}/framework" "${PROJECT_SOURCE_DIR}" )

function( ordovan_test name )
   cmake_parse_arguments( PARSE_ARGV 1 arg "SEEDED;WHOLE;OPTIMIZED" "TIMEOUT"
      "SOURCES;LIBRARIES;ENVIRONMENT" )
   if( arg_UNPARSED_ARGUMENTS OR NOT arg_SOURCES )
      message( FATAL_ERROR "ordovan_test( ${name} ): SOURCES missing, or unknown arguments: "
         "${arg_UNPARSED_ARGUMENTS}" )
   endif()
   if( NOT arg_TIMEOUT )
      set( arg_TIMEOUT 60 )
   endif()
   if( ORDOVAN_SANITIZE )
      math( EXPR arg_TIMEOUT "10 * ${arg_TIMEOUT}" )
   endif()
   if( arg_SEEDED )
      list( REMOVE_ITEM arg_LIBRARIES flitlog kiv stage ordovan simulation )
      list( PREPEND arg_LIBRARIES ordovan_seeded )
   endif()

   add_executable( ${name} ${arg_SOURCES} )
   target_link_libraries( ${name} PRIVATE ${arg_LIBRARIES} GTest::gtest_main )
   set_target_properties( ${name} PROPERTIES
      RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/tests"
      POSITION_INDEPENDENT_CODE OFF )
   if( NOT arg_OPTIMIZED )
      target_compile_options( ${name} PRIVATE -O0 )
   endif()
   if( CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT arg_OPTIMIZED )
      target_precompile_headers( ${name} REUSE_FROM ordovan_test_precompiled )
   endif()

   get_filename_component( area "${CMAKE_CURRENT_SOURCE_DIR}" NAME )
   set( environment "UBSAN_OPTIONS=print_stacktrace=1" ${arg_ENVIRONMENT} )
   if( arg_WHOLE )
      add_test( NAME ${name} COMMAND ${name} )
      set_tests_properties( ${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS ${area}
         ENVIRONMENT "${environment}" )
   else()
      gtest_discover_tests( ${name} TEST_PREFIX "${name}." DISCOVERY_MODE PRE_TEST
         DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS ${area} )
      # The environment is a list, and lists do not survive the way through PROPERTIES.
      set( file "${CMAKE_CURRENT_BINARY_DIR}/${name}-environment.cmake" )
      file( WRITE "${file}" "if( ${name}_TESTS )\n"
         "   set_tests_properties( \${${name}_TESTS} PROPERTIES ENVIRONMENT \"${environment}\" )\n"
         "endif()\n" )
      set_property( DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${file}" )
   endif()
endfunction()
