"""A Linux system booted from a directory, and commands in it."""

import os
import pathlib
import shlex
import signal
import subprocess
import time

# What a system does by itself at midnight or soon after it starts: it writes files, and holds the packages' locks.
MASKED_TIMERS = ("apt-daily.timer", "apt-daily-upgrade.timer", "dpkg-db-backup.timer", "e2scrub_all.timer",
                 "fstrim.timer")
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8", "TERM": "dumb"}


class CommandFailed(AssertionError):
    pass


def wait_until(condition, what, cap=30):
    """Polls until `condition()` is true and returns what it returned; fails after `cap` seconds."""
    end = time.monotonic() + cap
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {cap} s: {what}")
        time.sleep(0.1)


def control_groups():
    """Directories of this process's own control groups, in the hierarchies that systemd uses."""
    paths = {}
    for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines():
        _, controllers, path = line.split(":", 2)
        paths[controllers] = path
    for line in pathlib.Path("/proc/self/mountinfo").read_text().splitlines():
        fields, _, kind = line.partition(" - ")
        mounted, options = fields.split()[4], kind.split()[2]
        if kind.startswith("cgroup2 ") and "" in paths:
            yield pathlib.Path(mounted + paths[""])
        elif kind.startswith("cgroup ") and "name=systemd" in options.split(",") and "name=systemd" in paths:
            yield pathlib.Path(mounted + paths["name=systemd"])


class ControlGroup:
    """Control groups of a container's own. Without them two containers share theirs: each would see, and end, units
    of the other."""

    def __init__(self, name):
        self._directories = [group / name for group in control_groups()]
        for directory in self._directories:
            directory.mkdir(exist_ok=True)

    def enter(self):
        """Moves the calling process there."""
        for directory in self._directories:
            (directory / "cgroup.procs").write_text(str(os.getpid()))

    def remove(self):
        for top in self._directories:
            for directory, _, _ in os.walk(top, topdown=False):
                try:
                    os.rmdir(directory)
                except OSError:
                    pass  # somebody is still in it; the machine's next start forgets it


class Container:
    """Needs root. Has no network and no outside service; `stop` ends every process of it."""

    def __init__(self, root):
        self.root = pathlib.Path(root)
        self.console = self.root.parent / "console.log"
        self._nspawn = None
        self._leader = None
        self._group = None

    def path(self, inside):
        """Where a file of the container is on this machine."""
        return self.root / str(inside).lstrip("/")

    def _mask_timers(self):
        for timer in MASKED_TIMERS:
            mask = self.path(f"etc/systemd/system/{timer}")
            if not mask.is_symlink():
                mask.symlink_to("/dev/null")

    def boot(self):
        self._mask_timers()
        # The screen locker keeps the password that is typed in locked memory.
        command = ["systemd-nspawn", "--quiet", f"--directory={self.root}", "--boot", "--private-network",
                   "--register=no", "--keep-unit", "--console=pipe", f"--machine=velmtest-{os.getpid()}",
                   "--system-call-filter=@memlock"]
        self._group = ControlGroup(f"velmtest-{os.getpid()}")
        with open(self.console, "ab") as console:
            # One hierarchy of control groups, as the releases themselves have it, whatever this machine has.
            self._nspawn = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=console, stderr=console,
                                            start_new_session=True, preexec_fn=self._group.enter,
                                            env={**os.environ, "SYSTEMD_NSPAWN_UNIFIED_HIERARCHY": "1"})
        self._leader = wait_until(self._find_leader, "the container has a first process")
        wait_until(lambda: self.run("systemctl", "is-system-running", check=False).strip() in ("running", "degraded"),
                   "the system is up", cap=120)

    def _find_leader(self):
        if self._nspawn.poll() is not None:
            raise AssertionError(f"systemd-nspawn ended with {self._nspawn.returncode}: " +
                                 self.console.read_text(errors="replace")[-2000:])
        children = pathlib.Path(f"/proc/{self._nspawn.pid}/task/{self._nspawn.pid}/children").read_text().split()
        for child in children:
            try:
                if pathlib.Path(f"/proc/{child}/comm").read_text().strip() == "systemd":
                    return int(child)
            except OSError:
                continue  # one of its short-lived helpers, gone meanwhile
        return None

    def stop(self):
        if self._nspawn is None:
            return
        if self._leader is not None and self._nspawn.poll() is None:
            try:
                self.run("systemctl", "poweroff", check=False, cap=30)
                self._nspawn.wait(timeout=30)
            except subprocess.TimeoutExpired:
                os.kill(self._leader, signal.SIGKILL)
        if self._nspawn.poll() is None:
            self._nspawn.terminate()
        self._nspawn.wait()
        self._group.remove()
        self._nspawn = self._leader = None

    def _inside(self, command, user, env):
        inside = ["env", "-i", *(f"{k}={v}" for k, v in {**ENVIRONMENT, **(env or {})}.items()), *command]
        if user is not None:
            inside = ["setpriv", f"--reuid={user.uid}", f"--regid={user.uid}", "--init-groups", *inside]
        return ["nsenter", "-t", str(self._leader), "-m", "-p", "-u", "-i", "-n", "-C", "-r", "-w", "--", *inside]

    def open(self, *command, user=None, env=None):
        """Starts a command in the container, to talk with over pipes of text lines; ended after some minutes."""
        return subprocess.Popen(self._inside(("timeout", "--foreground", "300", *command), user, env), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)

    def run(self, *command, user=None, env=None, check=True, cap=120):
        """Runs a command in the container and returns its standard output and error as one text."""
        done = subprocess.run(self._inside(command, user, env), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=cap, check=False)
        text = done.stdout.decode(errors="replace")
        if check and done.returncode != 0:
            raise CommandFailed(f"{shlex.join(command)}: status {done.returncode}: {text.strip()}")
        return text

    def succeeds(self, *command, **options):
        try:
            self.run(*command, **options)
        except CommandFailed:
            return False
        return True

    def start(self, unit, *command, properties=(), env=None):
        """Starts a command as a transient system service."""
        self.run("systemd-run", "--quiet", f"--unit={unit}", "--collect", "--property=StandardInput=null",
                 *(f"--property={p}" for p in properties), *(f"--setenv={k}={v}" for k, v in (env or {}).items()),
                 *command)

    def programs(self):
        """Names of all processes."""
        return self.run("sh", "-c", "cat /proc/[0-9]*/comm 2>/dev/null || true").split()

    def journal(self, *arguments):
        return self.run("journalctl", "--no-pager", "--quiet", "--output=cat", *arguments).splitlines()
