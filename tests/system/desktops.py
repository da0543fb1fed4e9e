#!/usr/bin/env python3
"""Locks and unlocks the screen with real lockers, each by its own command, and prints a table of what the agent told.

A locker passes with exactly one YES and one NO at the daemon. Usage: see desktops.sh.
"""

import argparse
import dataclasses
import pathlib
import shlex
import signal
import subprocess
import sys
import time

from container import Container, wait_until
from users import User
from world import World

PASSWORD = "opensesame"
# Of the first locker; each has one of its own, as a server may outlive its session.
FIRST_DISPLAY = 7

# What a session of each desktop runs; the session bus is that of the user's service manager.
SESSION = """#!/bin/sh
export DBUS_SESSION_BUS_ADDRESS=unix:path=$XDG_RUNTIME_DIR/bus
"""
X_SESSION = SESSION + """
Xvfb $DISPLAY -screen 0 800x600x24 -nolisten tcp -noreset &
until xdotool getdisplaygeometry; do sleep 0.1; done
"""
# Without a screen, keyboard or graphics processor.
WAYLAND_SESSION = SESSION + """
unset DISPLAY
export XDG_SESSION_TYPE=wayland WLR_BACKENDS=headless WLR_RENDERER=pixman SWAYSOCK=$XDG_RUNTIME_DIR/sway.sock
"""
WAYLAND_DISPLAY = "wayland-1"


def type_on_x(user, environment):
    def x(*words):
        user.run("xdotool", *words, env=environment, check=False)

    x("mousemove_relative", "7", "7")
    x("key", "Escape")
    # The dialog comes up.
    time.sleep(3)
    x("type", "--delay", "60", PASSWORD)
    x("key", "Return")


def type_on_wayland(user, environment):
    user.run("wtype", PASSWORD, "-k", "Return", env=environment, check=False)


def ask_to_unlock(user, _environment):
    """Where nobody can type; the locker gives in to who administers the machine."""
    for number in user.session_numbers():
        user.container.run("loginctl", "unlock-session", number, check=False)


@dataclasses.dataclass
class Locker:
    # Whose version is shown, and what its session runs.
    package: str
    session: str
    # The process that is there before.
    process: str
    lock: str = "loginctl lock-session"
    unlock: callable = type_on_x
    # A service of the system that it needs.
    service: str = ""


LOCKERS = (
    Locker("i3lock", X_SESSION + "exec xss-lock -- i3lock --nofork", "xss-lock"),
    Locker("mate-screensaver", X_SESSION + "exec mate-screensaver --no-daemon", "mate-screensaver",
           "mate-screensaver-command --lock"),
    Locker("xfce4-screensaver", X_SESSION + "exec xfce4-screensaver", "xfce4-screensaver",
           "xfce4-screensaver-command --lock"),
    Locker("cinnamon-screensaver", X_SESSION + "exec cinnamon-screensaver --hold", "cinnamon-screen",
           "cinnamon-screensaver-command --lock"),
    Locker("libkscreenlocker6", X_SESSION + "export XDG_CURRENT_DESKTOP=KDE KDE_FULL_SESSION=true KDE_SESSION_VERSION=6 "
           "QT_QUICK_BACKEND=software\nkwin_x11 &\nexec ksmserver", "ksmserver"),
    Locker("gnome-shell", WAYLAND_SESSION + "export XDG_CURRENT_DESKTOP=GNOME\n"
           "exec gnome-shell --headless --virtual-monitor 800x600", "gnome-shell", unlock=ask_to_unlock, service="gdm"),
    Locker("swaylock", WAYLAND_SESSION + "exec sway --config /dev/null", "sway",
           "swaymsg exec 'velm-locked-hint -- swaylock'", unlock=type_on_wayland),
    # As the administrator's page says.
    Locker("swayidle", WAYLAND_SESSION + """echo "exec swayidle lock 'velm-locked-hint -- swaylock' timeout 600 \
'loginctl lock-session' before-sleep 'loginctl lock-session'" >~/config
exec sway --config ~/config""", "swayidle", unlock=type_on_wayland),
)


def version_of(world, package):
    return world.container.run("dpkg-query", "--show", "--showformat=${Version}", package, check=False).strip()


def calls(world, user, since):
    return [call for call in world.daemon.received(user, since) if call.startswith("onScreenLocked")]


def lock_and_unlock(world, user, session, locker, display):
    since = world.daemon.mark()
    environment = {**user.environment(), "DISPLAY": display, "WAYLAND_DISPLAY": WAYLAND_DISPLAY,
                   "SWAYSOCK": f"/run/user/{user.uid}/sway.sock"}
    command = shlex.split(locker.lock)
    if command[0] == "loginctl":
        command.append(session.number)

    def locked():
        # Again, as the first may come before the locker listens.
        user.run(*command, env=environment, check=False)
        time.sleep(5)
        return calls(world, user, since)

    wait_until(locked, "the lock is told", cap=90)
    # A second one would be there by now.
    time.sleep(3)
    assert calls(world, user, since) == ["onScreenLocked YES"], calls(world, user, since)

    def unlocked():
        locker.unlock(user, environment)
        time.sleep(5)
        return len(calls(world, user, since)) > 1
    wait_until(unlocked, "the unlock is told", cap=90)
    time.sleep(3)
    assert calls(world, user, since) == ["onScreenLocked YES", "onScreenLocked NO"], calls(world, user, since)


def runs(world, locker):
    # The kernel keeps 15 characters of a name, and a program in Python may keep its interpreter's.
    lines = world.container.run("sh", "-c", "cat /proc/[0-9]*/comm; cat /proc/[0-9]*/cmdline | tr '\\0' '\\n'", check=False)
    return any(locker.process in line for line in lines.splitlines())


def try_locker(world, number, locker):
    # Of each a user of its own: a hint that one locker has set would decide over the others.
    user = User(world.container, f"user{number}")
    display = f":{FIRST_DISPLAY + number}"
    world.container.run("sh", "-c", f"echo '{user.name}:{PASSWORD}' | chpasswd")
    if locker.service:
        world.container.run("systemctl", "start", locker.service)
    program = world.container.path("usr/local/bin/velmtest-session")
    program.write_text(locker.session + "\n")
    program.chmod(0o755)
    session = user.log_in_graphically(display, "/usr/local/bin/velmtest-session")
    try:
        user.wait_until_linked(cap=60)
        wait_until(lambda: runs(world, locker), f"{locker.process} runs", cap=60)
        time.sleep(5)
        lock_and_unlock(world, user, session, locker, display)
    finally:
        world.container.run("loginctl", "terminate-user", user.name, check=False)
        world.container.run("systemctl", "stop", session.unit, check=False)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", type=pathlib.Path, required=True)
    parser.add_argument("--packages", type=pathlib.Path, required=True)
    parser.add_argument("--only", choices=[locker.package for locker in LOCKERS])
    arguments = parser.parse_args()
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(1))
    container = Container(arguments.root)
    world = World(container, arguments.packages, arguments.packages)
    failed = 0
    try:
        container.boot()
        world.apt("install", *world.package_files("current"))
        world.daemon.start()
        release = container.run("sh", "-c", ". /etc/os-release; echo $PRETTY_NAME").strip()
        print(f"| package | version in {release} | locked by | one YES, one NO |\n|---|---|---|---|", flush=True)
        for number, locker in enumerate(LOCKERS):
            if arguments.only and arguments.only != locker.package:
                continue
            verdict = "yes"
            try:
                try_locker(world, number, locker)
            except (AssertionError, subprocess.TimeoutExpired) as error:
                failed += 1
                verdict = "**no**: " + " ".join(str(error).split())[:200]
            print(f"| {locker.package} | {version_of(world, locker.package) or '-'} | `{locker.lock}` | {verdict} |", flush=True)
    finally:
        container.stop()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
