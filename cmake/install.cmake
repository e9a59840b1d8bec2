# What installs and ships: the daemon with its start-up files for the
# appliance (component "daemon", the Debian package softshutdown), and the
# library with its headers and CMake package for owners' projects
# (component "development", softshutdown-dev).
include(CMakePackageConfigHelpers)

install(TARGETS softShutDown RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)

# The start-up files name the daemon's installed path and the defaults
# file, which alone holds the daemon's environment (Qt's platform among it).
set(supervisor_daemon_path ${CMAKE_INSTALL_FULL_SBINDIR}/softShutDown)
set(supervisor_defaults_path ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default/softShutDown)
configure_file(init/softShutDown.service.in init/softShutDown.service @ONLY)
configure_file(init/softShutDown.init.in init/softShutDown @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/init/softShutDown.service
        DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system COMPONENT daemon)
install(PROGRAMS ${PROJECT_BINARY_DIR}/init/softShutDown
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d COMPONENT daemon)
install(FILES init/softShutDown.default RENAME softShutDown
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default COMPONENT daemon)

set(supervisor_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/softShutDown)
file(GLOB supervisor_headers ${PROJECT_SOURCE_DIR}/src/*.h)
install(TARGETS supervisor EXPORT softShutDownTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${supervisor_headers}
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/softShutDown COMPONENT development)
install(EXPORT softShutDownTargets NAMESPACE softShutDown::
        DESTINATION ${supervisor_cmake_dir} COMPONENT development)
configure_package_config_file(cmake/softShutDownConfig.cmake.in
    ${PROJECT_BINARY_DIR}/softShutDownConfig.cmake INSTALL_DESTINATION ${supervisor_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/softShutDownConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/softShutDownConfig.cmake
              ${PROJECT_BINARY_DIR}/softShutDownConfigVersion.cmake
        DESTINATION ${supervisor_cmake_dir} COMPONENT development)

# The package's architecture is the one the compiler builds for (the cross
# compiler's for the appliance), in Debian's names.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpmachine
                OUTPUT_VARIABLE supervisor_target OUTPUT_STRIP_TRAILING_WHITESPACE)
if(supervisor_target MATCHES "^x86_64-")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
elseif(supervisor_target MATCHES "^arm.*-gnueabihf$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
elseif(supervisor_target MATCHES "^aarch64-")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
else()
    message(WARNING "No Debian architecture known for ${supervisor_target}: cpack -G DEB cannot name it")
endif()

set(CPACK_PACKAGE_NAME softshutdown)
set(CPACK_PACKAGE_VENDOR "softShutDown")
set(CPACK_PACKAGE_CONTACT "softShutDown maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Supervisor daemon of the printer appliance's main program")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL daemon development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME softshutdown)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION admin)
# Qt's libraries, a platform plugin and fonts come from the appliance's own
# Qt 5.4, which is not a Debian package there: the daemon's package names
# no dependency it could not meet.
# The defaults file and the init script are the appliance's to edit: an
# upgrade keeps their changes.
file(WRITE ${PROJECT_BINARY_DIR}/init/conffiles
     "${supervisor_defaults_path}\n${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d/softShutDown\n")
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/init/conffiles)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME softshutdown-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "qtbase5-dev (>= 5.4)")
include(CPack)
