# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# Runs while `cmake --install` does. Installs the public headers, which are those that stand in one
# of ORDOVAN_HEADER_FOLDERS itself, and of the headers in their detail/ those that a public one
# includes, by whatever way. Which these are is looked up in the headers now, so that no list can be
# out of date. ORDOVAN_INCLUDE_DESTINATION is where the folders go.

cmake_minimum_required( VERSION 3.25 )

# A header is included by its path from the folder that holds its library's folder.
set( roots "" )
set( headers "" )
foreach( folder IN LISTS ORDOVAN_HEADER_FOLDERS )
   get_filename_component( root "${folder}" DIRECTORY )
   list( APPEND roots "${root}" )
   file( GLOB public "${folder}/*.h" )
   list( APPEND headers ${public} )
endforeach()
list( REMOVE_DUPLICATES roots )

set( found "" )
while( headers )
   list( POP_FRONT headers header )
   if( header IN_LIST found )
      continue()
   endif()
   list( APPEND found "${header}" )
   file( STRINGS "${header}" lines REGEX "^[ \t]*#[ \t]*include" )
   get_filename_component( beside "${header}" DIRECTORY )
   foreach( line IN LISTS lines )
      if( line MATCHES "[<\"]([^>\"]+)[>\"]" )
         set( included "${CMAKE_MATCH_1}" )
         foreach( root IN LISTS beside roots )
            if( EXISTS "${root}/${included}" )
               list( APPEND headers "${root}/${included}" )
               break()
            endif()
         endforeach()
      endif()
   endforeach()
endwhile()

if( NOT found )
   message( FATAL_ERROR "No header to install in ${ORDOVAN_HEADER_FOLDERS}" )
endif()
foreach( header IN LISTS found )
   foreach( folder IN LISTS ORDOVAN_HEADER_FOLDERS )
      string( FIND "${header}" "${folder}/" place )
      if( place EQUAL 0 )
         get_filename_component( root "${folder}" DIRECTORY )
         file( RELATIVE_PATH path "${root}" "${header}" )
         get_filename_component( path "${path}" DIRECTORY )
         file( INSTALL DESTINATION "${ORDOVAN_INCLUDE_DESTINATION}/${path}" TYPE FILE
            FILES "${header}" )
      endif()
   endforeach()
endforeach()
