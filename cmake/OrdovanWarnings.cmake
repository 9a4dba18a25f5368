# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0

add_compile_options( -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wcast-qual -Wformat=2
   -Wold-style-cast -Woverloaded-virtual -Wnon-virtual-dtor -Wundef -Wvla )
if( CMAKE_CXX_COMPILER_ID STREQUAL "GNU" )
   add_compile_options( -Wsuggest-override -Wlogical-op -Wduplicated-cond -Wextra-semi )
   if( CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13 )
      # What its optimiser believes of an inlined std::string or std::variant is often wrong: an
      # assigned literal is reported by the first and third of these, a moved variant by the
      # second. Clang and the sanitizers look for the same mistakes.
      add_compile_options( -Wno-restrict -Wno-maybe-uninitialized -Wno-array-bounds
         -Wno-stringop-overflow -Wno-stringop-overread )
   endif()
elseif( CMAKE_CXX_COMPILER_ID MATCHES "Clang" )
   add_compile_options( -Wsuggest-override -Wextra-semi )
endif()
if( ORDOVAN_WERROR )
   add_compile_options( -Werror )
endif()
