# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# cmake -DTREE=FOLDER -P ProveCheckIncludes.cmake
#
# Proves CheckIncludes.cmake on small trees made in FOLDER: a good one passes, and each kind of
# mistake, alone in an otherwise good tree, is reported with its file and line.

cmake_minimum_required( VERSION 3.25 )

function( makeGoodTree )
   file( REMOVE_RECURSE "${TREE}" )
   file( WRITE "${TREE}/framework/Flitlog/Ring.cpp" "#include <Flitlog/Ring.h>\n#include <sys/mman.h>\n" )
   file( WRITE "${TREE}/framework/Kiv/Ptr.h" "#include <Kiv/detail/Count.h>\n#include <Flitlog/Ring.h>\n" )
   file( WRITE "${TREE}/framework/Kiv/detail/Count.h" "#include <cstddef>\n" )
   file( WRITE "${TREE}/Stage/Config.cpp" "#include \"Config.h\"\n#include <Kiv/Ptr.h>\n" )
   file( WRITE "${TREE}/Ordovan/Ordovan.cpp" "#include <Stage/Config.h>\n// [one] \"two\"; \\\n" )
   file( WRITE "${TREE}/Explain/Explain.cpp" "#include <Ordovan/StatusSm.h>\n" )
   file( WRITE "${TREE}/simulation/Engine.cpp" "#include <Ordovan/Ordovan.h>\n#include <Explain/Explain.h>\n" )
   file( WRITE "${TREE}/live/Protocol.cpp" "#include <nlohmann/json.hpp>\n#include <simulation/Engine.h>\n" )
   file( WRITE "${TREE}/tools/main.cpp" "#include <CLI/CLI.hpp>\n#include <simulation/Engine.h>\n" )
endfunction()

function( check result output )
   execute_process( COMMAND "${CMAKE_COMMAND}" "-DTREE=${TREE}"
      -P "${CMAKE_CURRENT_LIST_DIR}/CheckIncludes.cmake"
      RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE text )
   set( ${result} "${status}" PARENT_SCOPE )
   set( ${output} "${text}" PARENT_SCOPE )
endfunction()

# The file, whose third line becomes the include, and what the report says after the line's place.
function( expectReport file include report )
   makeGoodTree()
   file( WRITE "${TREE}/${file}" "// First line [ with ; brackets.\n#define NOTHING \\\n${include}\n" )
   check( status output )
   if( status EQUAL 0 )
      message( SEND_ERROR "${include} in ${file} was accepted" )
   endif()
   string( FIND "${output}" "${file}:3: ${report}" place )
   if( place EQUAL -1 )
      message( SEND_ERROR "${include} in ${file}: expected \"${report}\", got:\n${output}" )
   endif()
endfunction()

makeGoodTree()
check( status output )
if( NOT status EQUAL 0 )
   message( SEND_ERROR "The good tree was refused:\n${output}" )
endif()

expectReport( framework/Flitlog/Bad.h "#include <Kiv/Ptr.h>" "Kiv/Ptr.h is above Flitlog" )
expectReport( framework/Kiv/detail/Bad.h "#include <Stage/Config.h>" "Stage/Config.h is above Kiv" )
expectReport( Stage/Bad.cpp "#include \"Ordovan/Ordovan.h\"" "Ordovan/Ordovan.h is above Stage" )
expectReport( Ordovan/Bad.cpp "  #  include <simulation/Plan.h>" "simulation/Plan.h is above Ordovan" )
expectReport( Ordovan/Bad.h "#include <Explain/Explain.h>" "Explain/Explain.h is above Ordovan" )
expectReport( Explain/Bad.h "#include <simulation/Plan.h>" "simulation/Plan.h is above Explain" )
expectReport( simulation/Bad.h "#include <tools/Plan.h>" "tools/Plan.h is above simulation" )
expectReport( simulation/Bad.h "#include <live/Protocol.h>" "live/Protocol.h is above simulation" )
expectReport( live/Bad.h "#include <tools/Plan.h>" "tools/Plan.h is above live" )
expectReport( tools/Bad.cpp "#include <simulation/detail/Due.h>" "simulation/detail/Due.h is private to simulation" )
expectReport( Stage/Bad.h "#include <Kiv/detail/Count.h>" "Kiv/detail/Count.h is private to Kiv" )
expectReport( tools/Bad.cpp "#include <tests/Helper.h>" "tests/Helper.h is no part of any layer" )
expectReport( Stage/Bad.cpp "#include \"../Ordovan/Ordovan.h\"" "../Ordovan/Ordovan.h is a path with dots" )
expectReport( Stage/Bad.cpp "#include <Kiv/../../Ordovan/Ordovan.h>" "Kiv/../../Ordovan/Ordovan.h is a path with dots" )
expectReport( framework/Kiv/Bad.cpp "#include <fmt/core.h>" "fmt/core.h is neither the standard library's" )
expectReport( simulation/Bad.cpp "#include <yaml-cpp/yaml.h>" "yaml-cpp/yaml.h is neither the standard library's" )
expectReport( simulation/Bad.cpp "#include <nlohmann/json.hpp>" "nlohmann/json.hpp is neither the standard library's" )
expectReport( live/Bad.cpp "#include <fmt/core.h>" "fmt/core.h is neither the standard library's" )
expectReport( Stage/Bad.cpp "#include \"detail/Absent.h\"" "detail/Absent.h is neither the standard library's" )

file( REMOVE_RECURSE "${TREE}" )
file( MAKE_DIRECTORY "${TREE}" )
check( status output )
if( status EQUAL 0 )
   message( SEND_ERROR "A tree without any source was accepted" )
endif()
