"""A desktop's screen saver, as far as others see it: owns a name on the session bus, and says when it is active.

Runs in the booted system. Usage: saver.py NAME PATH, then "on", "off" or "quit" on standard input, one a line.
"""

import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

NAME, PATH = sys.argv[1:]


class Saver(dbus.service.Object):
    active = False

    @dbus.service.method(NAME, out_signature="b")
    def GetActive(self):
        print("asked", flush=True)
        return self.active

    @dbus.service.signal(NAME, signature="b")
    def ActiveChanged(self, active):
        pass

    def obey(self, source, _condition):
        command = source.readline().strip()
        if command in ("on", "off"):
            self.active = command == "on"
            self.ActiveChanged(self.active)
            return True
        loop.quit()
        return False


DBusGMainLoop(set_as_default=True)
loop = GLib.MainLoop()
bus = dbus.SessionBus()
name = dbus.service.BusName(NAME, bus, do_not_queue=True)
saver = Saver(bus, PATH)
GLib.io_add_watch(sys.stdin, GLib.IO_IN | GLib.IO_HUP, saver.obey)
print("ready", flush=True)
loop.run()
