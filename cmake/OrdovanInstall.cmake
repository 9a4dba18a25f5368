# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0

include( CMakePackageConfigHelpers )

get_property( libraries GLOBAL PROPERTY ORDOVAN_LIBRARIES )
install( TARGETS ${libraries} EXPORT OrdovanTargets
   LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" )

# The component "live" has an export of its own, so that who does without needs none of its packages.
get_property( liveLibraries GLOBAL PROPERTY ORDOVAN_LIBRARIESlive )
if( liveLibraries )
   install( TARGETS ${liveLibraries} EXPORT OrdovanLiveTargets
      LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" )
   install( FILES live/io.ordovan.Stages.varlink
      DESTINATION "${CMAKE_INSTALL_DATADIR}/varlink" )
endif()

# The prefix is not known before `cmake --install` runs, so it stands there as it is written here.
get_property( headerFolders GLOBAL PROPERTY ORDOVAN_HEADER_FOLDERS )
set( includeDestination "${CMAKE_INSTALL_INCLUDEDIR}" )
if( NOT IS_ABSOLUTE "${includeDestination}" )
   string( PREPEND includeDestination "\${CMAKE_INSTALL_PREFIX}/" )
endif()
install( CODE "set( ORDOVAN_HEADER_FOLDERS \"${headerFolders}\" )
   set( ORDOVAN_INCLUDE_DESTINATION \"${includeDestination}\" )" )
install( SCRIPT cmake/OrdovanInstallHeaders.cmake )

set( commands "" )
if( TARGET ordovan_command )
   set( commands ordovan_command flitlog_command )
   install( TARGETS ${commands} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" )
   # bash looks here for a file of the command's name.
   install( FILES packaging/ordovan.bash RENAME ordovan
      DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" )
endif()

# All that the rules here copy, and nothing else: `cmake --install` builds nothing.
add_custom_target( ordovan_installable DEPENDS ${libraries} ${liveLibraries} ${commands} )

# The CMake package.
set( folder "${CMAKE_INSTALL_LIBDIR}/cmake/Ordovan" )
install( EXPORT OrdovanTargets NAMESPACE Ordovan:: DESTINATION "${folder}" )
if( liveLibraries )
   install( EXPORT OrdovanLiveTargets NAMESPACE Ordovan:: DESTINATION "${folder}" )
endif()
configure_package_config_file( packaging/OrdovanConfig.cmake.in
   "${CMAKE_CURRENT_BINARY_DIR}/OrdovanConfig.cmake" INSTALL_DESTINATION "${folder}" )
# Before version 1 a new minor version may change the interface.
write_basic_package_version_file( "${CMAKE_CURRENT_BINARY_DIR}/OrdovanConfigVersion.cmake"
   COMPATIBILITY SameMinorVersion )
install( FILES "${CMAKE_CURRENT_BINARY_DIR}/OrdovanConfig.cmake"
   "${CMAKE_CURRENT_BINARY_DIR}/OrdovanConfigVersion.cmake" DESTINATION "${folder}" )

# The pkg-config files find the prefix from where they stand: cmake --install may be given another
# prefix than the build was.
file( RELATIVE_PATH ORDOVAN_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix" )
function( install_pc name description requires )
   set( ORDOVAN_PC_NAME "${name}" )
   set( ORDOVAN_PC_DESCRIPTION "${description}" )
   set( ORDOVAN_PC_REQUIRES "${requires}" )
   configure_file( packaging/library.pc.in "${CMAKE_CURRENT_BINARY_DIR}/${name}.pc" @ONLY )
   install( FILES "${CMAKE_CURRENT_BINARY_DIR}/${name}.pc"
      DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" )
endfunction()
set( exactly "= ${PROJECT_VERSION}" )
install_pc( flitlog "Binary traces in ring buffers" "" )
install_pc( kiv "Reactive entity framework" "flitlog ${exactly}" )
install_pc( stage "Entities of the start-up stage manager" "kiv ${exactly}" )
install_pc( ordovan "${PROJECT_DESCRIPTION}" "stage ${exactly}" )
if( liveLibraries )
   install_pc( ordovan-live "Start-up stages for agents in processes of their own"
      "ordovan ${exactly}, nlohmann_json" )
endif()

install( FILES LICENSE README.md CHANGELOG.md DESTINATION "${CMAKE_INSTALL_DOCDIR}" )
install( DIRECTORY examples DESTINATION "${CMAKE_INSTALL_DOCDIR}" )
install( DIRECTORY docs/ DESTINATION "${CMAKE_INSTALL_DOCDIR}" FILES_MATCHING PATTERN "*.md" PATTERN "*.svg"
   PATTERN man EXCLUDE )
foreach( section 1 5 )
   install( DIRECTORY docs/man/ DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}"
      FILES_MATCHING PATTERN "*.${section}" )
endforeach()
