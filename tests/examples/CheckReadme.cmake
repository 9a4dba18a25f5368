# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# cmake -DREADME=FILE -DEXAMPLE=FILE -DLANGUAGE=NAME -P CheckReadme.cmake
#
# Fails unless README shows the whole of EXAMPLE, but for a line about the licence at its start, as a
# block of LANGUAGE.

file( READ "${README}" readme )
file( READ "${EXAMPLE}" example )
string( REGEX REPLACE "^// Copyright[^\n]*\n" "" example "${example}" )
string( FIND "${readme}" "```${LANGUAGE}\n${example}```\n" place )
if( place EQUAL -1 )
   message( FATAL_ERROR "${README} does not show ${EXAMPLE} as it is" )
endif()
