# The Debian packages, made by `cpack -G DEB`: libmetrics<N> to run, libmetrics-dev to build,
# metrics-tools for the command, and libmetrics<N>-dbgsym, a .ddeb, with the debug symbols of the
# first.
if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

set(METRICS_PACKAGE_CONTACT "The metrics maintainers <metrics@localhost>" CACHE STRING
    "Who stands in the Debian packages as their maintainer")
set(runtime_package libmetrics${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT ${METRICS_PACKAGE_CONTACT})
set(CPACK_COMPONENTS_ALL runtime development)
if(METRICS_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_DEBUGINFO_PACKAGE ON) # takes the symbols out of the library
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON) # also has ldconfig run
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libmetrics-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "The headers, the CMake package, the pkg-config file and the API reference.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME metrics-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "The command metrics, which shows where the time went in recorded runs.")

include(CPack)
