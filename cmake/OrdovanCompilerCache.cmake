# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# Uses ccache when it is there. Paths are made relative to the project, in the cache's key and in
# the objects alike, so that another clone on the same machine profits from what this one built.

if( PROJECT_IS_TOP_LEVEL AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER )
   find_program( ORDOVAN_CCACHE ccache )
   if( ORDOVAN_CCACHE )
      # The two kinds of sloppiness are what ccache asks for before it caches precompiled headers.
      set( CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
         "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" "CCACHE_SLOPPINESS=pch_defines,time_macros"
         "${ORDOVAN_CCACHE}" )
   endif()
   add_compile_options( "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=." )
endif()
