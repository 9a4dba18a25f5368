# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0

add_compile_options( -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wcast-qual -Wformat=2
   -Wold-style-cast -Woverloaded-virtual -Wnon-virtual-dtor -Wundef -Wvla )
if( CMAKE_CXX_COMPILER_ID STREQUAL "GNU" )
   add_compile_options( -Wsuggest-override -Wlogical-op -Wduplicated-cond -Wextra-semi )
   if( CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13 )
      # Its optimiser reports the first for any literal that is assigned to a std::string, the
      # second for any std::variant that is moved. Clang and the sanitizers look for both as well.
      add_compile_options( -Wno-restrict -Wno-maybe-uninitialized )
   endif()
elseif( CMAKE_CXX_COMPILER_ID MATCHES "Clang" )
   add_compile_options( -Wsuggest-override -Wextra-semi )
endif()
if( ORDOVAN_WERROR )
   add_compile_options( -Werror )
endif()
