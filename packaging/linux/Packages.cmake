# Debian packages and RPMs, one for each component. The programs' unit files carry the prefix that was configured,
# so packages are built with CMAKE_INSTALL_PREFIX=/usr (the preset "package").

set(VELM_PACKAGE_VERSION "" CACHE STRING "Version of the packages, if not that of the project")
set(velm_package_version "${PROJECT_VERSION}")
if(VELM_PACKAGE_VERSION)
    set(velm_package_version "${VELM_PACKAGE_VERSION}")
endif()

set(CPACK_PACKAGE_NAME "${PROJECT_NAME}")
set(CPACK_PACKAGE_VERSION "${velm_package_version}")
set(CPACK_PACKAGE_VENDOR "Brovik")
set(CPACK_PACKAGE_CONTACT "velmmonitord maintainers <velmmonitord@brovik.com>")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_GENERATOR DEB RPM)
set(CPACK_COMPONENTS_ALL agent dev sim)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)

set(velm_agent_summary "Per-user agent that reports screen locks and time zone changes")
set(velm_agent_text "Runs in every user's service manager, watches that user's screen lock and the
system's time zone, and forwards both to the Velm management daemon over the
system message bus. Keeps a log of its own in the user's home directory.")
set(velm_dev_summary "Timer and logging libraries of the Velm monitor agent")
set(velm_dev_text "Headers, static libraries and CMake package files of the two libraries that
the agent is built on: periodic and one-shot timers, and a logger with size
based rotation.")
set(velm_sim_summary "Stand-in for the Velm management daemon, for testing")
set(velm_sim_text "Takes the management daemon's name on the system message bus, answers agents
that connect, and prints what they report. Meant for trying out and testing
the agent; its service is not started by installing it.")

include(Debian.cmake)
include(Rpm.cmake)

set(CPACK_PROJECT_CONFIG_FILE "${CMAKE_CURRENT_SOURCE_DIR}/PackageOptions.cmake")
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_SOURCE_DIR}/FinishStaging.cmake")
set(CPACK_VELM_PACKAGING_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
set(CPACK_VELM_STRIP "${CMAKE_STRIP}")
set(CPACK_VELM_MANDIR "${CMAKE_INSTALL_MANDIR}")
include(CPack)
