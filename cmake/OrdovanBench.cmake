# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# ordovan_bench( NAME SOURCES FILE... [LIBRARIES LIB...] [CI_ARGUMENTS ARGUMENT...] [PLAIN] )
#
# A benchmark program in the folder bench/ of the build. It links Google Benchmark, which is there
# for the native word size only; a PLAIN one does without and is built for every word size.
# CI_ARGUMENTS keep it to its small sizes; the target bench_ci runs all programs with them.

if( CMAKE_SIZEOF_VOID_P EQUAL 8 )
   find_package( benchmark REQUIRED )
endif()
add_custom_target( bench_ci )

function( ordovan_bench name )
   cmake_parse_arguments( PARSE_ARGV 1 arg "PLAIN" "" "SOURCES;LIBRARIES;CI_ARGUMENTS" )
   if( arg_UNPARSED_ARGUMENTS OR NOT arg_SOURCES )
      message( FATAL_ERROR "ordovan_bench( ${name} ): SOURCES missing, or unknown arguments: "
         "${arg_UNPARSED_ARGUMENTS}" )
   endif()
   if( NOT arg_PLAIN AND NOT TARGET benchmark::benchmark )
      return()
   endif()
   add_executable( ${name} ${arg_SOURCES} )
   target_link_libraries( ${name} PRIVATE ${arg_LIBRARIES} )
   if( NOT arg_PLAIN )
      target_link_libraries( ${name} PRIVATE benchmark::benchmark benchmark::benchmark_main )
   endif()
   set_target_properties( ${name} PROPERTIES
      RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bench" )

   # One after the other: two that run at once would measure each other.
   get_property( before TARGET bench_ci PROPERTY ORDOVAN_LAST )
   add_custom_target( bench_ci_${name} COMMAND ${name} ${arg_CI_ARGUMENTS}
      USES_TERMINAL VERBATIM )
   if( before )
      add_dependencies( bench_ci_${name} ${before} )
   endif()
   add_dependencies( bench_ci bench_ci_${name} )
   set_property( TARGET bench_ci PROPERTY ORDOVAN_LAST bench_ci_${name} )
endfunction()
