"""The link to the daemon, which is a system service."""

import time

from container import wait_until
from daemon import UNIT
from users import CONNECTED
from users import UNIT as UNIT_OF_AGENT


def points(report, world):
    report.check("without a daemon the agents ask once a second", asks_while_down, world)
    report.check("every user's agent links to the daemon, started as a system service", links, world)
    report.check("the daemon stopped: the loss is seen at once", daemon_stopped, world)
    report.check("the daemon started again: linked again", daemon_returns, world)
    report.check("the daemon killed: restarted by systemd, linked again", daemon_crashes, world)
    report.check("what the agents say goes to their files, not into the journal", journal_stays_small, world)
    report.check("what the daemon sends reaches every agent", daemon_sends, world)


def short_points(report, world):
    report.check("every user's agent links to the daemon, started as a system service", links, world)
    report.check("the daemon killed: restarted by systemd, linked again", daemon_crashes, world)


def asks_while_down(world):
    request = "Monitor launcher: requesting connect"
    # What the daemon said before it was stopped has come by then.
    world.alice.wait_for_messages(world.alice.log_mark(), request, request)
    mark = world.alice.log_mark()
    world.alice.wait_for_messages(mark, *[request] * 5)
    assert CONNECTED not in world.alice.messages(mark)
    stamps = world.alice.stamps(request, mark)
    gaps = [(after - before).total_seconds() for before, after in zip(stamps, stamps[1:])]
    # By the log's own clock. A busy machine may be late now and then, but not always, and never early.
    assert min(gaps) < 1.5, f"asks every {gaps} s"
    assert sum(gaps) > 0.9 * len(gaps), f"asks every {gaps} s"
    return f"every {sorted(gaps)[len(gaps) // 2]:.3f} s"


def journal_stays_small(world):
    """Not since the upgrade from the version that filled it."""
    for user in world.users:
        invocation = user.systemctl("show", "--property=InvocationID", "--value", UNIT_OF_AGENT).strip()
        entries = world.container.journal("_TRANSPORT=stdout", f"_SYSTEMD_INVOCATION_ID={invocation}")
        assert user.messages() and not entries, entries[-3:]


# What the stand-in is told to send, once every user's agent is there.
CALLS_TO_AGENTS = r"wait-agent 3\nput hello, agents\nlog-level 3\nput hello again\nsleep 1000\nquit\n"


def daemon_sends(world):
    marks = [(user, user.log_mark()) for user in world.users]
    world.daemon.stop()
    try:
        world.container.run("sh", "-c", f"printf '{CALLS_TO_AGENTS}' | velmdaemon-sim --patience 30000")
    finally:
        world.daemon.start()
    for user, mark in marks:
        user.wait_for_messages(mark, CONNECTED, "agent: incomming message", "xpc service: received log level: 3",
                               "agent: incomming message")
        user.wait_until_linked()


def links(world):
    marks = [(user, user.log_mark()) for user in world.users]
    since = world.daemon.mark()
    world.daemon.start()
    for user, mark in marks:
        user.wait_for_messages(mark, "xpc: connection is established: 1", CONNECTED)
        user.wait_until_linked()
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
    marks = [(user, user.log_mark()) for user in world.users]
    world.daemon.start()
    return linked_after(world, marks, time.monotonic())


def daemon_crashes(world):
    marks = [(user, user.log_mark()) for user in world.users]
    pid = world.daemon.pid()
    world.container.run("systemctl", "kill", "--kill-whom=main", "--signal=KILL", UNIT)
    try:
        wait_until(lambda: world.daemon.is_active() and world.daemon.pid() not in (0, pid),
                   "systemd restarted the daemon")
        return linked_after(world, marks, time.monotonic())
    finally:
        world.daemon.start()
