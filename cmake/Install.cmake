# What a host team gets, in three components: the plugin, which an application needs to run; the
# programs; and what hosts are built with. The CMake package finds all of it in any directory.
include(CMakePackageConfigHelpers)

set(package_dir lib/cmake/CorvelKXBle)
set(interface_dir "${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces")
set(version_header "${PROJECT_BINARY_DIR}/include/CorvelKXVersion.h")
configure_file(cmake/CorvelKXVersion.h.in "${version_header}" @ONLY)
configure_package_config_file(cmake/CorvelKXBleConfig.cmake.in CorvelKXBleConfig.cmake
    INSTALL_DESTINATION "${package_dir}" PATH_VARS interface_dir NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(CorvelKXBleConfigVersion.cmake COMPATIBILITY SameMajorVersion)

install(TARGETS CorvelKXBleDLL EXPORT CorvelKXBleTargets
    LIBRARY DESTINATION "${CORVELKX_PLUGIN_DIR}" COMPONENT plugin
    RUNTIME DESTINATION "${CORVELKX_PLUGIN_DIR}" COMPONENT plugin
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)
if(TARGET corvelkx-host)
    install(TARGETS corvelkx-host corvelkx-single RUNTIME COMPONENT tools)
endif()
if(TARGET corvelkx-lights)
    install(TARGETS corvelkx-lights EXPORT CorvelKXBleTargets RUNTIME COMPONENT tools)
    install(FILES "${PROJECT_BINARY_DIR}/simulator/org.example.CorvelKXLights1.xml"
        DESTINATION "${interface_dir}" COMPONENT development)
endif()

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
install(TARGETS corvelkx_interface corvelkx_hostkit corvelkx_singleclient
    EXPORT CorvelKXBleTargets ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT CorvelKXBleTargets NAMESPACE CorvelKX:: DESTINATION "${package_dir}")
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
set(documents "${CMAKE_INSTALL_DATADIR}/doc/corvelkx-ble-dev")
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION "${documents}")
install(DIRECTORY docs/ DESTINATION "${documents}/docs"
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")
include(cmake/Packages.cmake)
