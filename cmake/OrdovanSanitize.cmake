# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# Sanitizers hold for every object of the build, the test framework's included. The first finding
# ends the process, so that a test fails.

if( ORDOVAN_SANITIZE )
   add_compile_options( -fsanitize=${ORDOVAN_SANITIZE} -fno-sanitize-recover=all
      -fno-omit-frame-pointer )
   add_link_options( -fsanitize=${ORDOVAN_SANITIZE} )
endif()
