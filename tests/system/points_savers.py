"""Desktops that tell of a lock only on the session bus."""

import contextlib

from points_events import LOCKED, UNLOCKED

SAVERS = (("MATE", "org.mate.ScreenSaver", "/org/mate/ScreenSaver"),
          ("Cinnamon", "org.cinnamon.ScreenSaver", "/org/cinnamon/ScreenSaver"),
          ("Xfce", "org.xfce.ScreenSaver", "/org/xfce/ScreenSaver"))
PROGRAM = "/usr/local/lib/velmtest-saver.py"


def points(report, world):
    for desktop, name, path in SAVERS:
        report.check(f"{desktop}'s saver on the session bus: one lock, one unlock", lock_by_saver, world, name, path)
    report.check("a saver that vanishes while it is active counts as an unlock", vanishes, world)


@contextlib.contextmanager
def running_saver(world, user, name, path):
    program = world.container.path(PROGRAM)
    program.write_text((world.here / "saver.py").read_text())
    saver = world.container.open("/usr/bin/python3", PROGRAM, name, path, user=user, env=user.environment())
    try:
        assert saver.stdout.readline() == "ready\n", saver.stdout.read()
        # The agent asks a new saver for its state before it believes its signals.
        assert saver.stdout.readline() == "asked\n", saver.stdout.read()
        yield lambda command: print(command, file=saver.stdin, flush=True)
    finally:
        saver.stdin.close()
        saver.wait(timeout=30)
        program.unlink()


def lock_by_saver(world, name, path):
    # Of a user none of whose sessions has set the hint: that one would count alone.
    user = world.carol
    user.wait_until_linked()
    world.wait_until_settled(user)
    mark, since = user.log_mark(), world.daemon.mark()
    with running_saver(world, user, name, path) as say:
        say("on")
        user.wait_for_messages(mark, *LOCKED)
        world.daemon.wait_for(user, since, "onScreenLocked YES")
        say("off")
        user.wait_for_messages(mark, *LOCKED, *UNLOCKED)
        world.daemon.wait_for(user, since, "onScreenLocked NO")
    assert tuple(user.messages(mark)) == LOCKED + UNLOCKED, user.messages(mark)


def vanishes(world):
    user = world.carol
    user.wait_until_linked()
    # Only somebody with a screen is unlocked by a locker that is gone.
    screen = user.log_in_graphically(":9", "/usr/bin/sleep", "infinity")
    try:
        mark = user.log_mark()
        with running_saver(world, user, *SAVERS[0][1:]) as say:
            say("on")
            user.wait_for_messages(mark, *LOCKED)
        user.wait_for_messages(mark, *LOCKED, *UNLOCKED)
    finally:
        screen.logout()
