# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# cmake -DCOMMAND=FILE -DPLAN=NAME.yaml -DWRITTEN=FILE -P CompareRecord.cmake
#
# Simulates PLAN and fails unless the record is what NAME.record.jsonl beside the plan holds, and
# the exit status is 0 for an outcome of complete and 1 for any other.

string( REGEX REPLACE "\\.yaml$" ".record.jsonl" expected "${PLAN}" )
file( REMOVE "${WRITTEN}" )
execute_process( COMMAND "${COMMAND}" simulate "${PLAN}" --quiet --record "${WRITTEN}"
   RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET )
execute_process( COMMAND "${CMAKE_COMMAND}" -E compare_files "${WRITTEN}" "${expected}"
   RESULT_VARIABLE differ )
if( differ )
   message( FATAL_ERROR "${WRITTEN} is not ${expected}" )
endif()
file( STRINGS "${expected}" end REGEX "\"outcome\": \"complete\"" )
if( end )
   set( due 0 )
else()
   set( due 1 )
endif()
if( NOT status EQUAL due )
   message( FATAL_ERROR "exit status ${status}, and ${due} is due" )
endif()
