#pragma once

#include <systemd/sd-bus.h>

#include <string>

namespace platform {

// The one way in which the programs of this tree open a bus, with what the library's own openers
// (sd_bus_open_system(3), sd_bus_open_user(3)) leave as it comes:
//
// - No file descriptors are accepted (sd_bus_negotiate_fds(3)). Nothing here is ever sent one, but any local
//   user could enclose a socket whose last close() blocks, and so hold up whoever processes the bus for as
//   long as he likes.
// - Closing waits for nothing: an event loop that ends does not flush the bus (sd_bus_set_close_on_exit(3)),
//   which a bus that does not read would hold up without end.
// - Calls have no time-out. Who answers late answers all the same, and a bus tells of a peer that went away.
//
// Each starts to connect and returns at once, with 0 or more and the bus in `bus`, or with a negative errno
// and `bus` untouched. Any thread; the bus belongs to the caller's.

/// The system bus: DBUS_SYSTEM_BUS_ADDRESS, or the well-known address of the D-Bus specification.
int openSystemBus(sd_bus** bus);
/// The user's session bus: DBUS_SESSION_BUS_ADDRESS, or the socket in XDG_RUNTIME_DIR; -ENOMEDIUM without
/// both.
int openUserBus(sd_bus** bus);
/// The bus at `address`, in the D-Bus specification's notation.
int openBusAt(const std::string& address, sd_bus** bus);

}  // namespace platform
