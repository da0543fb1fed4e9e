# What another project needs to use the two libraries: headers, CMake package and pkg-config files, all in the
# install component `dev`. Everything finds its prefix from where it lies, so that an installed tree can be moved.

include(CMakePackageConfigHelpers)

set(velm_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/velm")
set(velm_pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(TARGETS velm_common velm_logging
    EXPORT velm-targets
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev)
install(EXPORT velm-targets
    FILE velm-targets.cmake
    NAMESPACE velm::
    DESTINATION "${velm_cmake_dir}"
    COMPONENT dev)

# Users write #include <velm/common/BaseTimer.h>, so that nobody's own common/BaseTimer.h is in the way. Headers of private
# state stay here.
install(FILES
    "${PROJECT_SOURCE_DIR}/src/common/BaseTimer.h"
    "${PROJECT_SOURCE_DIR}/src/common/ITimer.h"
    "${PROJECT_SOURCE_DIR}/src/common/Semaphore.h"
    "${PROJECT_SOURCE_DIR}/src/common/SingleShotTimer.h"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/velm/common"
    COMPONENT dev)
install(FILES
    "${PROJECT_SOURCE_DIR}/src/logging/FileDestination.h"
    "${PROJECT_SOURCE_DIR}/src/logging/Log.h"
    "${PROJECT_SOURCE_DIR}/src/logging/RotationStrategy.h"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/velm/logging"
    COMPONENT dev)

configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/cmake/velm-config.cmake.in" "${PROJECT_BINARY_DIR}/velm-config.cmake"
    INSTALL_DESTINATION "${velm_cmake_dir}"
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/velm-config-version.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/velm-config.cmake"
    "${PROJECT_BINARY_DIR}/velm-config-version.cmake"
    DESTINATION "${velm_cmake_dir}"
    COMPONENT dev)

file(RELATIVE_PATH velm_prefix_from_pkgconfig
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
function(velm_install_pkgconfig library description)
    set(PC_LIBRARY "${library}")
    set(PC_DESCRIPTION "${description}")
    set(PC_PREFIX "${velm_prefix_from_pkgconfig}")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/velm.pc.in" "${PROJECT_BINARY_DIR}/velm-${library}.pc" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/velm-${library}.pc"
        DESTINATION "${velm_pkgconfig_dir}"
        COMPONENT dev)
endfunction()
velm_install_pkgconfig(common "Periodic and one-shot timers and a counting semaphore")
velm_install_pkgconfig(logging "Process-wide log with a rotated file")

set(velm_dev_doc_dir "${CMAKE_INSTALL_DATADIR}/doc/velmmonitord-dev")
install(FILES "${PROJECT_SOURCE_DIR}/docs/libraries.md" DESTINATION "${velm_dev_doc_dir}" COMPONENT dev)
install(FILES
    "${PROJECT_SOURCE_DIR}/examples/rotating_log.cpp"
    "${PROJECT_SOURCE_DIR}/examples/timers.cpp"
    DESTINATION "${velm_dev_doc_dir}/examples"
    COMPONENT dev)
