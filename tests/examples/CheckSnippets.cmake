# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# cmake -DDOCUMENT=FILE -DSOURCES=FILE,FILE... -P CheckSnippets.cmake
#
# Fails unless each block that DOCUMENT shows stands in one of SOURCES as it is, whole lines, and
# unless something of each of SOURCES is shown.

cmake_minimum_required( VERSION 3.25 )
file( READ "${DOCUMENT}" rest )
string( REPLACE "," ";" SOURCES "${SOURCES}" )
set( unused "${SOURCES}" )

# Sets `before` to what stands before the next `mark`, cuts that and the mark off `rest`; empty at
# the end.
macro( cut mark )
   string( FIND "${rest}" "${mark}" place )
   if( place EQUAL -1 )
      set( before "" )
      set( rest "" )
   else()
      string( SUBSTRING "${rest}" 0 ${place} before )
      string( LENGTH "${mark}" length )
      math( EXPR place "${place} + ${length}" )
      string( SUBSTRING "${rest}" ${place} -1 rest )
   endif()
endmacro()

while( TRUE )
   cut( "\n```" )
   if( rest STREQUAL "" )
      break()
   endif()
   cut( "\n" ) # the name of the language
   cut( "\n```" )
   set( snippet "\n${before}\n" )
   set( found FALSE )
   foreach( source IN LISTS SOURCES )
      file( READ "${source}" text )
      string( FIND "\n${text}" "${snippet}" place )
      if( NOT place EQUAL -1 )
         set( found TRUE )
         list( REMOVE_ITEM unused "${source}" )
      endif()
   endforeach()
   if( NOT found )
      message( SEND_ERROR "${DOCUMENT} shows what stands in none of its sources:${snippet}" )
   endif()
endwhile()
if( unused )
   message( SEND_ERROR "${DOCUMENT} shows nothing of ${unused}" )
endif()
