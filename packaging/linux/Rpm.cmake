set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_RELEASE 1)
set(CPACK_RPM_PACKAGE_LICENSE "Proprietary")
set(CPACK_RPM_PACKAGE_GROUP "System Environment/Daemons")

set(velm_rpm_scripts "${CMAKE_CURRENT_SOURCE_DIR}/rpm")

set(CPACK_RPM_AGENT_PACKAGE_NAME velmmonitord)
set(CPACK_RPM_AGENT_PACKAGE_SUMMARY "${velm_agent_summary}")
set(CPACK_RPM_AGENT_PACKAGE_DESCRIPTION "${velm_agent_text}")
set(CPACK_RPM_AGENT_PACKAGE_REQUIRES "dbus, systemd >= 252, systemd-pam, util-linux")
set(CPACK_RPM_AGENT_POST_INSTALL_SCRIPT_FILE "${velm_rpm_scripts}/velmmonitord.post")
set(CPACK_RPM_AGENT_PRE_UNINSTALL_SCRIPT_FILE "${velm_rpm_scripts}/velmmonitord.preun")

set(CPACK_RPM_DEV_PACKAGE_NAME velmmonitord-devel)
set(CPACK_RPM_DEV_PACKAGE_SUMMARY "${velm_dev_summary}")
set(CPACK_RPM_DEV_PACKAGE_DESCRIPTION "${velm_dev_text}")

set(CPACK_RPM_SIM_PACKAGE_NAME velmdaemon-sim)
set(CPACK_RPM_SIM_PACKAGE_SUMMARY "${velm_sim_summary}")
set(CPACK_RPM_SIM_PACKAGE_DESCRIPTION "${velm_sim_text}")
set(CPACK_RPM_SIM_PACKAGE_REQUIRES "velmmonitord >= ${velm_package_version}")
set(CPACK_RPM_SIM_POST_INSTALL_SCRIPT_FILE "${velm_rpm_scripts}/velmdaemon-sim.post")
set(CPACK_RPM_SIM_PRE_UNINSTALL_SCRIPT_FILE "${velm_rpm_scripts}/velmdaemon-sim.preun")
set(CPACK_RPM_SIM_POST_UNINSTALL_SCRIPT_FILE "${velm_rpm_scripts}/velmdaemon-sim.postun")

# Directories that belong to the system; a package that claims them clashes with the one that owns them.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /usr/sbin /usr/libexec /usr/lib/systemd /usr/lib/systemd/system /usr/lib/systemd/user /usr/lib/systemd/user-preset
    /usr/share/dbus-1 /usr/share/dbus-1/interfaces /usr/share/dbus-1/system.d /usr/share/user-tmpfiles.d
    /usr/share/man /usr/share/man/man1 /usr/share/man/man8 /usr/share/doc
    /usr/share/bash-completion /usr/share/bash-completion/completions
    "/usr/${CMAKE_INSTALL_LIBDIR}" "/usr/${CMAKE_INSTALL_LIBDIR}/cmake")
