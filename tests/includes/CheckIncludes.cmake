# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# cmake -DTREE=FOLDER -P CheckIncludes.cmake
#
# Fails, and names file and line, when a source below FOLDER includes against the direction of the
# layers or what is in another layer's detail/, or when one that may use the standard library and the
# operating system only includes anything else.

cmake_minimum_required( VERSION 3.25 )

# From the top down. A layer may include itself and what stands after it.
set( layers tools live simulation Explain Ordovan Index Stage Kiv Flitlog )
set( folderOfKiv framework/Kiv )
set( folderOfFlitlog framework/Flitlog )

# Folders of the project that no layer may include.
set( outside tests bench fuzz examples framework )

# What a layer below the tools may use of others' libraries.
set( othersOflive nlohmann )

# Folders of headers that belong to the operating system. Its headers without a folder, and the
# standard library's, cannot be told from each other and need not be.
set( system sys linux asm arpa net netinet )

set( allowed ${layers} )
set( wrong "" )
set( count 0 )

function( checkInclude file number layer header )
   get_filename_component( folder "${file}" DIRECTORY )
   if( header MATCHES "^(\\.|/)" OR header MATCHES "/\\.\\.?/" )
      set( problem "is a path with dots; write it from an include root" )
   elseif( NOT header MATCHES "^([^/]+)/" )
      return()
   else()
      set( first "${CMAKE_MATCH_1}" )
      if( header MATCHES "^[^/]+/detail/" AND first IN_LIST layers AND NOT first STREQUAL layer )
         set( problem "is private to ${first}" )
      elseif( first IN_LIST allowed )
         return()
      elseif( first STREQUAL "detail" AND EXISTS "${folder}/${header}" )
         return()
      elseif( first IN_LIST layers )
         set( problem "is above ${layer}" )
      elseif( first IN_LIST outside )
         set( problem "is no part of any layer" )
      elseif( layer STREQUAL "tools" OR first IN_LIST system OR first IN_LIST othersOf${layer} )
         return()
      else()
         set( problem
            "is neither the standard library's nor the operating system's, and ${layer} uses no other" )
      endif()
   endif()
   file( RELATIVE_PATH file "${TREE}" "${file}" )
   list( APPEND wrong "${file}:${number}: ${header} ${problem}" )
   set( wrong "${wrong}" PARENT_SCOPE )
endfunction()

foreach( layer IN LISTS layers )
   set( folder ${layer} )
   if( DEFINED folderOf${layer} )
      set( folder ${folderOf${layer}} )
   endif()
   file( GLOB_RECURSE files "${TREE}/${folder}/*.h" "${TREE}/${folder}/*.cpp"
      "${TREE}/${folder}/*.hpp" "${TREE}/${folder}/*.cc" "${TREE}/${folder}/*.inc"
      "${TREE}/${folder}/*.h.in" "${TREE}/${folder}/*.cpp.in" )
   foreach( file IN LISTS files )
      math( EXPR count "${count} + 1" )
      # Characters that mean something in a list of CMake mean nothing in an include line.
      file( READ "${file}" text )
      string( REGEX REPLACE "[][;\\]" "_" text "${text}" )
      string( REPLACE "\n" ";" lines "${text}" )
      set( number 0 )
      foreach( line IN LISTS lines )
         math( EXPR number "${number} + 1" )
         if( line MATCHES "^[ \t]*#[ \t]*include[ \t]*[<\"]([^>\"]+)[>\"]" )
            checkInclude( "${file}" ${number} ${layer} "${CMAKE_MATCH_1}" )
         endif()
      endforeach()
   endforeach()
   list( REMOVE_ITEM allowed ${layer} )
endforeach()

if( count EQUAL 0 )
   message( FATAL_ERROR "${TREE}: no source found, so nothing was checked" )
endif()
if( wrong )
   list( JOIN wrong "\n" wrong )
   message( FATAL_ERROR "Includes against the direction ${layers}:\n${wrong}" )
endif()
message( STATUS "${count} files include in the right direction" )
