"""The processes that are measured: a bus, what lives on it, and what the kernel says of them."""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from .contest import NotHere

PATIENCE = 60

BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={directory}/bus</listen>
  <policy context="default">
    <allow user="*"/><allow own="*"/><allow send_type="method_call"/><allow send_type="signal"/>
    <allow send_requested_reply="true"/><allow receive_requested_reply="true"/>
    <allow send_destination="*" eavesdrop="false"/>
  </policy>
  <limit name="max_connections_per_user">2048</limit>
  <limit name="max_completed_connections">2048</limit>
</busconfig>
"""


def run_once(*command):
    """Runs a program of the benchmarks to its end and gives the numbers that it printed."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=300)
    if done.returncode == 77:
        raise NotHere("its library is not installed")
    if done.returncode != 0:
        raise RuntimeError(f"{os.path.basename(command[0])} ended with {done.returncode}: {done.stderr.strip()}")
    return json.loads(done.stdout.splitlines()[-1])


def await_that(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(what)
        time.sleep(0.005)


def listens(path):
    """The socket is there a moment before someone listens on it."""
    with socket.socket(socket.AF_UNIX) as client:
        try:
            client.connect(path)
        except OSError:
            return False
    return True


def end(process, number=signal.SIGTERM):
    if process.poll() is None:
        process.send_signal(number)
        try:
            process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


@contextlib.contextmanager
def running(command, environment=None, **options):
    with subprocess.Popen(command, env=environment, **options) as process:
        try:
            yield process
        finally:
            end(process)


class Stage:
    """A private bus and room for logs. Programs: where the benchmarks and the agent were built."""

    def __init__(self, build):
        self.build = build
        self.agent = f"{build}/src/velmmonitord/velmmonitord"
        self._cleaning = contextlib.ExitStack()

    def __enter__(self):
        self.directory = tempfile.mkdtemp(prefix="velm-bench-")
        self._cleaning.callback(shutil.rmtree, self.directory, ignore_errors=True)
        configuration = f"{self.directory}/bus.conf"
        with open(configuration, "w", encoding="ascii") as file:
            file.write(BUS_CONFIGURATION.format(directory=self.directory))
        self._cleaning.enter_context(running(["dbus-daemon", "--nofork", "--nopidfile",
                                              f"--config-file={configuration}"], stderr=subprocess.DEVNULL))
        await_that(lambda: listens(f"{self.directory}/bus"), "the bus does not listen")
        return self

    def __exit__(self, *_):
        self._cleaning.close()

    def program(self, name):
        path = f"{self.build}/bench/bench_{name}"
        if not os.path.exists(path):
            raise NotHere("its library is not installed")
        return path

    def home(self, number=0):
        home = f"{self.directory}/home{number}"
        os.makedirs(f"{home}/Library/Logs", exist_ok=True)
        return home

    def log(self, number=0):
        return f"{self.home(number)}/Library/Logs/velmmonitord.log"

    def environment(self, number=0):
        return {"PATH": os.environ["PATH"], "HOME": self.home(number),
                "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.directory}/bus"}

    def start(self, *command, number=0, extra_environment=None, **options):
        """A context manager with the process."""
        options.setdefault("stdout", subprocess.DEVNULL)
        return running(list(command), {**self.environment(number), **(extra_environment or {})},
                       stderr=subprocess.DEVNULL, **options)

    @contextlib.contextmanager
    def world(self, *arguments):
        """The world of bench_world, ready."""
        with self.start(self.program("world"), *arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                        text=True) as world:
            if world.stdout.readline().strip() != "ready":
                raise RuntimeError("bench_world does not come up")
            yield world

    def measured_by_world(self, what, number, *client):
        """What bench_world measures of a client."""
        with self.world(what, str(number)) as world, self.start(*client):
            for line in world.stdout:
                if line.startswith("{"):
                    return json.loads(line)
        raise RuntimeError(f"bench_world ended with {world.wait()}")

    def lines(self, number=0):
        try:
            with open(self.log(number), encoding="utf-8") as file:
                return file.readlines()
        except FileNotFoundError:
            return []


def memory_of(pid):
    """Private, proportional and anonymous set size in kB."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        sizes = {name: int(size) for name, size in re.findall(r"^(\w+): +(\d+) kB", file.read(), re.M)}
    return {"uss": sizes["Private_Clean"] + sizes["Private_Dirty"], "pss": sizes["Pss"],
            "anonymous": sizes["Anonymous"]}


def switches_of(pid):
    """How often the threads that live have gone to sleep by themselves."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/status", encoding="utf-8") as file:
            total += int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", file.read(), re.M)[1])
    return total


def at_rest(process, seconds):
    """What a process weighs that has had the time to come to rest, and how often it wakes up in `seconds` more."""
    time.sleep(3)
    before = switches_of(process.pid)
    time.sleep(seconds)
    return {**memory_of(process.pid), "wake-ups": switches_of(process.pid) - before}


def idle_agent(stage, seconds, agent):
    """The same of an agent that is linked."""
    with stage.world("serve") as world, stage.start(agent) as process:
        if world.stdout.readline().strip() != "connect":
            raise RuntimeError("the agent does not connect")
        return at_rest(process, seconds)


def life(stage, seconds):
    """What an agent used from its start to its end after `seconds`, threads that have ended included."""
    with stage.start(stage.agent) as agent:
        time.sleep(seconds)
        agent.send_signal(signal.SIGTERM)
        _, status, usage = os.wait4(agent.pid, 0)
        agent.returncode = os.waitstatus_to_exitcode(status)
    return usage
