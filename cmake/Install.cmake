# What a host team gets: the plugin, the headers, the single-device client, the programs, the
# documents, and a CMake package that finds them wherever they were put.
include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/CorvelKXBle")
set(version_header "${PROJECT_BINARY_DIR}/include/CorvelKXVersion.h")
configure_file(cmake/CorvelKXVersion.h.in "${version_header}" @ONLY)
configure_package_config_file(cmake/CorvelKXBleConfig.cmake.in CorvelKXBleConfig.cmake
    INSTALL_DESTINATION "${package_dir}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(CorvelKXBleConfigVersion.cmake COMPATIBILITY SameMajorVersion)

install(TARGETS CorvelKXBleDLL corvelkx_interface corvelkx_hostkit corvelkx_singleclient
    EXPORT CorvelKXBleTargets
    LIBRARY DESTINATION "${CORVELKX_PLUGIN_DIR}"
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT CorvelKXBleTargets NAMESPACE CorvelKX:: DESTINATION "${package_dir}")
install(TARGETS corvelkx-host corvelkx-lights corvelkx-single)
install(FILES
    hostkit/CorvelKXHost.h
    hostkit/CorvelKXLight.h
    hostkit/CorvelKXLightModel.h
    plugin/CorvelKXBleInterface.h
    singleclient/MYBLE.h
    "${version_header}"
    DESTINATION "${CORVELKX_INCLUDE_DIR}")
install(FILES
    "${PROJECT_BINARY_DIR}/CorvelKXBleConfig.cmake"
    "${PROJECT_BINARY_DIR}/CorvelKXBleConfigVersion.cmake"
    DESTINATION "${package_dir}")
install(FILES README.md CHANGELOG.md DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(DIRECTORY docs/ DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs" FILES_MATCHING PATTERN "*.md")

set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PACKAGE_NAME corvelkx-ble)
set(CPACK_PACKAGE_CONTACT "The CorvelKX team <corvelkx@example.org>")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Hosts are built against Qt's headers; the virtual lights start a bus of their own.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "dbus-daemon, qt6-base-dev (>= 6.4), qt6-connectivity-dev (>= 6.4)")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS bluez)
include(CPack)
