"""A program that is not the daemon tries to speak to the agent; prints what came of it.

Usage: intruder.py BUS-ADDRESS SESSION-PATH LINK-NAME OTHER-NAME...
The names are those of the agent's connections to the bus, its link to the daemon first.
"""

import sys

import dbus
import dbus.bus
import dbus.lowlevel


def call(bus, agent, member, signature, argument):
    try:
        bus.call_blocking(agent, "/com/brovik/velmmonitord", "com.brovik.XpcAgentProtocol", member, signature,
                          (argument,), timeout=10)
        print(f"{member}: accepted")
    except dbus.DBusException as error:
        print(f"{member}: {error.get_dbus_name()}")


def forge_lock(bus, agent, session):
    """Claims, to the agent alone, that the screen was locked; the bus lets anyone send such a signal."""
    signal = dbus.lowlevel.SignalMessage(session, "org.freedesktop.DBus.Properties", "PropertiesChanged")
    signal.set_destination(agent)
    signal.append("org.freedesktop.login1.Session", {"LockedHint": dbus.Boolean(True, variant_level=1)}, [],
                  signature="sa{sv}as")
    bus.send_message(signal)
    bus.flush()


def main():
    address, session, link, *others = sys.argv[1:]
    bus = dbus.bus.BusConnection(address)
    for name in (link, *others):
        forge_lock(bus, name, session)
    print("forged lock: sent")
    call(bus, link, "connected", "b", True)
    call(bus, link, "putMessage", "ay", b"let me in")


if __name__ == "__main__":
    main()
