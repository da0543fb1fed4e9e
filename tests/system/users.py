"""Users of the booted system: their sessions, their agent and its log."""

import datetime
import json
import re
import stat

from container import wait_until

UNIT = "velmmonitord.service"
LOG = "Library/Logs/velmmonitord.log"
STARTED = "velmmonitord started"
CONNECTED = "Monitor launcher: connected came"
DISCONNECTED = "Monitor launcher: disconnected came"
AGENT_INTERFACE = "com.brovik.XpcAgentProtocol"
AGENT_PATH = "/com/brovik/velmmonitord"
LINE = re.compile(r"^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d:\d{3} \[[A-Z ]+\] +(.*)$")


def message_of(line):
    """The message of a line of the log; the whole line if it has no such form."""
    match = LINE.match(line)
    return match.group(1) if match else line


class Session:
    """A login, as logind knows it."""

    def __init__(self, user, unit, number):
        self.user = user
        self.unit = unit
        self.number = number
        self.path = user.container.run(
            "busctl", "call", "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
            "GetSession", "s", number).split('"')[1]

    def show(self, name):
        return self.user.container.run("loginctl", "show-session", self.number, f"--property={name}",
                                       "--value").strip()

    def set_locked_hint(self, locked, check=True):
        """Does what a desktop does when it has locked or unlocked the screen."""
        self.user.run("busctl", "call", "org.freedesktop.login1", self.path, "org.freedesktop.login1.Session",
                      "SetLockedHint", "b", "true" if locked else "false", check=check)

    def logout(self):
        self.user.container.run("systemctl", "stop", self.unit, check=False)
        # What is left of it, should logind have missed the end; it does so now and then after a restart of its own.
        self.user.container.run("loginctl", "terminate-session", self.number, check=False)
        wait_until(lambda: self.number not in self.user.session_numbers(), f"session {self.number} is gone")


class User:
    def __init__(self, container, name, system=False):
        self.container = container
        self.name = name
        kind = ["--system"] if system else []
        container.run("useradd", "--create-home", "--shell=/bin/bash", *kind, name)
        self.uid = int(container.run("id", "--user", name))
        self.home = container.path(f"home/{name}")
        self._logins = 0

    # Sessions

    def session_numbers(self):
        # Not from loginctl, which prints something else in each version.
        answer = self.container.run("busctl", "call", "--json=short", "org.freedesktop.login1",
                                    "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "ListSessions")
        return {number for number, uid, *_ in json.loads(answer)["data"][0] if uid == self.uid}

    def _log_in(self, *command, **options):
        before = self.session_numbers()
        self._logins += 1
        unit = f"login-{self.name}-{self._logins}.service"
        self.container.start(unit, *command, **options)

        def new_session():
            for number in self.session_numbers() - before:
                kind = self.container.run("loginctl", "show-session", number, "--property=Class", "--value",
                                          check=False).strip()
                # Not the manager's own session; that of an account of the system may be a lighter one.
                if kind.startswith(("user", "background")):
                    return number
            return None

        return Session(self, unit, wait_until(new_session, f"{self.name} is logged in"))

    def log_in(self):
        """At a terminal, with login(1)."""
        return self._log_in("/bin/sh", "-c",
                            f"sleep infinity | script --quiet --flush --command 'exec login -f {self.name}' /dev/null",
                            # A terminal that is closed waits for nobody; script(1) of Debian 13 does.
                            properties=("TimeoutStopSec=1s",))

    def log_in_graphically(self, display, *program):
        """As a display manager does; `program` is the session."""
        return self._log_in(*program, properties=(f"User={self.name}", "PAMName=login"),
                            env={"XDG_SESSION_TYPE": "x11", "XDG_SESSION_CLASS": "user", "DISPLAY": display})

    # Commands

    def environment(self):
        """What leads a program to this user's service manager and session bus."""
        runtime = f"/run/user/{self.uid}"
        return {"HOME": f"/home/{self.name}", "USER": self.name, "XDG_RUNTIME_DIR": runtime,
                "DBUS_SESSION_BUS_ADDRESS": f"unix:path={runtime}/bus"}

    def run(self, *command, check=True, env=None):
        """Runs a command as this user."""
        return self.container.run(*command, user=self, check=check, env={**self.environment(), **(env or {})})

    def succeeds(self, *command):
        return self.container.succeeds(*command, user=self, env=self.environment())

    def systemctl(self, *arguments, check=True):
        return self.run("systemctl", "--user", *arguments, check=check)

    # The agent

    def agent_pid(self):
        """The agent's process in the container; 0 while it does not run."""
        pid = self.systemctl("show", "--property=MainPID", "--value", UNIT, check=False).strip()
        active = self.systemctl("is-active", UNIT, check=False).strip() == "active"
        return int(pid) if active and pid.isdigit() else 0

    def wait_for_agent(self, other_than=0, cap=30):
        return wait_until(lambda: self.agent_pid() not in (0, other_than) and self.agent_pid(),
                          f"{self.name}'s agent runs", cap)

    def agent_names(self):
        """The agent's names on the system bus: its link's and those of its other connections."""
        pid = self.agent_pid()
        connections = json.loads(self.container.run("busctl", "--json=short", "list"))
        return [c["name"] for c in connections if c.get("pid") == pid and c["name"].startswith(":")]

    def wait_until_heard(self):
        """Until each of the agent's connections has refused a call of root's, whom the bus lets through."""
        for name in self.agent_names():
            self.container.run("busctl", "call", "--timeout=30", name, AGENT_PATH, AGENT_INTERFACE, "isAnybodyThere",
                               check=False)

    # The log

    def log_path(self, backup=""):
        return self.home / (LOG + backup)

    def log_lines(self, mark=0):
        try:
            text = self.log_path().read_bytes()[mark:].decode(errors="replace")
        except FileNotFoundError:
            return []
        return text.splitlines()

    def log_mark(self):
        """The log's present end; what is read from there on is new."""
        try:
            return self.log_path().stat().st_size
        except FileNotFoundError:
            return 0

    def messages(self, mark=0):
        return [message_of(line) for line in self.log_lines(mark)]

    def stamps(self, message, mark=0):
        """When, by the log's own clock, a message was written."""
        return [datetime.datetime.strptime(line[:23], "%Y/%m/%d %H:%M:%S:%f")
                for line in self.log_lines(mark) if message_of(line) == message]

    def wait_until_linked(self, cap=30):
        """Until the log's last word about the link is that there is one."""
        def linked():
            words = [m for m in self.messages() if m in (CONNECTED, DISCONNECTED, STARTED)]
            return words and words[-1] == CONNECTED

        wait_until(linked, f"{self.name}'s agent is linked", cap)

    def wait_for_messages(self, mark, *wanted, cap=30):
        """Waits until the log has these messages in this order after `mark`, others between them allowed."""
        def seen():
            remaining = iter(self.messages(mark))
            return all(any(m == w for m in remaining) for w in wanted)

        try:
            wait_until(seen, f"{self.name}'s log has {wanted}", cap)
        except AssertionError as error:
            raise AssertionError(f"{error}; it has:\n" + "\n".join(self.log_lines(mark)[-15:])) from None

    def ownership(self, path):
        """Owner, group and mode of a file, in text."""
        status = path.lstat()
        return f"{status.st_uid}:{status.st_gid} {stat.S_IMODE(status.st_mode):04o}"
