#!/usr/bin/python3
"""A small management daemon over GDBus: confirms each agent's link, and prints what happens. See daemon-authors.md."""

import pwd
import sys

from gi.repository import Gio, GLib

NAME = "com.brovik.velmdaemon"
DAEMON_PATH = "/com/brovik/velmdaemon"
AGENT_PATH = "/com/brovik/velmmonitord"
AGENT_INTERFACE = "com.brovik.XpcAgentProtocol"

# The whole contract, as the agent's package has it in /usr/share/dbus-1/interfaces.
INTERFACE = """
<node>
 <interface name="com.brovik.XpcDaemonProtocol">
  <method name="connect"/>
  <method name="pingWithReply"><arg type="b" name="reply" direction="out"/></method>
  <method name="putMessage"><arg type="ay" name="data" direction="in"/></method>
  <method name="onScreenLocked"><arg type="b" name="flag" direction="in"/></method>
  <method name="onTimeZoneChanged"/>
  <method name="requestForNetworkReachability"/>
  <method name="requestForInitRmm"/>
  <method name="requestForLogLevel"><arg type="i" name="value" direction="in"/></method>
  <method name="lastCommunicationTime"><arg type="v" name="reply" direction="out"/></method>
  <method name="loggedUser"><arg type="s" name="reply" direction="out"/></method>
  <method name="upTime"><arg type="v" name="reply" direction="out"/></method>
  <method name="requestForRmmMonitors"/>
 </interface>
</node>
"""


class Daemon:
    def __init__(self, bus, interface, loop):
        self.status = 0
        self._bus = bus
        self._loop = loop
        self._agents = {}  # whose they are, by the unique names of their connections
        bus.register_object(DAEMON_PATH, interface, self._on_call, None, None)
        bus.signal_subscribe("org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                             "/org/freedesktop/DBus", None, Gio.DBusSignalFlags.NONE, self._on_name_owner_changed)
        Gio.bus_own_name_on_connection(bus, NAME, Gio.BusNameOwnerFlags.NONE, lambda *_: print("ready", flush=True),
                                       self._on_name_lost)

    def _introduce(self, sender):
        """The user at the other end. The bus knows; nothing that a message says is to be trusted for that."""
        if sender not in self._agents:
            uid = self._bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                      "GetConnectionUnixUser", GLib.Variant("(s)", (sender,)), GLib.VariantType("(u)"),
                                      Gio.DBusCallFlags.NONE, -1, None).unpack()[0]
            try:
                self._agents[sender] = pwd.getpwuid(uid).pw_name
            except KeyError:
                self._agents[sender] = f"user {uid}"
        return self._agents[sender]

    def _tell(self, agent, member, arguments):
        """Says something to an agent: at its unique name, and without asking for a reply."""
        message = Gio.DBusMessage.new_method_call(agent, AGENT_PATH, AGENT_INTERFACE, member)
        message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        message.set_body(arguments)
        self._bus.send_message(message, Gio.DBusSendMessageFlags.NONE)

    def _on_call(self, _bus, sender, _path, _interface, member, arguments, invocation):
        try:
            user = self._introduce(sender)
        except GLib.Error:
            return  # it is gone already
        answer = None
        if member == "connect":
            # May come twice from one agent, and comes again from an agent whose link was lost.
            print(f"{user}: connected; whether the screen is locked is not known", flush=True)
            self._tell(sender, "connected", GLib.Variant("(b)", (True,)))
        elif member == "onScreenLocked":
            print(f"{user}: screen {'locked' if arguments[0] else 'unlocked'}", flush=True)
        elif member == "onTimeZoneChanged":
            print(f"{user}: time zone changed", flush=True)
            self._tell(sender, "putMessage", GLib.Variant("(ay)", (b"noted",)))
        elif member == "putMessage":
            print(f"{user}: a message of {len(arguments[0])} bytes", flush=True)
        elif member == "requestForLogLevel":
            self._tell(sender, "logLevel", GLib.Variant("(x)", (6,)))
        elif member == "pingWithReply":
            answer = GLib.Variant("(b)", (True,))
        elif member in ("lastCommunicationTime", "loggedUser", "upTime"):
            invocation.return_dbus_error("org.freedesktop.DBus.Error.NotSupported", "not kept here")
            return
        invocation.return_value(answer)

    def _on_name_owner_changed(self, _bus, sender, _path, _interface, _member, change, _data=None):
        name, _before, now = change.unpack()
        # Anyone may send us such a signal; only the bus's own counts.
        if sender == "org.freedesktop.DBus" and not now and name in self._agents:
            print(f"{self._agents.pop(name)}: gone", flush=True)

    def _on_name_lost(self, _bus, _name):
        print(f"daemon: cannot own {NAME}, or lost it", file=sys.stderr)
        self.status = 1
        self._loop.quit()


def main():
    interface = Gio.DBusNodeInfo.new_for_xml(INTERFACE).lookup_interface("com.brovik.XpcDaemonProtocol")
    loop = GLib.MainLoop()
    daemon = Daemon(Gio.bus_get_sync(Gio.BusType.SYSTEM, None), interface, loop)
    loop.run()
    return daemon.status


if __name__ == "__main__":
    sys.exit(main())
