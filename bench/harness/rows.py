"""The rows. To add one: a function here that returns it, and its name in ROWS."""

import contextlib
import os
import resource
import shutil
import signal
import subprocess
import tempfile
import time

from .contest import NotHere, Row
from .processes import Stage, at_rest, await_that, idle_agent, life, run_once
from .screens import need, wayland_display, x_display

LINE = "2026/11/16 05:28:20:007 [TRACE] Monitor launcher: screen lock status 1\n"
FULL_LOG = LINE * (6_000_000 // len(LINE) + 1)


class Bench:
    def __init__(self, build, quick):
        self.build = build
        self.quick = quick

    def program(self, name):
        return f"{self.build}/bench/bench_{name}"

    def size(self, full, quick):
        return quick if self.quick else full

    # -- the log

    def line_of(self, logger, threads):
        with tempfile.TemporaryDirectory() as directory:
            return run_once(self.program("line"), logger, str(threads), str(self.size(8000, 400)),
                            f"{directory}/log")

    def line(self, threads):
        contestants = {name: (lambda name=name: self.line_of(name, threads))
                       for name in ("velm", "floor", "spdlog", "glog", "boost_log")}
        return Row(f"line-{threads}", f"a log line, {threads} thread{'s' * (threads > 1)}", "us", "p50",
                   contestants, floors=("floor",), extra=("p90", "p99", "per_line", "processor"))

    def rotation(self, name, base):
        def prepared(measure):
            def once():
                with tempfile.TemporaryDirectory(dir=base) as directory:
                    for number in ("", "1", "2", "3"):
                        with open(f"{directory}/log{number}", "w", encoding="ascii") as file:
                            file.write(FULL_LOG)
                    result = measure(directory)
                    for number in ("1", "2", "3"):
                        if os.path.getsize(f"{directory}/log{number}") != len(FULL_LOG):
                            raise RuntimeError(f"log{number} has the wrong size")
                    if os.path.getsize(f"{directory}/log") != 0:
                        raise RuntimeError("the log was not emptied")
                    return result
            return once

        def timed(command):
            def measure(directory):
                before = resource.getrusage(resource.RUSAGE_CHILDREN)
                start = time.monotonic()
                subprocess.run(command(directory), cwd=directory, check=True)
                total = time.monotonic() - start
                after = resource.getrusage(resource.RUSAGE_CHILDREN)
                used = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
                return {"total": total * 1000, "processor": used * 1000}
            return measure

        def logrotate(directory):
            if shutil.which("logrotate") is None:
                raise NotHere("logrotate is not installed")
            # It renames the older backups, and copies but the log.
            for number in ("1", "2", "3"):
                os.rename(f"{directory}/log{number}", f"{directory}/log.{number}")
            with open(f"{directory}/conf", "w", encoding="ascii") as file:
                file.write(f"{directory}/log {{\n rotate 3\n copytruncate\n size 1\n su root root\n}}\n")
            result = timed(lambda d: ["logrotate", "--state", f"{d}/state", f"{d}/conf"])(directory)
            for number in ("1", "2", "3"):
                os.rename(f"{directory}/log.{number}", f"{directory}/log{number}")
            return result

        copies = "cp log2 log3 && cp log1 log2 && cp log log1 && : >log"
        return Row(f"rotation-{name}", f"rotation of 6,000,000 bytes, 3 backups, {name}", "ms", "total", {
            "velm": prepared(lambda directory: run_once(self.program("rotation"), f"{directory}/log")),
            "cp": prepared(timed(lambda _: ["sh", "-c", copies])),
            "logrotate copytruncate": prepared(logrotate),
        }, floors=("cp",), extra=("processor",))

    def rotation_ext4(self):
        return self.rotation("disk", "/var/tmp")

    def rotation_tmpfs(self):
        return self.rotation("tmpfs", "/dev/shm")

    # -- the timers

    def scheduler(self, what, title, value, unit, count, quick_count):
        count = str(self.size(count, quick_count))
        return Row(f"scheduler-{what}", f"scheduler: {title}, {count} entries", unit, value, {
            name: (lambda name=name: run_once(self.program("scheduler"), what, name, count))
            for name in ("velm", "asio", "libevent", "libuv")
        }, floors=("asio",), extra=("p90", "p99", "processor"))

    def periodic(self):
        count = str(self.size(400, 20))
        return Row("periodic", "periodic timer: lateness of a tick of 5 ms", "us", "p50", {
            name: (lambda name=name: run_once(self.program("periodic"), name, count))
            for name in ("velm", "timerfd", "wait_for")
        }, floors=("timerfd",), extra=("p90", "p99", "processor"))

    # -- the agent

    def client(self, stage, name):
        if name == "velm":
            return [stage.agent]
        if name == "sd-bus forwarder, 3 floor lines":
            return [stage.program("forwarder_sdbus"), "0", stage.log()]
        return [stage.program({"velm, no log lines": "quiet_agent", "sd-bus forwarder": "forwarder_sdbus",
                               "GDBus forwarder": "forwarder_gdbus"}[name])]

    def through_world(self, what, number, name):
        with Stage(self.build) as stage:
            result = stage.measured_by_world(what, number, *self.client(stage, name))
        if result.get("lost"):
            raise RuntimeError(f"{result['lost']:.0f} events were lost")
        return result

    def event(self):
        contestants = {name: (lambda name=name: self.through_world("latency", self.size(200, 10), name))
                       for name in ("velm", "velm, no log lines", "sd-bus forwarder",
                                    "sd-bus forwarder, 3 floor lines", "GDBus forwarder")}
        return Row("event", "a lock change, from logind's signal to the daemon", "us", "p50", contestants,
                   floors=("sd-bus forwarder", "sd-bus forwarder, 3 floor lines"), extra=("p90", "p99"), ratios=(
                       ("velm / GDBus forwarder", lambda v: v["velm"] / v["GDBus forwarder"]),
                       ("velm / sd-bus forwarder, 3 floor lines",
                        lambda v: v["velm"] / v["sd-bus forwarder, 3 floor lines"]),
                       ("velm, no log lines / sd-bus forwarder",
                        lambda v: v["velm, no log lines"] / v["sd-bus forwarder"])))

    def burst(self):
        number = self.size(10000, 200)
        return Row("burst", f"{number} lock changes at once, until the daemon has them", "ms", "total", {
            name: (lambda name=name: self.through_world("burst", number, name))
            for name in ("velm", "velm, no log lines", "sd-bus forwarder", "GDBus forwarder")
        }, floors=("sd-bus forwarder",), rounds=5)

    def idle(self):
        seconds = self.size(10, 2)

        def listener(stage):
            with stage.world("serve"), stage.start(stage.program("forwarder_sdbus"), "2") as process:
                return at_rest(process, seconds)

        def on_display(display, programs, *command):
            def measure(stage):
                need(*programs)
                with stage.world("serve"), display() as environment, \
                        stage.start(*command, extra_environment=environment) as process:
                    result = at_rest(process, seconds)
                    if process.poll() is not None:
                        raise RuntimeError(f"{command[0]} has ended")
                    return result
            return measure

        def staged(measure):
            def once():
                with Stage(self.build) as stage:
                    return measure(stage)
            return once

        # What watches the same logind and has a screen locked; they run as their manual pages say.
        return Row("idle", f"linked and idle: memory, and wake-ups in {seconds} s", "kB PSS", "pss", {
            "velm": staged(lambda stage: idle_agent(stage, seconds, stage.agent)),
            "sd-bus listener, 2 threads": staged(listener),
            "xss-lock": staged(on_display(x_display, ("Xvfb", "xss-lock"), "xss-lock", "--", "true")),
            "swayidle": staged(on_display(wayland_display, ("sway", "swayidle"),
                                          "swayidle", "timeout", "300", "true", "lock", "true")),
        }, floors=("sd-bus listener, 2 threads",), extra=("uss", "anonymous", "wake-ups"), rounds=3)

    def start(self):
        def until_logged(command):
            with Stage(self.build) as stage, stage.world("serve"):
                begin = time.perf_counter()
                with stage.start(*command(stage)):
                    while not (os.path.exists(stage.log()) and os.path.getsize(stage.log())):
                        if time.perf_counter() - begin > 30:
                            raise TimeoutError("no line came")
                    return {"total": (time.perf_counter() - begin) * 1000}

        return Row("start", "from starting the program to its first line in the file", "ms", "total", {
            "velm": lambda: until_logged(lambda stage: [stage.agent]),
            "sh": lambda: until_logged(lambda stage: ["sh", "-c", f"echo started >>{stage.log()}"]),
        }, floors=("sh",))

    def link_down(self):
        seconds = self.size(60, 5)

        def once():
            with Stage(self.build) as stage, stage.world("absent"):
                short = life(stage, 2.5)
                lines = len(stage.lines())
                long = life(stage, 2.5 + seconds)

                def more(field):
                    return getattr(long, field) - getattr(short, field)
                return {"processor": (more("ru_utime") + more("ru_stime")) * 1000,
                        "switches": (more("ru_nvcsw") + more("ru_nivcsw")) / seconds,
                        "lines": len(stage.lines()) - 2 * lines}

        return Row("link-down", f"{seconds} s without a daemon (switches: a second)", "ms proc.", "processor",
                   {"velm": once}, extra=("switches", "lines"), rounds=2)

    def agents(self, count):
        def once():
            with Stage(self.build) as stage, contextlib.ExitStack() as running:
                def linked(times):
                    return lambda: all(
                        sum("connection is established" in line for line in stage.lines(number)) >= times
                        for number in range(count))

                # The agents need a logind that outlives the daemon; without one they link all the same.
                with stage.world("serve"):
                    begin = time.monotonic()
                    for number in range(count):
                        running.enter_context(stage.start(stage.agent, number=number))
                    await_that(linked(1), "not all agents are linked")
                    first = time.monotonic() - begin
                time.sleep(2)
                begin = time.monotonic()
                with stage.world("serve"):
                    await_that(linked(2), "not all agents are linked again")
                    return {"again": time.monotonic() - begin, "first": first}

        return Row(f"agents-{count}", f"{count} agents: linked again after the daemon's return", "s", "again",
                   {"velm": once}, extra=("first",), rounds=2)

    def rows(self):
        return [
            self.line(1), self.line(4), self.rotation_ext4(), self.rotation_tmpfs(),
            self.scheduler("add", "add one", "per_entry", "ns", 10000, 500),
            self.scheduler("drain", "call one that is due", "per_entry", "ns", 10000, 500),
            self.scheduler("cancel_one", "cancel one", "per_entry", "ns", 10000, 500),
            self.scheduler("cancel_all", "cancel all until empty, each", "per_entry", "ns", 10000, 500),
            self.scheduler("lateness", "lateness", "p50", "us", 500, 20),
            self.periodic(), self.event(), self.burst(), self.idle(), self.start(), self.link_down(),
            self.agents(1), self.agents(self.size(50, 5)), *([] if self.quick else [self.agents(200)]),
        ]
