"""Packages and many users: what one user's manager does decides over nobody else.

Every user gets the odd state once, so that it is met first, in the middle and last."""

import re
import time

from container import CommandFailed
from users import UNIT, User

PLACES = ("first", "in the middle", "last")
# Each user has 10 s, which the line about one that hangs says; the rest is apt's own work, which a busy machine lets
# take longer, but not for ever.
UPGRADE_CAP = 110


def points(report, world):
    for place, user in zip(PLACES, world.users):
        report.check(f"an upgrade with one user's agent masked ({place}) renews the others'", masked, world, user)
        report.check(f"an upgrade with one user's manager hung ({place}) renews the others'", hung, world, user)
    report.check("an upgrade with one user's unit broken renews the others', and names that user", broken, world)
    report.check("an upgrade while a user logs out renews the others', and complains of nobody", leaving, world)
    report.check("an upgrade without session buses renews every agent", without_session_buses, world)
    report.check("two package operations at once: the second is refused in words, and touches no agent", at_once, world)
    report.check("disabled for all users: an upgrade starts no agent, and renews those that run", disabled, world)


def complaints(text):
    return [line for line in text.splitlines() if line.startswith("velmmonitord: ")]


def too_busy(world, text, odd):
    """What it says of managers that had not done it within their 10 s; none if it says anything else, but of `odd`."""
    lines = [line for line in complaints(text) if odd is None or f"agent of {odd.name}: " not in line]
    late = tuple(f"velmmonitord: could not renew the agent of {user.name}: no answer" for user in world.users)
    return lines if all(line.startswith(late) for line in lines) else []


def reinstall(world, odd=None):
    """Installs the present version again, as an upgrade does; returns what it said. It is to complain of `odd` alone.

    A busy machine may hold up a manager for its 10 s, which is no fault of the package's, but not twice."""
    text = install_again(world)
    lines = too_busy(world, text, odd)
    if lines:
        print("       | once more, after", "; ".join(lines), flush=True)
        text = install_again(world)
    return text


def install_again(world):
    began = time.monotonic()
    text = world.container.run("apt-get", "--quiet", "--yes", "install", "--reinstall",
                               *world.package_files("current"), env={"DEBIAN_FRONTEND": "noninteractive"})
    took = time.monotonic() - began
    assert took < UPGRADE_CAP, f"one user held everybody up: {took:.0f} s"
    status = world.container.run("dpkg-query", "--show", "--showformat=${Status}", "velmmonitord")
    assert status == "install ok installed", status
    return text


def others(world, odd):
    return [user for user in world.users if user is not odd]


def pids(users):
    return {user: user.wait_for_agent() for user in users}


def all_renewed(before):
    for user, pid in before.items():
        user.wait_for_agent(other_than=pid)


def masked(world, odd):
    odd.systemctl("mask", "--now", UNIT)
    try:
        before = pids(others(world, odd))
        text = reinstall(world)
        all_renewed(before)
        assert odd.agent_pid() == 0, "a masked agent runs"
        assert "velmmonitord: " not in text, text
    finally:
        # As the pages say to get it back.
        odd.systemctl("unmask", UNIT)
        odd.systemctl("start", UNIT)


class Hung:
    """A user's service manager that answers nobody."""

    def __init__(self, user):
        self._user = user

    def _signal(self, name):
        self._user.container.run("systemctl", "kill", f"--signal={name}", "--kill-whom=main",
                                 f"user@{self._user.uid}.service")

    def __enter__(self):
        self._signal("STOP")

    def __exit__(self, *_):
        self._signal("CONT")


def hung(world, odd):
    before = pids(others(world, odd))
    pid = odd.wait_for_agent()
    with Hung(odd):
        text = reinstall(world, odd)
        all_renewed(before)
    lines = complaints(text)
    assert len(lines) == 1 and f"agent of {odd.name}: no answer" in lines[0], text
    assert "within 10 s" in lines[0] and "next login" in lines[0], text
    odd.wait_for_agent()
    return "its own goes on" if odd.agent_pid() == pid else "its own was renewed when it answered again"


def broken(world):
    odd = world.bob
    drop_in = f"/home/{odd.name}/.config/systemd/user/{UNIT}.d"
    odd.run("mkdir", "-p", drop_in)
    odd.run("sh", "-c", f"printf '[Service]\\nExecStart=\\nExecStart=/nonexistent\\n' >{drop_in}/broken.conf")
    try:
        before = pids(others(world, odd))
        text = reinstall(world, odd)
        all_renewed(before)
        assert f"agent of {odd.name}: the user's service manager refused" in text, text
    finally:
        odd.run("rm", "-r", drop_in)
        odd.systemctl("daemon-reload")
        odd.systemctl("restart", UNIT)
    odd.wait_for_agent()


# What the next start of the agent does to its user's manager, and what keeps that from ending at once.
LEAVES = r"""
mkdir -p ~/.config/systemd/user/velmmonitord.service.d
cd ~/.config/systemd/user
printf '[Service]\nExecStartPre=systemctl --user --no-block exit\nExecStartPre=sleep 10\n' >velmmonitord.service.d/leave.conf
printf '[Service]\nExecStart=sleep infinity\nExecStop=sleep 8\n' >slow.service
systemctl --user daemon-reload
systemctl --user start slow.service
"""


def leaving(world):
    """The manager takes the question and is ending when it is to answer."""
    hugo = User(world.container, "hugo")
    session = hugo.log_in()
    hugo.wait_for_agent()
    hugo.run("sh", "-c", LEAVES)
    before = pids(world.users)
    text = reinstall(world)
    all_renewed(before)
    assert "velmmonitord: " not in text, text
    assert hugo.agent_pid() == 0, "the user did not leave"
    session.logout()


def stop_session_bus(user):
    """As on a system without dbus-user-session: only the manager's private socket is left."""
    user.systemctl("stop", "dbus.socket", "dbus.service", "dbus-broker.service", check=False)
    user.container.run("rm", "-f", f"/run/user/{user.uid}/bus")
    assert not user.succeeds("busctl", "--user", "list"), "there still is a session bus"


def start_session_bus(user):
    user.systemctl("start", "dbus.socket", check=False)


def without_session_buses(world):
    before = pids(world.users)
    for user in world.users:
        stop_session_bus(user)
    try:
        text = reinstall(world)
        all_renewed(before)
        assert "velmmonitord: " not in text, text
    finally:
        for user in world.users:
            start_session_bus(user)


GO_ON = "/run/velmtest-go-on"


def at_once(world):
    """While an upgrade holds the lock of the packages, just before its first."""
    container, packages = world.container, world.package_files("current")
    container.run("rm", "--force", GO_ON)
    before = pids(world.users)
    first = container.open("apt-get", "--quiet", "--yes", "install", "--reinstall", *packages, "--option",
                           f"DPkg::Pre-Invoke::=echo waiting; until [ -e {GO_ON} ]; do sleep 0.1; done",
                           env={"DEBIAN_FRONTEND": "noninteractive"})
    try:
        said = []
        while not said or said[-1] not in ("waiting\n", ""):
            said.append(first.stdout.readline())
        assert said[-1], "".join(said)
        for second in (("apt-get", "--yes", "install", "--reinstall", *packages),
                       ("apt-get", "--yes", "remove", "velmmonitord"),
                       ("dpkg", "--install", *packages), ("dpkg", "--remove", "velmmonitord")):
            refused(container, second)
        assert {user: user.agent_pid() for user in world.users} == before, "an operation that was refused touched agents"
    finally:
        container.run("touch", GO_ON)
        rest, _ = first.communicate(timeout=300)
        container.run("rm", "--force", GO_ON)
    assert first.returncode == 0, rest
    all_renewed(before)


def refused(container, command):
    try:
        text = container.run(*command, env={"DEBIAN_FRONTEND": "noninteractive"})
    except CommandFailed as error:
        assert re.search(r"lock.* (held|locked) by .*process", str(error)), error
    else:
        raise AssertionError(f"{command} was not refused: {text}")


def disabled(world):
    world.container.run("systemctl", "--global", "disable", UNIT)
    stopped = world.carol
    try:
        # Running agents go on: each is stopped by its user, or with them all by the helper.
        running = pids(others(world, stopped))
        stopped.systemctl("stop", UNIT)
        reinstall(world)
        state = world.container.run("systemctl", "--global", "is-enabled", UNIT, check=False).strip()
        assert state == "disabled", state
        all_renewed(running)
        assert stopped.agent_pid() == 0, "an agent that is not enabled was started"
    finally:
        # The documented way back.
        world.container.run("systemctl", "--global", "enable", UNIT)
        world.container.run("/usr/libexec/velmmonitord/user-agents", "refresh")
    stopped.wait_for_agent()
