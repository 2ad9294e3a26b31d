# cmake --build ... --target docs: the API pages, made of the headers and the documents.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
    return()
endif()

set(DOXYGEN_PROJECT_NAME "CorvelKX lights")
set(DOXYGEN_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/docs")
set(DOXYGEN_EXTRACT_ALL NO)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_HAVE_DOT NO)
set(DOXYGEN_IMAGE_PATH docs)
set(DOXYGEN_HIDE_UNDOC_CLASSES YES)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_PREDEFINED "Q_OBJECT=" "Q_PROPERTY(a)=" "Q_DECLARE_INTERFACE(a,b)=")
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE docs/README.md)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_WARN_IF_UNDOCUMENTED YES)
set(DOXYGEN_QUIET YES)
doxygen_add_docs(docs
    README.md
    CHANGELOG.md
    CONTRIBUTING.md
    docs/README.md
    docs/faults.md
    docs/host-guide.md
    docs/lights.md
    docs/panel.md
    docs/performance.md
    docs/platforms.md
    docs/plugin.md
    docs/testing.md
    docs/real-stack.md
    hostkit/CorvelKXHost.h
    hostkit/CorvelKXLight.h
    hostkit/CorvelKXLightModel.h
    plugin/CorvelKXBleInterface.h
    singleclient/MYBLE.h
    COMMENT "Writing the API documentation")
