#!/usr/bin/env python3
"""Locks and unlocks the screen with real lockers, each by its own command, and prints a table of what the agent told.

A locker passes with exactly one YES and one NO at the daemon. Usage: see desktops.sh.
"""

import argparse
import pathlib
import signal
import sys
import time

from container import Container, wait_until
from users import User
from world import World

DISPLAY = ":7"
PASSWORD = "opensesame"

# What a session of each desktop runs; the session bus is that of the user's service manager.
X_SESSION = f"""#!/bin/sh
export DBUS_SESSION_BUS_ADDRESS=unix:path=$XDG_RUNTIME_DIR/bus
Xvfb {DISPLAY} -screen 0 640x480x24 -nolisten tcp -noreset &
until xdotool getdisplaygeometry; do sleep 0.1; done
exec %s
"""


class Locker:
    """A package, what its session runs, the command that locks, and the process that is there before."""

    def __init__(self, package, session, lock, process):
        self.package, self.session, self.lock, self.process = package, session, lock, process


def type_password(user):
    environment = {"DISPLAY": DISPLAY}
    user.run("xdotool", "mousemove_relative", "7", "7", env=environment, check=False)
    user.run("xdotool", "key", "Escape", env=environment, check=False)
    time.sleep(2)
    user.run("xdotool", "type", "--delay", "60", PASSWORD, env=environment, check=False)
    user.run("xdotool", "key", "Return", env=environment, check=False)


LOCKERS = (
    Locker("i3lock", X_SESSION % "xss-lock -- i3lock --nofork", ("loginctl", "lock-session", "SESSION"), "xss-lock"),
    Locker("mate-screensaver", X_SESSION % "mate-screensaver --no-daemon", ("mate-screensaver-command", "--lock"),
           "mate-screensaver"),
)


def version_of(world, package):
    return world.container.run("dpkg-query", "--show", "--showformat=${Version}", package, check=False).strip()


def calls(world, user, since):
    return [call for call in world.daemon.received(user, since) if call.startswith("onScreenLocked")]


def lock_and_unlock(world, user, session, locker):
    since = world.daemon.mark()
    environment = {**user.environment(), "DISPLAY": DISPLAY}
    command = [session.number if word == "SESSION" else word for word in locker.lock]

    def locked():
        world.container.run(*command, user=None if "loginctl" in command else user, env=environment, check=False)
        time.sleep(2)
        return calls(world, user, since)

    wait_until(locked, "the lock is told", cap=60)
    wait_until(lambda: calls(world, user, since) == ["onScreenLocked YES"], "one YES", cap=60)
    # A second one would be there by now.
    time.sleep(3)
    assert calls(world, user, since) == ["onScreenLocked YES"], calls(world, user, since)

    def unlocked():
        type_password(user)
        time.sleep(3)
        return len(calls(world, user, since)) > 1
    wait_until(unlocked, "the unlock is told", cap=90)
    time.sleep(3)
    assert calls(world, user, since) == ["onScreenLocked YES", "onScreenLocked NO"], calls(world, user, since)


def try_locker(world, number, locker):
    # Of each a user of its own: a hint that one locker has set would decide over the others.
    user = User(world.container, f"user{number}")
    world.container.run("sh", "-c", f"echo '{user.name}:{PASSWORD}' | chpasswd")
    program = world.container.path("usr/local/bin/velmtest-session")
    program.write_text(locker.session)
    program.chmod(0o755)
    session = user.log_in_graphically(DISPLAY, "/usr/local/bin/velmtest-session")
    try:
        user.wait_until_linked()
        # The kernel keeps 15 characters of a name.
        wait_until(lambda: locker.process[:15] in world.container.programs(), f"{locker.process} runs", cap=60)
        time.sleep(3)
        lock_and_unlock(world, user, session, locker)
    finally:
        world.container.run("loginctl", "terminate-session", session.number, check=False)
        world.container.run("systemctl", "stop", session.unit, check=False)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", type=pathlib.Path, required=True)
    parser.add_argument("--packages", type=pathlib.Path, required=True)
    parser.add_argument("--only")
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
        print(f"| locker | version in {release} | one YES, one NO |\n|---|---|---|", flush=True)
        for number, locker in enumerate(LOCKERS):
            if arguments.only and arguments.only != locker.package:
                continue
            version = version_of(world, locker.package)
            verdict = "not in this release"
            if version:
                try:
                    try_locker(world, number, locker)
                    verdict = "yes"
                except AssertionError as error:
                    failed += 1
                    verdict = "**no**: " + " ".join(str(error).split())[:200]
            print(f"| {locker.package} | {version or '-'} | {verdict} |", flush=True)
    finally:
        container.stop()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
