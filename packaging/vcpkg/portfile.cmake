# Not run by the project's tests. An overlay port for a checkout: vcpkg install reticor --overlay-ports=packaging/vcpkg
get_filename_component(SOURCE_PATH "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
string(COMPARE EQUAL "${VCPKG_LIBRARY_LINKAGE}" "dynamic" shared)

vcpkg_cmake_configure(
  SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS
    -DBUILD_SHARED_LIBS=${shared}
    -DRETICOR_BUILD_TESTS=OFF
    -DRETICOR_BUILD_EXAMPLES=OFF
    -DRETICOR_WERROR=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME Reticor CONFIG_PATH lib/cmake/Reticor)
vcpkg_fixup_pkgconfig()
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include")
# The licence is not chosen yet: the README says so.
file(INSTALL "${SOURCE_PATH}/README.md" DESTINATION "${CURRENT_PACKAGES_DIR}/share/${PORT}" RENAME copyright)
