# The packages: .tar.gz and .deb on Linux, one archive elsewhere. scripts/package installs what making
# them takes on a Debian.
set(CPACK_PACKAGE_NAME corvelkx-ble)
set(CPACK_PACKAGE_CONTACT "The CorvelKX team <corvelkx@example.org>")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
if(NOT TARGET corvelkx-lights)
    set(CPACK_GENERATOR TGZ)
    if(WIN32)
        set(CPACK_GENERATOR ZIP)
    endif()
    include(CPack)
    return()
endif()

set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/cmake/PackageTools.cmake")
set(CPACK_COMPONENTS_ALL plugin tools development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(common "Lights are found by their manufacturer data, connected over Bluetooth
Low Energy and reached through one object with commands and signals.")

set(CPACK_DEBIAN_PLUGIN_PACKAGE_NAME corvelkx-ble)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_RECOMMENDS bluez)
set(CPACK_DEBIAN_PLUGIN_DESCRIPTION "Qt plugin for CorvelKX Bluetooth lights\n${common}")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME corvelkx-ble-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "corvelkx-ble (= ${PROJECT_VERSION}), dbus-daemon")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "console host and virtual lights for CorvelKX Bluetooth lights\n${common}")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME corvelkx-ble-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "corvelkx-ble (= ${PROJECT_VERSION}), corvelkx-ble-tools (= ${PROJECT_VERSION}), \
qt6-base-dev (>= 6.4), qt6-connectivity-dev (>= 6.4)")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "headers and libraries for hosts of CorvelKX Bluetooth lights\n${common}")

# Debian requires a changelog and a copyright file in each package.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
find_program(GZIP_PROGRAM gzip)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER "${component}" upper)
    set(package "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
    set(directory "${PROJECT_BINARY_DIR}/debian/${package}")
    file(WRITE "${directory}/changelog" "${package} (${PROJECT_VERSION}) unstable; urgency=medium

  * Version ${PROJECT_VERSION}; the file CHANGELOG.md of corvelkx-ble-dev tells what is new.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
    execute_process(COMMAND "${GZIP_PROGRAM}" -9nf "${directory}/changelog")
    install(FILES "${directory}/changelog.gz" cmake/copyright
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${package}" COMPONENT ${component})
endforeach()

set(programs host lights single)
if(TARGET corvelkx-panel)
    list(APPEND programs panel)
endif()
foreach(program IN LISTS programs)
    install(FILES cmake/completion.bash COMPONENT tools RENAME corvelkx-${program}
        DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
endforeach()
find_program(HELP2MAN_PROGRAM help2man)
if(HELP2MAN_PROGRAM AND GZIP_PROGRAM AND NOT CMAKE_CROSSCOMPILING) # it runs the programs
    foreach(program IN LISTS programs)
        set(page "${PROJECT_BINARY_DIR}/man/corvelkx-${program}.1")
        add_custom_command(OUTPUT "${page}.gz" DEPENDS corvelkx-${program}
            COMMAND ${CMAKE_COMMAND} -E make_directory "${PROJECT_BINARY_DIR}/man"
            COMMAND ${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen "${HELP2MAN_PROGRAM}" --no-info --output "${page}"
                --name "for CorvelKX Bluetooth lights" $<TARGET_FILE:corvelkx-${program}>
            COMMAND "${GZIP_PROGRAM}" -9nf "${page}" VERBATIM)
        list(APPEND pages "${page}.gz")
    endforeach()
    add_custom_target(man ALL DEPENDS ${pages})
    install(FILES ${pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
endif()
include(CPack)
