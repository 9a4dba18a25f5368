# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# cmake -DPROGRAM=FILE -DEXPECTED=FILE -P CompareOutput.cmake
#
# Fails unless PROGRAM ends well and prints on standard output what the file EXPECTED holds.

execute_process( COMMAND "${PROGRAM}" RESULT_VARIABLE status OUTPUT_VARIABLE output )
file( READ "${EXPECTED}" expected )
if( NOT status EQUAL 0 )
   message( FATAL_ERROR "${PROGRAM} ended with ${status}" )
endif()
if( NOT output STREQUAL expected )
   message( FATAL_ERROR "expected:\n${expected}\ngot:\n${output}" )
endif()
