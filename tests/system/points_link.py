"""The link to the daemon, which is a system service."""

import time

from container import wait_until
from daemon import UNIT

CONNECTED = "Monitor launcher: connected came"


def points(report, world):
    report.check("without a daemon the agents ask once a second", asks_while_down, world)
    report.check("both users' agents link to the daemon, started as a system service", links, world)
    report.check("the daemon stopped: the loss is seen at once", daemon_stopped, world)
    report.check("the daemon started again: linked again", daemon_returns, world)
    report.check("the daemon killed: restarted by systemd, linked again", daemon_crashes, world)


def short_points(report, world):
    report.check("both users' agents link to the daemon, started as a system service", links, world)
    report.check("the daemon killed: restarted by systemd, linked again", daemon_crashes, world)


def asks_while_down(world):
    mark = world.alice.log_mark()
    request = "Monitor launcher: requesting connect"
    world.alice.wait_for_messages(mark, request, request, request)
    assert CONNECTED not in world.alice.messages(mark)


def links(world):
    marks = [(user, user.log_mark()) for user in (world.alice, world.bob)]
    since = world.daemon.mark()
    world.daemon.start()
    for user, mark in marks:
        user.wait_for_messages(mark, "xpc: connection is established: 1", CONNECTED)
        world.daemon.wait_for(user, since, "connect")


def daemon_stopped(world):
    mark = world.alice.log_mark()
    world.daemon.stop()
    world.alice.wait_for_messages(mark, "xpc connection was inerrupted", "Monitor launcher: disconnected came",
                                  "xpc is running", "Monitor launcher: requesting connect")


def linked_after(world, marks, returned):
    for user, mark in marks:
        user.wait_for_messages(mark, CONNECTED)
    return f"{time.monotonic() - returned:.1f} s after its return"


def daemon_returns(world):
    marks = [(user, user.log_mark()) for user in (world.alice, world.bob)]
    world.daemon.start()
    return linked_after(world, marks, time.monotonic())


def daemon_crashes(world):
    marks = [(user, user.log_mark()) for user in (world.alice, world.bob)]
    pid = world.daemon.pid()
    world.container.run("systemctl", "kill", "--kill-whom=main", "--signal=KILL", UNIT)
    try:
        wait_until(lambda: world.daemon.is_active() and world.daemon.pid() not in (0, pid),
                   "systemd restarted the daemon")
        return linked_after(world, marks, time.monotonic())
    finally:
        world.daemon.start()
