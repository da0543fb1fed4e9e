#!/usr/bin/env python3
"""Measures what agents without a daemon write into the system's journal: boots a system, logs three users in, waits.

Usage: journal.py PACKAGES ROOT_TARBALL SECONDS
  PACKAGES      what packaging/linux/build-packages.sh built
  ROOT_TARBALL  what tests/roots/base-root.sh printed
SECONDS of no more than some hours, before the agents' own logs are rotated: their lines are counted in the live file.
Prints what grew meanwhile; the status is 0 only if none of it is the agents'. Needs root; no step of ./check.
"""

import pathlib
import signal
import subprocess
import sys
import tempfile
import time

from container import Container
from users import UNIT
from world import World

REQUEST = "Monitor launcher: requesting connect"


def size(container, *match):
    """Bytes of the matching entries, as the journal exports them."""
    return int(container.run("sh", "-c", 'journalctl --quiet --output=export "$@" | wc -c', "sh", *match).split()[-1])


def files(container):
    return int(container.run("sh", "-c", "du --bytes --total --summarize /var/log/journal /run/log/journal 2>/dev/null"
                                         " | tail -n 1 | cut -f 1").strip())


def agents_entries(container):
    """Each unit's, and what any of them says by itself."""
    return size(container, f"_SYSTEMD_USER_UNIT={UNIT}", "+", "SYSLOG_IDENTIFIER=velmmonitord")


def measured(world):
    container = world.container
    return {"agents' entries": agents_entries(container), "all entries": size(container), "journal's files": files(container),
            "agents' own logs": sum(user.log_path().stat().st_size for user in world.users)}


def main():
    packages, tarball = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
    seconds = int(sys.argv[3])
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(1))
    with tempfile.TemporaryDirectory(prefix="velm-journal.", dir="/var/tmp") as work:
        root = pathlib.Path(work) / "root"
        root.mkdir()
        subprocess.run(["tar", "-C", root, "-xf", tarball], check=True)
        world = World(Container(root), packages, packages)
        try:
            world.container.boot()
            world.apt("install", *world.package_files("current"))
            world.add_users()
            for user in world.users:
                user.log_in()
                user.wait_for_messages(0, REQUEST)
            before, began = measured(world), time.monotonic()
            time.sleep(seconds)
            after, took = measured(world), time.monotonic() - began
            asked = {user.name: user.messages().count(REQUEST) for user in world.users}
        finally:
            world.container.stop()
    print(f"{took:.0f} s without a daemon, times asked: {asked}")
    for what, size_before in before.items():
        print(f"{what}: {size_before} bytes, then {after[what]}")
    assert min(asked.values()) > 0.9 * seconds, "the agents did not ask once a second"
    return 0 if after["agents' entries"] == before["agents' entries"] else 1


if __name__ == "__main__":
    sys.exit(main() if len(sys.argv) == 4 else __doc__)
