"""Who may do what on the system bus."""

import points_events
from container import wait_until
from daemon import INTERFACE, NAME, PATH
from users import AGENT_INTERFACE, AGENT_PATH

DENIED = "Access denied"


def points(report, world):
    report.check("another user can neither call the agent nor look into it", others_call_agent, world)
    report.check("its own user cannot call the agent either", user_calls_agent, world)
    report.check("root is not heard unless it is the daemon", root_calls_agent, world)
    report.check("users can neither own the daemon's name nor call its other interfaces", users_and_daemon, world)
    report.check("any user may call the daemon's own interface", users_call_daemon, world)
    report.check("another user's forged events are not taken for real ones", forgeries, world)


def busctl_error(container, *arguments, user=None):
    """What the bus or the called program says against a call; fails if nothing is said."""
    output = container.run("busctl", "call", "--timeout=10", *arguments, user=user, check=False)
    assert "Call failed" in output, f"{arguments} was not refused: {output!r}"
    return output


CALLS = (("connected", "b", "true"), ("logLevel", "x", "6"), ("putMessage", "ay", "1", "7"))


def refusals(world, user):
    """What each of the agent's connections says to calls of the agent's interface: one answer for each of them.

    Only one is the link; the others, which have nothing to offer, must refuse as well."""
    mark, since = world.alice.log_mark(), world.daemon.mark()
    names = world.alice.agent_names()
    assert len(names) > 1, f"the agent's link and its sources have connections of their own, found {names}"
    answers = [" ".join(busctl_error(world.container, name, AGENT_PATH, AGENT_INTERFACE, *call, user=user)
                        for call in CALLS) for name in names]
    points_events.expect_lock_and_unlock(world, world.alice, world.alices_session, mark, since)
    return answers


def denied_throughout(answers):
    return all(answer.count(DENIED) == len(CALLS) for answer in answers)


def others_call_agent(world):
    answers = refusals(world, world.bob)
    assert denied_throughout(answers), answers
    for name in world.alice.agent_names():
        error = busctl_error(world.container, name, AGENT_PATH, "org.freedesktop.DBus.Introspectable", "Introspect",
                             user=world.bob)
        assert DENIED in error, error


def user_calls_agent(world):
    answers = refusals(world, world.alice)
    assert denied_throughout(answers), answers


def root_calls_agent(world):
    """The bus lets root's calls through, so it is the agent that refuses them."""
    answers = refusals(world, None)
    assert denied_throughout(answers), answers


def users_and_daemon(world):
    for user in (world.alice, world.bob):
        error = busctl_error(world.container, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "RequestName", "su", NAME, "0", user=user)
        assert "not allowed to own" in error or DENIED in error or "denied" in error.lower(), error
        for interface, method in (("org.freedesktop.DBus.Introspectable", "Introspect"),
                                  ("org.freedesktop.DBus.Peer", "Ping")):
            error = busctl_error(world.container, NAME, PATH, interface, method, user=user)
            assert DENIED in error, error


def users_call_daemon(world):
    for user in (world.alice, world.bob):
        answer = world.container.run("busctl", "call", NAME, PATH, INTERFACE, "pingWithReply", user=user)
        assert answer.strip() == "b true", answer


def forgeries(world):
    """Signals sent straight to her agent, which the bus lets through; her own lock after them is all that is seen."""
    mark, since = world.alice.log_mark(), world.daemon.mark()
    daemon = owner_of(world, NAME)
    signals = (
        (world.alices_session.path, "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as",
         "org.freedesktop.login1.Session", "1", "LockedHint", "b", "true", "0"),
        ("/org/freedesktop/login1", "org.freedesktop.login1.Manager", "SessionRemoved", "so",
         world.alices_session.number, world.alices_session.path),
        ("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged", "sss", NAME, daemon, ""),
        ("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged", "sss", "org.freedesktop.login1",
         owner_of(world, "org.freedesktop.login1"), ""))
    sent = 0
    for name in world.alice.agent_names():
        for signal in signals:
            sent += world.container.succeeds("busctl", "emit", f"--destination={name}", *signal, user=world.bob)
    assert sent, "the bus carried none of the forged signals"
    points_events.expect_lock_and_unlock(world, world.alice, world.alices_session, mark, since)
    return f"{sent} signals"


def owner_of(world, name):
    return world.container.run("busctl", "call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetNameOwner", "s", name).split('"')[1]


def boot_with_dbus_daemon(world):
    world.container.boot()
    assert {"dbus-daemon"} == {p for p in world.container.programs() if p.startswith("dbus-")}


def change_to_broker(world):
    container = world.container
    container.run("systemctl", "enable", "dbus-broker.service")
    container.run("systemctl", "--global", "enable", "dbus-broker.service")
    container.stop()
    container.boot()
    wait_until(lambda: container.run("systemctl", "is-active", "dbus-broker.service", check=False).strip() == "active",
               "dbus-broker runs")
    assert "dbus-daemon" not in container.programs()
