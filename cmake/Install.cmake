# Headers, libraries, the package config for find_package(Reticor) and the pkg-config files.
include(CMakePackageConfigHelpers)

# All below one folder of our own: names like Infra and component are not ours alone.
install(DIRECTORY include/ foundation/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/reticor
  FILES_MATCHING PATTERN "*.h")
install(TARGETS orvex_infra reticor EXPORT ReticorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Commands for gdb, which looks for them below its data folder by the whole path of the library: the one of the
# installation, not that of the configuration.
if(RETICOR_SHARED)
  install(CODE "
    get_filename_component(folder \"${CMAKE_INSTALL_LIBDIR}\" ABSOLUTE BASE_DIR \"\${CMAKE_INSTALL_PREFIX}\")
    file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/gdb/auto-load\${folder}\" TYPE FILE
      RENAME \"libReticor.so.${PROJECT_VERSION}-gdb.py\" FILES \"${PROJECT_SOURCE_DIR}/tools/gdb/reticor-gdb.py\")"
    COMPONENT gdb)
endif()

install(DIRECTORY tools/bpftrace/ DESTINATION ${CMAKE_INSTALL_DATADIR}/reticor/bpftrace FILES_MATCHING PATTERN "*.bt")

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Reticor)
install(EXPORT ReticorTargets NAMESPACE Orvex:: DESTINATION ${package_dir})
configure_package_config_file(cmake/ReticorConfig.cmake.in ${PROJECT_BINARY_DIR}/ReticorConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ReticorConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ReticorConfig.cmake ${PROJECT_BINARY_DIR}/ReticorConfigVersion.cmake
  DESTINATION ${package_dir})

# The prefix is taken from where the file lies, so an installed tree can be moved.
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_to_prefix ${CMAKE_INSTALL_PREFIX}/${pkgconfig_dir} ${CMAKE_INSTALL_PREFIX})
foreach(package orvex-infra reticor)
  configure_file(cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc DESTINATION ${pkgconfig_dir})
endforeach()
