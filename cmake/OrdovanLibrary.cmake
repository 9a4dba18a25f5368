# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# ordovan_library( NAME INCLUDE_ROOT DIR [LIBRARIES LIB...] [FOLDERS DIR...] [COMPONENT NAME]
#                  [COLD FILE...] )
#
# The shared library lib<NAME>.so.0 from every source of the current folder, of FOLDERS, and of the
# detail/ of each.
# INCLUDE_ROOT is the folder against which its headers are included. Sources are found by pattern:
# a new file needs no edit of a list. The headers of these folders themselves are public; one in
# detail/ is installed if one of those includes it. COMPONENT: the library belongs to that component
# of the installed CMake package, because it needs what the others do without.
#
# COLD names the sources that no start-up runs for each of its stages: what describes, explains,
# reads, or happens once. They are optimised for size. The linker takes the first of several copies
# of a template, so they are linked after the others: those run the fast one.

include( CheckLinkerFlag )
# Tables of virtual operations and rows are full of addresses in their own library. This writes them
# as a bit each in place of 24 bytes; it needs glibc 2.36 where the library is loaded, so it is
# taken where that is what the library is built with.
check_linker_flag( CXX -Wl,-z,pack-relative-relocs ORDOVAN_LINKER_PACKS_RELOCATIONS )

# What makes the file smaller and quicker to load: calls within the library go straight to their
# function, in place of one that another library might have put before it; a page serves constants
# and code, so that there are fewer pieces to map and less padding between them. With g++ a function
# stays in one piece, for each has an entry of its own in the tables for exceptions, and functions of
# middling size are called rather than copied into whoever calls them.
function( ordovan_lean name )
   target_compile_options( ${name} PRIVATE -fno-semantic-interposition
      $<$<CXX_COMPILER_ID:GNU>:-fno-reorder-blocks-and-partition>
      $<$<CXX_COMPILER_ID:GNU>:--param=max-inline-insns-auto=8>
      $<$<CXX_COMPILER_ID:GNU>:--param=max-inline-insns-single=35> )
   target_link_options( ${name} PRIVATE -Wl,-Bsymbolic-functions -Wl,-z,noseparate-code )
   if( ORDOVAN_LINKER_PACKS_RELOCATIONS )
      target_link_options( ${name} PRIVATE -Wl,-z,pack-relative-relocs )
   endif()
endfunction()

function( ordovan_library name )
   cmake_parse_arguments( PARSE_ARGV 1 arg "" "INCLUDE_ROOT;COMPONENT" "LIBRARIES;FOLDERS;COLD" )
   set( patterns "" )
   foreach( folder IN LISTS CMAKE_CURRENT_SOURCE_DIR arg_FOLDERS )
      foreach( pattern *.cpp detail/*.cpp *.h detail/*.h )
         list( APPEND patterns "${folder}/${pattern}" )
      endforeach()
   endforeach()
   file( GLOB sources CONFIGURE_DEPENDS ${patterns} )
   set( cold "" )
   foreach( file IN LISTS arg_COLD )
      cmake_path( ABSOLUTE_PATH file NORMALIZE )
      list( APPEND cold "${file}" )
   endforeach()
   list( REMOVE_ITEM sources ${cold} )
   add_library( ${name} SHARED ${sources} ${cold} )
   set_source_files_properties( ${cold} PROPERTIES COMPILE_OPTIONS $<$<CONFIG:Release>:-Os> )
   add_library( Ordovan::${name} ALIAS ${name} )
   target_compile_features( ${name} PUBLIC cxx_std_20 )
   target_include_directories( ${name} PUBLIC
      "$<BUILD_INTERFACE:${arg_INCLUDE_ROOT}>"
      "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>" )
   target_link_libraries( ${name} PUBLIC ${arg_LIBRARIES} )
   # What a library registers lives as long as the process, so the library has to stay too.
   target_link_options( ${name} PRIVATE -Wl,-z,nodelete )
   if( NOT ORDOVAN_SANITIZE )
      ordovan_lean( ${name} )
      target_link_options( ${name} PRIVATE -Wl,-z,defs
         "-Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map" )
      set_property( TARGET ${name} APPEND PROPERTY
         LINK_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/exports.map" )
   endif()
   set_target_properties( ${name} PROPERTIES
      VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
      INSTALL_RPATH "$ORIGIN" )
   set_property( GLOBAL APPEND PROPERTY ORDOVAN_LIBRARIES${arg_COMPONENT} ${name} )
   set_property( GLOBAL APPEND PROPERTY ORDOVAN_HEADER_FOLDERS
      "${CMAKE_CURRENT_SOURCE_DIR}" ${arg_FOLDERS} )
endfunction()
