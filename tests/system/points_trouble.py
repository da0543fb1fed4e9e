"""Full logs, full disks, homes that cannot be written."""

import datetime

from container import wait_until
from users import UNIT, User

ROTATION_SIZE = 6000000
FAILURE = "[ERROR] Failed to create or open log file at path = "


def points(report, world):
    report.check("an agent that crashed is started again, and links again", crash, world)
    report.check("full logs become three backups, the oldest goes, with the same owner and mode", rotation, world)
    report.check("a home that cannot be written: one line in the system log, and the agent works", closed_home, world)
    report.check("a home on a read-only file system: the same", read_only_home, world)
    report.check("a full disk at start: the agent works without its log", full_disk, world)
    report.check("a home that vanishes: the agent works on, also when it is started anew", vanished_home, world)
    report.check("a program replaced, and then removed, under the agents that run it: they go on", replaced_program, world)
    report.check("a log directory that its user made is left as it is", own_log_directory, world)


def crash(world):
    pid, mark = world.bob.wait_for_agent(), world.bob.log_mark()
    crashed = now_in_the_log(world.bob)
    world.bob.systemctl("kill", "--kill-whom=main", "--signal=SEGV", UNIT)
    world.bob.wait_for_agent(other_than=pid, cap=60)
    world.bob.wait_for_messages(mark, "velmmonitord started", "Monitor launcher: connected came")
    seconds = (world.bob.stamps("velmmonitord started", mark)[0] - crashed).total_seconds()
    assert 5 <= seconds < 20, f"started again after {seconds} s"
    cores = world.container.run("find", "/home/bob", "/var/lib/systemd", "-type", "f", "-name", "core*", check=False)
    assert not cores.strip(), cores
    return f"after {seconds:.1f} s"


def now_in_the_log(user):
    """The present time as the user's log would give it."""
    zone = user.container.run("date", "+%Y/%m/%d %H:%M:%S:%3N").strip()
    return datetime.datetime.strptime(zone, "%Y/%m/%d %H:%M:%S:%f")


def rotate(user, filler):
    """Lets the user's log grow over its size; returns what it was."""
    user.systemctl("stop", UNIT)
    line = filler * 99 + b"\n"
    with open(user.log_path(), "ab") as log:
        while log.tell() <= ROTATION_SIZE - len(line):
            log.write(line)
    full = user.log_path().read_bytes()
    user.systemctl("start", UNIT)
    backup = user.log_path("1")
    # It exists, empty, before the log is copied into it.
    wait_until(lambda: backup.exists() and backup.stat().st_size >= len(full) and backup.read_bytes().startswith(full),
               "the backup was made")
    user.wait_for_messages(0, "Monitor launcher: connected came")
    return full


def rotation(world):
    alice = world.alice
    texts = [rotate(alice, filler) for filler in (b"1", b"2", b"3", b"4")]
    for backup, text in zip(("1", "2", "3"), reversed(texts)):
        assert alice.log_path(backup).read_bytes().startswith(text), f"backup {backup} is not what the log was"
    assert not alice.log_path("4").exists(), "a fourth backup"
    assert alice.log_path().stat().st_size < 100000
    for path in (alice.log_path(), *(alice.log_path(backup) for backup in ("1", "2", "3"))):
        assert alice.ownership(path) == f"{alice.uid}:{alice.uid} 0600", (path, alice.ownership(path))


def linked_quietly(world, user, since):
    """The agent runs since its first start and has reported to the daemon."""
    user.wait_for_agent()
    world.daemon.wait_for(user, since, "connect")
    assert user.systemctl("show", "--property=NRestarts", "--value", UNIT).strip() == "0"


def works_without_its_log(world, user):
    since = world.daemon.mark()
    session = user.log_in()
    linked_quietly(world, user, since)
    assert not user.log_path().exists()
    expect_failure(world, user)
    session.logout()


def closed_home(world):
    frank = User(world.container, "frank")
    world.container.run("chown", "root:root", "/home/frank")
    works_without_its_log(world, frank)


def read_only_home(world):
    ruth = User(world.container, "ruth")
    home = "/home/ruth"
    world.container.run("mount", "--bind", home, home)
    world.container.run("mount", "-o", "remount,bind,ro", home)
    assert not ruth.container.succeeds("touch", f"{home}/file")
    works_without_its_log(world, ruth)


def system_log(world, user):
    """What the user's agents said there."""
    return [line for line in world.container.journal("--identifier=velmmonitord") if f"/home/{user.name}/" in line]


def expect_failure(world, user):
    """One line there; it may come after what the daemon says, which is written by another way."""
    wait_until(lambda: system_log(world, user), f"the system log has a line of {user.name}'s agent")
    assert system_log(world, user) == [FAILURE + f"/home/{user.name}/Library/Logs/velmmonitord.log"]


def tells_the_daemon(world, user, session):
    """For want of a log the daemon says what it was told."""
    world.wait_until_settled(user)
    since = world.daemon.mark()
    for locked, call in ((True, "onScreenLocked YES"), (False, "onScreenLocked NO")):
        session.set_locked_hint(locked)
        world.daemon.wait_for(user, since, call)
    assert world.daemon.received(user, since) == ["onScreenLocked YES", "onScreenLocked NO"]


def vanished_home(world):
    """Removed under its user, as when an account's data are moved or a network's file system is gone."""
    gina = User(world.container, "gina")
    others = {user: user.wait_for_agent() for user in world.users}
    since = world.daemon.mark()
    session = gina.log_in()
    linked_quietly(world, gina, since)
    pid = gina.agent_pid()
    world.container.run("rm", "--recursive", "/home/gina")

    tells_the_daemon(world, gina, session)
    assert gina.agent_pid() == pid, "the agent did not outlive its user's home"
    assert not system_log(world, gina), "a log that was open is no failure"

    since = world.daemon.mark()
    gina.systemctl("restart", UNIT)
    linked_quietly(world, gina, since)
    tells_the_daemon(world, gina, session)
    assert not gina.home.exists(), "the agent made a home"
    expect_failure(world, gina)
    assert {user: user.agent_pid() for user in world.users} == others, "another user's agent was touched"
    session.logout()


PROGRAM = "/usr/sbin/velmmonitord"


def replaced_program(world):
    """As while an upgrade is on its way, or after somebody has cleared up."""
    run = world.container.run
    before = {user: user.wait_for_agent() for user in world.users}
    run("cp", "--preserve", PROGRAM, PROGRAM + ".kept")
    try:
        for change in (f"cp --preserve {PROGRAM}.kept {PROGRAM}.new && mv {PROGRAM}.new {PROGRAM}", f"rm {PROGRAM}"):
            run("sh", "-c", change)
            tells_the_daemon(world, world.alice, world.alices_session)
            marks, since = [(user, user.log_mark()) for user in world.users], world.daemon.mark()
            world.daemon.stop()
            world.daemon.start()
            for user, mark in marks:
                user.wait_for_messages(mark, "Monitor launcher: disconnected came", "Monitor launcher: connected came")
                world.daemon.wait_for(user, since, "connect")
            assert {user: user.agent_pid() for user in world.users} == before, "an agent was touched"
    finally:
        run("mv", PROGRAM + ".kept", PROGRAM)


def full_disk(world):
    dave = User(world.container, "dave")
    world.container.run("mount", "-t", "tmpfs", "-o", f"size=64k,mode=0755,uid={dave.uid},gid={dave.uid}", "tmpfs",
                        "/home/dave")
    world.container.run("dd", "if=/dev/zero", "of=/home/dave/filler", "bs=4k", user=dave, check=False)
    since = world.daemon.mark()
    session = dave.log_in()
    linked_quietly(world, dave, since)
    size = dave.run("sh", "-c", "stat -c %s ~/Library/Logs/velmmonitord.log 2>/dev/null || echo none").strip()
    assert size in ("0", "none"), size
    session.logout()


def own_log_directory(world):
    erin = User(world.container, "erin")
    directory = erin.log_path().parent
    directory.mkdir(parents=True)
    world.container.run("chown", "-R", "erin:erin", "/home/erin/Library")
    directory.chmod(0o755)
    session = erin.log_in()
    erin.wait_for_agent()
    erin.wait_for_messages(0, "velmmonitord started")
    assert erin.ownership(directory) == f"{erin.uid}:{erin.uid} 0755", erin.ownership(directory)
    assert erin.ownership(erin.log_path()) == f"{erin.uid}:{erin.uid} 0600"
    session.logout()
