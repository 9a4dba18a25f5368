# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# ordovan_library( NAME INCLUDE_ROOT DIR [LIBRARIES LIB...] [FOLDERS DIR...] [COMPONENT NAME] )
#
# The shared library lib<NAME>.so.0 from every source of the current folder, of FOLDERS, and of the
# detail/ of each.
# INCLUDE_ROOT is the folder against which its headers are included. Sources are found by pattern:
# a new file needs no edit of a list. The headers of these folders themselves are public; one in
# detail/ is installed if one of those includes it. COMPONENT: the library belongs to that component
# of the installed CMake package, because it needs what the others do without.

function( ordovan_library name )
   cmake_parse_arguments( PARSE_ARGV 1 arg "" "INCLUDE_ROOT;COMPONENT" "LIBRARIES;FOLDERS" )
   set( patterns "" )
   foreach( folder IN LISTS CMAKE_CURRENT_SOURCE_DIR arg_FOLDERS )
      foreach( pattern *.cpp detail/*.cpp *.h detail/*.h )
         list( APPEND patterns "${folder}/${pattern}" )
      endforeach()
   endforeach()
   file( GLOB sources CONFIGURE_DEPENDS ${patterns} )
   add_library( ${name} SHARED ${sources} )
   add_library( Ordovan::${name} ALIAS ${name} )
   target_compile_features( ${name} PUBLIC cxx_std_20 )
   target_include_directories( ${name} PUBLIC
      "$<BUILD_INTERFACE:${arg_INCLUDE_ROOT}>"
      "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>" )
   target_link_libraries( ${name} PUBLIC ${arg_LIBRARIES} )
   # What a library registers lives as long as the process, so the library has to stay too.
   target_link_options( ${name} PRIVATE -Wl,-z,nodelete )
   if( NOT ORDOVAN_SANITIZE )
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
