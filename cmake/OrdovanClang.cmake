# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# The toolchain of the presets "clang" and "fuzz": the first of the versions that the project is
# checked with which this system has. Debian 12 brings 16, Debian 13 brings 19. scripts/packages
# installs by the same list. -DCMAKE_CXX_COMPILER=... takes another one.

if( NOT CMAKE_CXX_COMPILER )
   find_program( ORDOVAN_CLANG NAMES clang++-16 clang++-19 clang++ DOC "The second compiler" REQUIRED )
   set( CMAKE_CXX_COMPILER "${ORDOVAN_CLANG}" )
endif()
