"""Installing, upgrading, removing."""

import json
import os
import stat
import xml.etree.ElementTree as ElementTree

import points_users
from container import wait_until
from users import UNIT, User


def install_points(report, world):
    check = report.check
    check("three users and a system without the agent", prepare, world)
    check("installing while a user is logged in starts the agent for that user", install_for_logged_in_user, world)
    check("the stand-in is neither started nor enabled by installing it", stand_in_waits, world)
    check("the agent starts by itself at login", agent_starts_at_login, world)
    check("an account of the system gets no agent", no_agent_for_system_accounts, world)
    check("an upgrade restarts the agents and the daemon, and keeps the logs", upgrade, world)
    check("a new user's log directory has mode 0700, the log 0600, both their user's", log_is_private, world)
    check("installing the same version again changes nothing for the users", install_twice, world)
    check("systemd finds nothing wrong with the units", units_verify, world)
    check("the agent's unit as its user's service manager sees it", security_figure, world)
    check("the interface descriptions are what the programs answer to introspection", interfaces_match, world)


def removal_points(report, world):
    report.check("removal stops every agent and the daemon, without session buses, and with a manager that hangs", remove, world)
    report.check("purging leaves nothing behind but the users' logs", purge, world)


def installation_without_users(report, world):
    report.check("installing with nobody logged in; the agent starts at the next login", install_then_log_in, world)


def prepare(world):
    world.add_users()
    world.files_before = system_files(world.container)
    world.alices_session = world.alice.log_in()


def install_for_logged_in_user(world):
    world.apt("install", *world.package_files("previous"))
    world.alice.wait_for_agent()
    assert world.alice.ownership(world.alice.log_path().parent).endswith(" 0755"), "that is not the previous version"
    world.alice.wait_for_messages(0, "velmmonitord started", "Monitor launcher is running")


def stand_in_waits(world):
    assert not world.daemon.is_active()
    assert "disabled" in world.container.run("systemctl", "is-enabled", "velmdaemon-sim.service", check=False)
    assert "Monitor launcher: connected came" not in world.alice.messages()


def agent_starts_at_login(world):
    assert not world.bob.log_path().exists()
    world.bobs_session = world.bob.log_in()
    world.bob.wait_for_agent()
    world.bob.wait_for_messages(0, "velmmonitord started", "Screen lock monitor is running",
                                "Time zone change monitor is running")
    world.carols_session = world.carol.log_in()
    world.carol.wait_for_agent()


def log_is_private(world):
    # Of somebody whom no older version has served.
    dora = User(world.container, "dora")
    session = dora.log_in()
    dora.wait_for_messages(0, "velmmonitord started")
    own, log = f"{dora.uid}:{dora.uid}", dora.log_path()
    for directory in (log.parent.parent, log.parent):
        assert dora.ownership(directory) == f"{own} 0700", dora.ownership(directory)
    assert dora.ownership(log) == f"{own} 0600", dora.ownership(log)
    session.logout()


def no_agent_for_system_accounts(world):
    greeter = User(world.container, "greeter", system=True)
    session = greeter.log_in()
    if session.show("Class") == "user":
        state = wait_until(lambda: skipped_state(greeter), "the greeter's manager has looked at the unit")
        assert state == "no", state
    # From systemd 256 on such a session may have no manager at all.
    assert greeter.agent_pid() == 0
    assert not greeter.log_path().parent.exists()
    session.logout()


def skipped_state(user):
    lines = user.systemctl("show", "--property=ConditionTimestampMonotonic,ConditionResult", UNIT, check=False)
    shown = dict(line.split("=", 1) for line in lines.splitlines() if "=" in line)
    if shown.get("ConditionTimestampMonotonic", "0") == "0":
        return None
    return shown["ConditionResult"]


def upgrade(world):
    world.daemon.start()
    before = {}
    for user in world.users:
        user.wait_for_messages(0, "Monitor launcher: connected came")
        before[user] = (user.agent_pid(), user.log_path().read_bytes(), user.log_mark())
    daemon = world.daemon.pid()

    world.apt("install", *world.package_files("current"))

    wait_until(lambda: world.daemon.is_active() and world.daemon.pid() not in (0, daemon), "the daemon was restarted")
    for user, (pid, log, mark) in before.items():
        user.wait_for_agent(other_than=pid)
        user.wait_for_messages(mark, "velmmonitord started", "Monitor launcher: connected came")
        assert user.log_path().read_bytes().startswith(log), f"{user.name}'s log lost its old lines"
        description = user.systemctl("show", "--property=Description", "--value", UNIT).strip()
        assert description == "Velm monitor agent", f"{user.name}'s manager still has the unit of the {description!r}"
    assert world.container.run("dpkg-query", "--show", "--showformat=${Version}", "velmmonitord") != "0.9.0"
    mode = stat.S_IMODE(world.container.path(f"usr/lib/systemd/user/{UNIT}").stat().st_mode)
    assert mode == 0o644, f"the unit still has the mode {mode:04o}"
    world.daemon.stop()


def install_twice(world):
    world.apt("install", "--reinstall", *world.package_files("current"))
    for user in world.users:
        user.wait_for_agent()
    enabled = world.container.run("systemctl", "--global", "is-enabled", UNIT).strip()
    assert enabled == "enabled", enabled


def units_verify(world):
    for mode, unit in (("--user", UNIT), ("--system", "velmdaemon-sim.service")):
        output = world.container.run("systemd-analyze", mode, "--man=no", "verify",
                                     f"/usr/lib/systemd/{mode[2:]}/{unit}", env={"XDG_RUNTIME_DIR": "/run"})
        assert not output.strip(), output


def security_figure(world):
    lines = world.alice.run("systemd-analyze", "--user", "--no-pager", "security", UNIT, check=False).splitlines()
    figure = next(line for line in lines if "Overall exposure level" in line)
    return figure.split("Overall exposure level for ")[-1].strip()


def interface_of(xml, name):
    """An interface of an introspection document as plain values, whatever their layout."""
    for interface in ElementTree.fromstring(xml).iter("interface"):
        if interface.get("name") == name:
            return [(member.tag, sorted(member.attrib.items()),
                     [(part.tag, sorted(part.attrib.items())) for part in member]) for member in interface]
    raise AssertionError(f"no interface {name} in {xml}")


def described(world, name):
    return interface_of(world.container.path(f"usr/share/dbus-1/interfaces/{name}.xml").read_text(), name)


INTROSPECT = ("org.freedesktop.DBus.Introspectable", "Introspect")

# The bus policy lets nobody introspect an agent on the system bus, and the agent only root, so it is asked on a bus of
# root's own.
AGENT_ON_PRIVATE_BUS = """
export HOME=$(mktemp -d)
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$HOME/bus
dbus-daemon --session --nofork --address=$DBUS_SYSTEM_BUS_ADDRESS & bus=$!
trap 'kill $agent $bus; rm -rf "$HOME"' EXIT
until [ -S $HOME/bus ]; do sleep 0.1; done
/usr/sbin/velmmonitord >/dev/null & agent=$!
for attempt in $(seq 100); do
    for name in $(busctl --list --unique | sed -n 's/^\\(:[0-9.]*\\).*/\\1/p'); do
        busctl call --timeout=2 --json=short $name /com/brovik/velmmonitord \\
            org.freedesktop.DBus.Introspectable Introspect 2>/dev/null | grep XpcAgentProtocol && exit 0
    done
    sleep 0.1
done
exit 1
"""


def interfaces_match(world):
    def text_of(answer):
        return json.loads(answer)["data"][0]

    world.daemon.start()
    daemon = world.container.run("busctl", "call", "--json=short", "com.brovik.velmdaemon", "/com/brovik/velmdaemon",
                                 *INTROSPECT)
    world.daemon.stop()
    answers = {"com.brovik.XpcDaemonProtocol": daemon,
               "com.brovik.XpcAgentProtocol": world.container.run("bash", "-c", AGENT_ON_PRIVATE_BUS).splitlines()[-1]}
    for name, answer in answers.items():
        assert described(world, name) == interface_of(text_of(answer), name), f"{name} differs: {text_of(answer)}"


def running_agents(world):
    """Not those that have ended and wait for a manager that hangs to take note; they have no program any more."""
    links = world.container.run("sh", "-c", "ls -l /proc/[0-9]*/exe 2>/dev/null || true").splitlines()
    return [link for link in links if "/velmmonitord" in link]


def remove(world):
    """With everything in its way: no session bus, and a manager that hangs."""
    world.daemon.start()
    for user in world.users:
        user.wait_for_agent()
        points_users.stop_session_bus(user)
    with points_users.Hung(world.bob):
        world.apt("remove", "velmmonitord", "velmdaemon-sim")
        wait_until(lambda: not running_agents(world), "no agent is left")
    for user in world.users:
        wait_until(lambda: user.agent_pid() == 0, f"{user.name}'s agent was stopped")
        assert user.log_path().exists()
    assert not world.daemon.is_active()
    processes = set(world.container.programs())
    assert not {"velmmonitord", "velmdaemon-sim"} & processes, processes


def purge(world):
    world.apt("purge", "velmmonitord", "velmdaemon-sim")
    left = sorted(system_files(world.container) - world.files_before)
    assert not left, "left behind: " + ", ".join(left)
    for user in world.users:
        names = {path.name for path in user.log_path().parent.iterdir()}
        assert all(name.startswith("velmmonitord.log") for name in names), names


# What every package leaves there, and what running the system changes.
NOT_OURS = ("proc", "sys", "dev", "run", "tmp", "home", "root", "var/tmp", "var/log", "var/cache", "var/lib/apt",
            "var/lib/dpkg", "var/lib/systemd/random-seed", "var/lib/systemd/timers", "var/lib/systemd/coredump",
            "var/lib/private", "etc/.pwd.lock", "etc/passwd-", "etc/shadow-", "etc/group-", "etc/gshadow-",
            "etc/subuid-", "etc/subgid-", "etc/adjtime")


def system_files(container):
    """Every file of the system itself."""
    found = set()
    for directory, subdirectories, files in os.walk(container.root):
        inside = os.path.relpath(directory, container.root)
        subdirectories[:] = [d for d in subdirectories if os.path.normpath(f"{inside}/{d}") not in NOT_OURS]
        found.update(os.path.normpath(f"{inside}/{name}") for name in subdirectories + files)
    return {path for path in found if path not in NOT_OURS}


def install_then_log_in(world):
    marks = {user: user.log_mark() for user in world.users}
    world.apt("install", *world.package_files("current"))
    world.alices_session, world.bobs_session = world.alice.log_in(), world.bob.log_in()
    world.carols_session = world.carol.log_in()
    for user, mark in marks.items():
        user.wait_for_agent()
        user.wait_for_messages(mark, "velmmonitord started")
