set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(velm_deb_scripts "${CMAKE_CURRENT_SOURCE_DIR}/debian")

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME velmmonitord)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_AGENT_DESCRIPTION "${velm_agent_summary}\n${velm_agent_text}")
set(CPACK_DEBIAN_AGENT_PACKAGE_SHLIBDEPS ON)
# Without libpam-systemd no login starts a user's service manager, and with it the agent.
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS
    "default-dbus-system-bus | dbus-system-bus, libpam-systemd, systemd (>= 252)")
# The session bus of desktops that tell of a lock only there.
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS "dbus-user-session")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
    "${velm_deb_scripts}/velmmonitord/postinst"
    "${velm_deb_scripts}/velmmonitord/prerm"
    "${velm_deb_scripts}/velmmonitord/postrm")
set(CPACK_DEBIAN_AGENT_DEBUGINFO_PACKAGE ON)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME velmmonitord-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "${velm_dev_summary}\n${velm_dev_text}")

set(CPACK_DEBIAN_SIM_PACKAGE_NAME velmdaemon-sim)
set(CPACK_DEBIAN_SIM_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_SIM_DESCRIPTION "${velm_sim_summary}\n${velm_sim_text}")
set(CPACK_DEBIAN_SIM_PACKAGE_SHLIBDEPS ON)
# The bus policy that lets a service own the daemon's name comes with the agent.
set(CPACK_DEBIAN_SIM_PACKAGE_DEPENDS "velmmonitord (>= ${velm_package_version})")
set(CPACK_DEBIAN_SIM_PACKAGE_CONTROL_EXTRA
    "${velm_deb_scripts}/velmdaemon-sim/postinst"
    "${velm_deb_scripts}/velmdaemon-sim/prerm"
    "${velm_deb_scripts}/velmdaemon-sim/postrm")
set(CPACK_DEBIAN_SIM_DEBUGINFO_PACKAGE ON)
