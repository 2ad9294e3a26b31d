# Without these programs, CPack makes packages without dependencies, or fails and does not say why.
if(CPACK_GENERATOR STREQUAL "DEB")
    unset(CPACK_PACKAGE_DESCRIPTION_SUMMARY) # or it would be the first line of each description
    foreach(tool file dpkg-shlibdeps)
        find_program(found_${tool} ${tool})
        if(NOT found_${tool})
            message(FATAL_ERROR "The program ${tool} is missing, so the dependencies of a .deb "
                "cannot be computed; scripts/package installs it.")
        endif()
    endforeach()
endif()
