# What `cmake --install` puts down. Three components, which are also the three Debian packages: what
# a program needs to run, what it needs to be built, and the command.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Metrics)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS metrics EXPORT MetricsTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY include/metrics DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
    FILES_MATCHING PATTERN *.h)
# Without what only the library's own sources include.
install(DIRECTORY platform/korsys DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
    FILES_MATCHING PATTERN *.h
    PATTERN Mutex.h EXCLUDE PATTERN NoCancellation.h EXCLUDE PATTERN ThreadAnnotations.h EXCLUDE)

install(EXPORT MetricsTargets NAMESPACE Metrics:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/MetricsConfig.cmake.in MetricsConfig.cmake
    INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(MetricsConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/MetricsConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/MetricsConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT development)

# The paths in the .pc file are told from its own place, so that the tree may be moved, and
# installed with another --prefix than it was configured with.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
    BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE pc_prefix)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR
    BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE pc_libdir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR
    BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE pc_includedir)
configure_file(cmake/metrics.pc.in metrics.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/metrics.pc
    DESTINATION ${pkgconfig_dir} COMPONENT development)

if(METRICS_BUILD_TOOLS)
    install(TARGETS metrics_command
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(FILES docs/metrics.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()

install(FILES LICENSE-PENDING.md CHANGELOG.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
set(METRICS_REFERENCE_DIR "" CACHE PATH "The API reference as bin/docs has made it, to be installed")
if(METRICS_REFERENCE_DIR)
    install(DIRECTORY ${METRICS_REFERENCE_DIR}
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development OPTIONAL)
endif()
