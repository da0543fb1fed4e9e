"""The stage: a private /etc, a private bus with a mock logind, the stand-in daemon and the agent.

Runs inside the namespace that demo.py made, as its root.
"""

import argparse
import contextlib
import ctypes
import os
import signal
import subprocess
import sys
import threading
import time

import dbus
import dbus.bus

import play
import stay
from arguments import add_common
from timeline import Missing, Timeline, wants_colour

PR_SET_PDEATHSIG = 1
SESSION = "/org/freedesktop/login1/session/demo"

BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={path}</listen>
  <auth>EXTERNAL</auth>
  <!-- Open to everyone, so that what refuses the intruder is the agent and not the bus. -->
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""


def die_with_parent(number=signal.SIGKILL):
    """Should the program that started this one be killed, this one must not stay behind."""
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, number)


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def is_zone(path):
    """Whether the file holds a time zone (tzfile(5))."""
    try:
        with open(path, "rb") as file:
            return file.read(4) == b"TZif"
    except OSError:
        return False


class PrivateEtc:
    """An /etc of this namespace's own: everything in it leads to the real one but for localtime."""

    def __init__(self, directory):
        inside = os.path.join(directory, "namespace")
        os.mkdir(inside)
        mount("-t", "tmpfs", "tmpfs", inside)
        real = os.path.join(inside, "etc")
        os.mkdir(real)
        mount("--rbind", "/etc", real)
        mount("-t", "tmpfs", "-o", "mode=755", "tmpfs", "/etc")
        for name in os.listdir(real):
            if name != "localtime":
                os.symlink(os.path.join(real, name), os.path.join("/etc", name))
        # The walk to the real /etc passes here; others need it too.
        os.chmod(inside, 0o755)
        self.set_zone("Etc/UTC")

    @staticmethod
    def set_zone(zone):
        """As the system's own tools do it: a new link, moved over the old one."""
        target = os.path.join("/usr/share/zoneinfo", zone)
        if not is_zone(target):
            raise Missing(f"time zone {zone} in /usr/share/zoneinfo")
        os.symlink(target, "/etc/localtime.new")
        os.replace("/etc/localtime.new", "/etc/localtime")


class Stage:
    """Everything that the play is played with."""

    def __init__(self, options, timeline):
        self.timeline = timeline
        self.etc = PrivateEtc(options.directory)
        self.directory = options.directory
        self.session = SESSION
        self.address = "unix:path=" + os.path.join(options.directory, "bus")
        self.home = os.path.join(options.directory, "home")
        self.log = os.path.join(self.home, "Library/Logs/velmmonitord.log")
        self._options = options
        self._processes = []
        self._agent = None
        self._daemon = None
        self._bus = None
        self._environment = {key: value for key, value in os.environ.items()
                             if key not in ("TZ", "XDG_RUNTIME_DIR", "XDG_SESSION_ID")}
        self._environment["DBUS_SYSTEM_BUS_ADDRESS"] = self.address
        self._environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + os.path.join(options.directory, "none")
        self._environment["HOME"] = self.home

    def build(self):
        os.makedirs(os.path.dirname(self.log))
        configuration = os.path.join(self.directory, "bus.conf")
        with open(configuration, "w", encoding="utf-8") as file:
            file.write(BUS_CONFIGURATION.format(path=self.address.partition("=")[2]))
        self._start("bus", ["dbus-daemon", "--nofork", f"--config-file={configuration}"])
        self._bus = self._until("the private bus", lambda: dbus.bus.BusConnection(self.address))
        self._start("logind", [sys.executable, "-B", "-m", "dbusmock", "--system", "--template", "logind"])
        self._until("the mock of logind", lambda: self._bus.name_has_owner("org.freedesktop.login1") or None)
        self._bus.call_blocking("org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.DBus.Mock",
                                "AddSession", "ssusb", ("demo", "seat0", os.getuid(), "demo", True))

    def start_daemon(self):
        command, directory = [self._options.daemon], "/"
        if self._options.daemon_command is not None:
            command, directory = ["sh", "-c", self._options.daemon_command], self._options.daemon_directory
        self._daemon = self._start("daemon", command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, cwd=directory)
        for stream in (self._daemon.stdout, self._daemon.stderr):
            threading.Thread(target=self.timeline.read, args=("daemon", stream), daemon=True).start()

    def await_daemon(self):
        """Returns once the daemon owns its name."""
        def owned():
            if self._daemon.poll() is not None:
                raise Missing(f"a daemon that runs (it ended with status {self._daemon.returncode})")
            return self._bus.name_has_owner("com.brovik.velmdaemon") or None
        self._until("a daemon that owns com.brovik.velmdaemon", owned)

    def start_agent(self):
        if self._agent is None:
            # It flushes its log file, line by line, and not its standard output.
            threading.Thread(target=self.timeline.follow, args=("agent", self.log), daemon=True).start()
        self._agent = self._start("agent", [self._options.agent], stdout=subprocess.DEVNULL)

    def tell_daemon(self, command):
        try:
            self._daemon.stdin.write(command + "\n")
            self._daemon.stdin.flush()
        except BrokenPipeError:
            raise Missing("a daemon that runs") from None

    def kill_daemon(self):
        self._signal(self._daemon, signal.SIGKILL)
        self._daemon.wait()

    def daemon_help(self):
        """What the stand-in says of the commands that it takes, as its lines."""
        help_text = subprocess.run([self._options.daemon, "--help"], capture_output=True, text=True,
                                   check=True).stdout
        commands = help_text.partition("Commands on standard input")[2].partition("\n\n")[0]
        return commands.splitlines()[1:]

    def end_agent(self):
        """Ends the agent as a service manager does; returns its status."""
        self._agent.terminate()
        return self._agent.wait(timeout=20)

    def agent_status(self):
        """None while the agent runs."""
        return self._agent.poll()

    def set_locked(self, locked):
        self._bus.call_blocking("org.freedesktop.login1", SESSION, "org.freedesktop.login1.Session",
                                "SetLockedHint", "b", (locked,))

    def second_user(self):
        """A user id that is neither root nor the agent's and exists in this namespace, or None."""
        with open("/proc/self/uid_map", encoding="ascii") as file:
            ranges = [[int(word) for word in line.split()] for line in file]
        for first, _, count in ranges:
            for uid in (65534, first + count - 1):
                if uid not in (0, os.getuid()) and first <= uid < first + count:
                    return uid
        return None

    def agent_names(self):
        """The unique names of the agent's connections to the bus."""
        def pid_of(name):
            try:
                return self._bus.call_blocking(dbus.BUS_DAEMON_NAME, dbus.BUS_DAEMON_PATH, dbus.BUS_DAEMON_IFACE,
                                               "GetConnectionUnixProcessID", "s", (name,))
            except dbus.DBusException:
                return None  # just gone
        return [str(name) for name in self._bus.list_names()
                if name.startswith(":") and pid_of(name) == self._agent.pid]

    def await_agent(self, names):
        """Returns once the agent has taken in everything that was sent to these connections before."""
        for name in names:
            try:
                self._bus.call_blocking(name, "/", "org.freedesktop.DBus.Peer", "Ping", "", (), timeout=20)
            except dbus.DBusException as error:
                # Nothing is offered there; that the agent refuses is its answer.
                if error.get_dbus_name() != "org.freedesktop.DBus.Error.AccessDenied":
                    raise

    def intrude(self, link, others, uid):
        """Lets another program speak to the agent; returns its lines."""
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "intruder.py")
        with open(script, encoding="utf-8") as file:
            # Passed as text: that other user need not be able to read this tree.
            source = file.read()
        identity = {} if uid is None else {"user": uid, "group": uid, "extra_groups": []}
        done = subprocess.run([sys.executable, "-c", source, self.address, SESSION, link, *others], cwd="/", text=True,
                              capture_output=True, timeout=60, check=False, env=self._environment, **identity)
        return (done.stdout + done.stderr).splitlines()

    def strike(self):
        """Ends everything: the agent first, which would mourn the daemon, then the last started first."""
        agent = [self._agent] if self._agent else []
        for process in agent + self._processes[::-1]:
            try:
                self._signal(process, signal.SIGTERM)
                process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self._signal(process, signal.SIGKILL)
                process.wait()

    def complaints(self):
        """What the programs said on their standard errors."""
        for name in ("bus", "logind", "agent"):
            path = os.path.join(self.directory, name + ".errors")
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as file:
                    yield from (f"{name}: {line.rstrip()}" for line in file)

    def _start(self, name, command, **streams):
        with open(os.path.join(self.directory, name + ".errors"), "a", encoding="utf-8") as errors:
            streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": errors, "cwd": "/",
                       **streams}
            # Ctrl-C is for this program, which ends the others in their order.
            process = subprocess.Popen(command, env=self._environment, text=True, errors="replace",
                                       start_new_session=True, preexec_fn=die_with_parent, **streams)
        self._processes.append(process)
        return process

    @staticmethod
    def _signal(process, number):
        """With what it has started, which may outlive it: a command of the shell's may be more than one process."""
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, number)

    def _until(self, what, attempt, cap=20.0):
        deadline = time.monotonic() + cap
        while time.monotonic() < deadline:
            try:
                result = attempt()
                if result is not None:
                    return result
            except dbus.DBusException:
                pass
            time.sleep(0.02)
        raise Missing(f"{what} within {cap:g} s")


def end_on_signal(_number, _frame):
    # Once is enough: a second Ctrl-C must not cut the tidying short.
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    raise KeyboardInterrupt


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--directory", required=True)
    parser.add_argument("--uid", type=int, required=True, help="who ./run was called by, outside of the namespace")
    add_common(parser)
    options = parser.parse_args()

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end_on_signal)
    die_with_parent(signal.SIGTERM)
    timeline = Timeline(wants_colour())
    stage = None
    status = 1
    try:
        stage = Stage(options, timeline)
        if options.stay:
            status = stay.stay(stage, timeline, outside=options.uid == 0, own=options.daemon_command)
        else:
            status = play.play(stage, timeline)
    except KeyboardInterrupt:
        status = 0 if options.stay else 130
    except Missing as missing:
        print(f"run: missing {missing}", file=sys.stderr)
    except (OSError, subprocess.SubprocessError, dbus.DBusException) as error:
        print(f"run: {error}", file=sys.stderr)
    finally:
        if stage is not None:
            stage.strike()
        timeline.end()
    if status == 1 and stage is not None:
        for line in stage.complaints():
            print(line, file=sys.stderr)
    sys.exit(status)


if __name__ == "__main__":
    main()
