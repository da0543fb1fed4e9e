"""Screen locks and time zone changes, from the real services that tell of them."""

import datetime
import time

from container import wait_until

LOCKED = ("Screen lock monitor: User's screen was locked", "Monitor launcher: screen lock status 1",
          "xpc service monitor: sending lock screen status")
UNLOCKED = ("Screen lock monitor: User's screen was unlocked", "Monitor launcher: screen lock status 0",
            "xpc service monitor: sending lock screen status")
ZONE = ("Timezone changed notification came", "Monitor launcher: time zone notification signaled",
        "xpc service monitor: sending time zone changed notification")
ANOTHER_ZONE, ANOTHER_OFFSET = "Asia/Tokyo", datetime.timedelta(hours=9)


def points(report, world):
    report.check("a lock and an unlock by the session's own hint, as loginctl shows it", hint, world)
    report.check("another user's lock is that user's alone", other_users_lock, world)
    report.check("a request to lock is no lock", request_is_no_lock, world)
    # An X server that outlives its session, where a point fails, is in nobody's way.
    for display, command in enumerate(LOCKERS, start=7):
        report.check(f"a real locker, unlocked with the password: {command}", real_locker, world, command, f":{display}")
    report.check("a lock beside a session that ended while locked and is still closing", closing_session, world)
    report.check("timedatectl set-timezone: told once, and the log goes on in the new zone", time_zone, world)
    report.check("logind restarted: no event by itself, the next lock is seen", logind_restarted, world)
    report.check("logout and login within seconds: the agent goes on with the new session", quick_relogin, world)
    report.check("last logout stops the agent, the next login starts it, the log goes on", full_relogin, world)


def short_points(report, world):
    report.check("a lock and an unlock by the session's own hint, as loginctl shows it", hint, world)
    report.check("another user's lock is that user's alone", other_users_lock, world)
    report.check("timedatectl set-timezone: told once, and the log goes on in the new zone", time_zone, world)
    report.check("logind restarted: no event by itself, the next lock is seen", logind_restarted, world)


def lock_and_unlock(world, user, session):
    """One lock and one unlock of `user`, from the hint to the daemon; nothing but that is in the log since."""
    world.wait_until_settled(user)
    mark, since = user.log_mark(), world.daemon.mark()
    expect_lock_and_unlock(world, user, session, mark, since)


def expect_lock_and_unlock(world, user, session, mark, since):
    session.set_locked_hint(True)
    try:
        assert session.show("LockedHint") == "yes"
        user.wait_for_messages(mark, *LOCKED)
        world.daemon.wait_for(user, since, "onScreenLocked YES")
    finally:
        session.set_locked_hint(False)
    assert session.show("LockedHint") == "no"
    user.wait_for_messages(mark, *LOCKED, *UNLOCKED)
    world.daemon.wait_for(user, since, "onScreenLocked NO")
    assert tuple(user.messages(mark)) == LOCKED + UNLOCKED, user.messages(mark)
    assert world.daemon.received(user, since) == ["onScreenLocked YES", "onScreenLocked NO"]


def hint(world):
    lock_and_unlock(world, world.alice, world.alices_session)


def other_users_lock(world):
    mark, since = world.alice.log_mark(), world.daemon.mark()
    lock_and_unlock(world, world.bob, world.bobs_session)
    # Her own next lock comes after his on the same bus: by then his would have been seen.
    expect_lock_and_unlock(world, world.alice, world.alices_session, mark, since)


def request_is_no_lock(world):
    mark, since = world.alice.log_mark(), world.daemon.mark()
    world.container.run("loginctl", "lock-session", world.alices_session.number)
    world.container.run("loginctl", "unlock-session", world.alices_session.number)
    expect_lock_and_unlock(world, world.alice, world.alices_session, mark, since)


PASSWORD = "opensesame"
LOCK_KEY = "usr/local/bin/velmtest-lock-key"
# As docs/operations.md gives them. The last two lockers go into the background.
LOCKERS = ("xss-lock -- i3lock --nofork", "xss-lock -- velm-locked-hint -- i3lock", "velm-locked-hint -- i3lock")
MANUAL = "usr/share/doc/velmmonitord/operations.md"
GRAPHICAL_SESSION = """#!/bin/sh
Xvfb $DISPLAY -screen 0 320x240x24 -nolisten tcp -noreset &
until xdotool getdisplaygeometry; do sleep 0.1; done
%s
"""


def real_locker(world, command, display):
    assert f"`{command}`" in world.container.path(MANUAL).read_text(), "the documents give another command"
    by_request = command.startswith("xss-lock")
    program = world.container.path("usr/local/bin/velmtest-session")
    key = world.container.path(LOCK_KEY)
    by_key = f"until [ -e /{LOCK_KEY} ]; do sleep 0.2; done\n{command}\nexec sleep infinity"
    program.write_text(GRAPHICAL_SESSION % (f"exec {command}" if by_request else by_key))
    program.chmod(0o755)
    world.container.run("sh", "-c", f"echo '{world.alice.name}:{PASSWORD}' | chpasswd")
    session = world.alice.log_in_graphically(display, "/usr/local/bin/velmtest-session")
    try:
        wait_until(lambda: "Xvfb" in world.container.programs(), "the X server runs")
        if by_request:
            wait_until(lambda: "xss-lock" in world.container.programs(), "xss-lock runs")
            lock_by_locker(world, session, display, lambda: world.container.run("loginctl", "lock-session", session.number))
        else:
            lock_by_locker(world, session, display, key.touch)
    finally:
        world.container.run("loginctl", "terminate-session", session.number)
        program.unlink()
        key.unlink(missing_ok=True)
    wait_until(lambda: "Xvfb" not in world.container.programs(), "the graphical session has ended")


def lock_by_locker(world, session, display, lock):
    mark, since = world.alice.log_mark(), world.daemon.mark()
    def lock_seen():
        # xss-lock listens a moment after it has started.
        if "i3lock" not in world.container.programs():
            lock()
        time.sleep(1)
        return session.show("LockedHint") == "yes"
    wait_until(lock_seen, "the locker told logind of the lock")
    world.alice.wait_for_messages(mark, *LOCKED)
    world.daemon.wait_for(world.alice, since, "onScreenLocked YES")
    wait_until(lambda: "i3lock" in world.container.programs(), "the locker runs")
    # Nothing says that it was unlocked while the locker runs in the background.
    time.sleep(1)
    assert tuple(world.alice.messages(mark)) == LOCKED, world.alice.messages(mark)

    def unlocked():
        world.alice.run("xdotool", "type", PASSWORD, env={"DISPLAY": display})
        world.alice.run("xdotool", "key", "Return", env={"DISPLAY": display})
        time.sleep(1)
        return "i3lock" not in world.container.programs()
    wait_until(unlocked, "the password unlocks the screen")
    world.alice.wait_for_messages(mark, *LOCKED, *UNLOCKED)
    world.daemon.wait_for(world.alice, since, "onScreenLocked NO")
    assert tuple(world.alice.messages(mark)) == LOCKED + UNLOCKED, world.alice.messages(mark)


def closing_session(world):
    """Debian lets processes outlive their session, which then stays, with the hint that it had."""
    program = world.container.path("usr/local/bin/velmtest-session")
    started = world.alice.home / "velmtest-started"
    program.write_text(f"#!/bin/sh\nsetsid sleep infinity &\ntouch ~/{started.name}\nexec sleep infinity\n")
    program.chmod(0o755)
    session = world.alice.log_in_graphically(":6", "/usr/local/bin/velmtest-session")
    try:
        # A session without a process is not closing but gone.
        wait_until(started.exists, "the session has the process that outlives it")
        mark = world.alice.log_mark()
        session.set_locked_hint(True)
        world.alice.wait_for_messages(mark, *LOCKED)
        world.container.run("systemctl", "stop", session.unit)
        wait_until(lambda: session.show("State") == "closing", "the session is closing")
        assert session.show("LockedHint") == "yes"
        lock_and_unlock(world, world.alice, world.alices_session)
    finally:
        world.container.run("loginctl", "terminate-session", session.number, check=False)
        program.unlink()
        started.unlink(missing_ok=True)


def change_zone(world, users, zone):
    """To another than the present one; returns the users' marks in their logs before it, once all were told."""
    marks = {user: user.log_mark() for user in users}
    since = world.daemon.mark()
    world.container.run("timedatectl", "set-timezone", zone)
    for user in users:
        user.wait_for_messages(marks[user], *ZONE)
        world.daemon.wait_for(user, since, "onTimeZoneChanged")
    return marks


def time_zone(world):
    users = (world.alice, world.bob)
    # From a zone that the test never leaves behind, so that it is a change whatever was there before.
    change_zone(world, users, "America/New_York")
    marks = change_zone(world, users, ANOTHER_ZONE)
    # The same zone again is no change.
    world.container.run("timedatectl", "set-timezone", ANOTHER_ZONE)
    for user, session in ((world.alice, world.alices_session), (world.bob, world.bobs_session)):
        session.set_locked_hint(True)
        session.set_locked_hint(False)
        user.wait_for_messages(marks[user], *ZONE, *LOCKED, *UNLOCKED)
        assert tuple(user.messages(marks[user])) == ZONE + LOCKED + UNLOCKED, user.messages(marks[user])
        assert_zone_of_last_line(user)


def assert_zone_of_last_line(user):
    stamp = datetime.datetime.strptime(user.log_lines()[-1][:19], "%Y/%m/%d %H:%M:%S")
    now = datetime.datetime.now(datetime.timezone.utc).replace(tzinfo=None) + ANOTHER_OFFSET
    assert abs(now - stamp) < datetime.timedelta(minutes=10), f"{stamp} is not the time in {ANOTHER_ZONE}, {now}"


def logind_restarted(world):
    """Restarted while the screen is locked: logind forgets that, which is not an unlock."""
    alice, session = world.alice, world.alices_session
    mark = alice.log_mark()
    session.set_locked_hint(True)
    alice.wait_for_messages(mark, *LOCKED)
    mark = alice.log_mark()
    owner = login_owner(world)
    world.container.run("systemctl", "restart", "systemd-logind.service")
    wait_until(lambda: login_owner(world) not in (None, owner), "logind is back")
    mark = lock_until_seen(alice, session, mark)
    session.set_locked_hint(False)
    alice.wait_for_messages(mark, *LOCKED, *UNLOCKED)
    assert tuple(alice.messages(mark)) == LOCKED + UNLOCKED, alice.messages(mark)


def lock_until_seen(user, session, mark):
    """Locks; returns from where in the log nothing but that is seen.

    An agent that looks at the session only now takes the lock over as it finds it, and sees the next one."""
    session.set_locked_hint(True)
    try:
        user.wait_for_messages(mark, *LOCKED, cap=5)
        return mark
    except AssertionError:
        assert not user.messages(mark), user.messages(mark)
    session.set_locked_hint(False)
    user.wait_for_messages(mark, *UNLOCKED)
    mark = user.log_mark()
    session.set_locked_hint(True)
    user.wait_for_messages(mark, *LOCKED)
    return mark


def login_owner(world):
    text = world.container.run("busctl", "call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetNameOwner", "s", "org.freedesktop.login1", check=False)
    return text.split('"')[1] if text.startswith("s ") else None


# For how long a user's manager outlives the last session: logind.conf(5), UserStopDelaySec.
MANAGERS_STAY = 10


def quick_relogin(world):
    for _ in range(3):
        pid, began = world.alice.agent_pid(), time.monotonic()
        world.alices_session.logout()
        world.alices_session = world.alice.log_in()
        took = time.monotonic() - began
        if took < MANAGERS_STAY:
            break
        world.alice.wait_for_agent()  # too slow a machine: the login may have come after the manager's end
    assert took < MANAGERS_STAY, f"no login within {MANAGERS_STAY} s of a logout"
    assert world.alice.agent_pid() == pid, "the agent did not outlive the login"
    lock_and_unlock(world, world.alice, world.alices_session)


def full_relogin(world):
    pid, log, mark = world.bob.agent_pid(), world.bob.log_path().read_bytes(), world.bob.log_mark()
    world.bobs_session.logout()
    wait_until(lambda: no_manager(world.bob), "bob's service manager has ended", cap=60)
    assert not world.container.succeeds("test", "-d", f"/proc/{pid}"), "the agent outlives its user's last logout"
    world.bobs_session = world.bob.log_in()
    world.bob.wait_for_agent()
    world.bob.wait_for_messages(mark, "velmmonitord started", "Monitor launcher: connected came")
    assert world.bob.log_path().read_bytes().startswith(log)


def no_manager(user):
    return user.container.run("systemctl", "is-active", f"user@{user.uid}.service", check=False).strip() == "inactive"


