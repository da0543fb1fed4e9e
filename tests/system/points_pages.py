"""What the administrator's page says, followed to the letter.

Each command is looked up in the page that is installed before it is run, so that page and test stay one."""

import shlex

from container import CommandFailed
from users import UNIT

PAGE = "usr/share/doc/velmmonitord/operations.md"


def points(report, world):
    report.check("the page's way out of `disabled`, and what disabling does to running agents", disabled, world)
    report.check("the page's way out of `masked`", masked, world)
    report.check("the page's way to ask for the daemon when there is none", no_daemon, world)
    report.check("the page's way to learn a running agent's version", version, world)
    report.check("any option starts one more agent, as the manual says", no_options, world)


def page(world):
    """The page's text, its lines joined."""
    return " ".join(world.container.path(PAGE).read_text().split())


def follow(world, command, user=None, check=True):
    assert f"`{command}`" in page(world), f"the page does not say `{command}`"
    words = shlex.split(command)
    return user.run(*words, check=check) if user else world.container.run(*words, check=check)


def disabled(world):
    before = {user: user.wait_for_agent() for user in world.users}
    follow(world, "systemctl --global disable velmmonitord")
    try:
        assert {user: user.agent_pid() for user in world.users} == before, "disabling touched running agents"
        follow(world, "/usr/libexec/velmmonitord/user-agents stop")
        assert not any(user.agent_pid() for user in world.users)
    finally:
        follow(world, "systemctl --global enable velmmonitord")
        follow(world, "/usr/libexec/velmmonitord/user-agents refresh")
    for user in world.users:
        user.wait_for_agent()


def masked(world):
    alice = world.alice
    follow(world, "systemctl --user mask --now velmmonitord", user=alice)
    try:
        assert alice.agent_pid() == 0
        assert "masked" in follow(world, "systemctl --user status velmmonitord", user=alice, check=False)
    finally:
        follow(world, "systemctl --user unmask velmmonitord", user=alice)
        follow(world, "systemctl --user start velmmonitord", user=alice)
    alice.wait_for_agent()


def no_daemon(world):
    world.daemon.stop()
    try:
        text = follow(world, "busctl status com.brovik.velmdaemon")
    except CommandFailed as error:
        text = str(error)
    else:
        raise AssertionError(f"there is a daemon: {text}")
    said = "No such device or address"
    assert said in text and f"`{said}`" in page(world), text


def version(world):
    installed = follow(world, "dpkg-query --show velmmonitord").split()
    assert installed[0] == "velmmonitord" and installed[1], installed
    pid = world.alice.wait_for_agent()
    assert "`ls -l /proc/PID/exe` ends in `(deleted)`" in page(world)
    look = ("ls", "-l", f"/proc/{pid}/exe")
    assert world.container.run(*look).strip().endswith("/usr/sbin/velmmonitord")
    program = "/usr/sbin/velmmonitord"
    # As an upgrade does it, under the running agent, which does not mind.
    world.container.run("sh", "-c", f"cp --preserve {program} {program}.new && mv {program}.new {program}")
    assert world.container.run(*look).strip().endswith("(deleted)")
    assert world.alice.agent_pid() == pid
    world.alice.systemctl("restart", UNIT)
    world.alice.wait_for_agent(other_than=pid)


def no_options(world):
    assert "`velmmonitord --version`, like any other call of it, starts one more agent" in page(world)
    # In the foreground timeout(1) sends one SIGTERM; else two, of which the second may end the agent before it has
    # written what it said.
    said = world.container.run("timeout", "--foreground", "8", "/usr/sbin/velmmonitord", "--version", user=world.bob,
                               env=world.bob.environment(), check=False)
    assert "velmmonitord started" in said and "Monitor launcher is running" in said, said
