#!/usr/bin/env python3
"""Shows that the booted test cannot be fooled: gives it faulty packages, one at a time, each of which must fail at a
point that names the fault.

Usage: faults.py PACKAGES ROOT_TARBALL WORK [NAME]...
  PACKAGES      what packaging/linux/build-packages.sh built
  ROOT_TARBALL  what tests/roots/base-root.sh printed
  WORK          a directory for copies, builds and logs; it may stay for the next time
Prints one line for each fault; the status is 0 only if each was found at its point. Needs root, and some minutes for
each fault, so it is no step of ./check.
"""

import dataclasses
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
from typing import Callable, Optional

from repack import repack, replace

HERE = pathlib.Path(__file__).resolve().parent
SOURCES = HERE.parent.parent
UNIT = "usr/lib/systemd/user/velmmonitord.service"


@dataclasses.dataclass
class Fault:
    name: str
    # What the point's description begins with that must fail.
    point: str
    # A change of the unpacked package, or of a source of the agent.
    edit: Optional[Callable] = None
    source: Optional[str] = None
    changes: tuple = ()
    # Whether the point is shown without the many upgrades, too.
    brief: bool = True


def in_file(path, *pairs):
    return lambda tree: replace(tree / path, *pairs)


def without_sandbox(tree):
    kept = ("[", "#", "Description", "Documentation", "Condition", "StartLimit", "Type", "Exec", "Restart", "UMask",
            "StandardOutput", "WantedBy")
    unit = tree / UNIT
    unit.write_text("".join(line for line in unit.read_text().splitlines(keepends=True)
                            if line == "\n" or (line.startswith(kept) and not line.startswith("Restrict"))))


def asks_for_all_users_at_once(tree):
    invoke = "deb-systemd-invoke --user {} velmmonitord.service >/dev/null || true"
    for script, action, word in (("postinst", "refresh", "restart"), ("prerm", "stop", "stop")):
        replace(tree / "DEBIAN" / script,
                (f"/usr/libexec/velmmonitord/user-agents {action} || true", invoke.format(word)))


def stops_agents_before_dpkg(tree):
    """In a file that dpkg obeys before it takes its lock."""
    directory = tree / "etc/dpkg/dpkg.cfg.d"
    directory.mkdir(parents=True)
    (directory / "velmmonitord").write_text('pre-invoke="/usr/libexec/velmmonitord/user-agents stop || true"\n')


FAULTS = (
    Fault("asks-every-6-s", "without a daemon the agents ask once a second",
          source="src/velmmonitord/MonitorLauncher.cpp",
          changes=(("reconnectInterval(1000)", "reconnectInterval(6000)"),)),
    Fault("ignores-savers", "MATE's saver on the session bus",
          source="src/platform/linux/screenlock/ScreenSaverSignals.cpp",
          changes=(('{"org.mate.ScreenSaver"', '{"org.mate.None"'),
                   ('{"org.cinnamon.ScreenSaver"', '{"org.cinnamon.None"'),
                   ('{"org.xfce.ScreenSaver"', '{"org.xfce.None"'))),
    Fault("drops-calls", "what the daemon sends reaches every agent",
          source="src/velmmonitord/XpcServiceClientImpl.cpp",
          changes=(('logLine(Logging::Level::Trace, "agent: incomming message");\n', ""),
                   ('logLine(Logging::Level::Trace, "xpc service: received log level: ", level);\n', ""))),
    Fault("one-backup", "full logs become three backups",
          source="src/logging/Log.cpp",
          changes=(("MaxOldLogCount maxOldCount(m_maxOldLogCount)", "MaxOldLogCount maxOldCount(1)"),)),
    Fault("wakes-100-times-a-second", "linked agents with nothing to do do not wake",
          source="src/velmmonitord/main.cpp",
          changes=(("int main() {", "#include <thread>\n#include <chrono>\nint main() {\n"
                    "    std::thread([] { for (;;) std::this_thread::sleep_for(std::chrono::milliseconds(10)); })"
                    ".detach();\n"),)),
    Fault("no-sandbox", "the unit has every property", without_sandbox),
    Fault("never-ends-on-sigterm", "stopping an agent ends it in order",
          in_file(UNIT, ("Restart=on-failure", "KillSignal=SIGWINCH\nRestart=on-failure"))),
    Fault("reloads-no-manager", "an upgrade restarts the agents",
          in_file("usr/libexec/velmmonitord/user-agents", ("systemctl daemon-reload || return", ":"))),
    Fault("restarts-after-25-s", "an agent that crashed is started again",
          in_file(UNIT, ("RestartSec=5s", "RestartSec=25s"))),
    Fault("log-directory-for-everybody", "a new user's log directory has mode 0700",
          in_file("usr/share/user-tmpfiles.d/velmmonitord.conf", (":0700", ":0755"))),
    Fault("one-user-decides", "an upgrade with one user's agent masked", asks_for_all_users_at_once, brief=False),
    Fault("waits-for-a-hung-manager", "an upgrade with one user's manager hung",
          in_file("usr/libexec/velmmonitord/user-agents", ('timeout --kill-after=1 "$seconds"', "env")), brief=False),
    Fault("complains-of-who-leaves", "an upgrade while a user logs out",
          in_file("usr/libexec/velmmonitord/user-agents", ("[ $status -eq 0 ] || ! leaving || status=0", ":")), brief=False),
    Fault("stops-agents-too-early", "two package operations at once", stops_agents_before_dpkg, brief=False),
    Fault("needs-its-log-directory", "a home that cannot be written", in_file(UNIT, ("ExecStartPre=-", "ExecStartPre="))),
    Fault("needs-room-for-its-log", "a full disk at start",
          source="src/logging/FileDestination.cpp",
          changes=(("        m_fileStream.flush();", "        m_fileStream.flush();\n        if (!m_fileStream.good()) std::terminate();"),)),
    Fault("ends-with-its-program", "a program replaced, and then removed",
          source="src/velmmonitord/main.cpp",
          changes=(("int main() {", "#include <chrono>\n#include <thread>\n#include <sys/stat.h>\n#include <unistd.h>\n"
                    "int main() {\n    std::thread([] { struct stat now {}; while (::stat(\"/proc/self/exe\", &now) == 0 && "
                    "now.st_nlink != 0) std::this_thread::sleep_for(std::chrono::milliseconds(200)); ::_exit(1); }).detach();\n"),)),
    Fault("needs-its-home", "a home that vanishes", in_file(UNIT, ("Type=exec", "Type=exec\nWorkingDirectory=%h"))),
)


class Builder:
    """Agents of a copy of the sources with one change; what did not change is not built again."""

    def __init__(self, work):
        self._tree = work / "tree"
        self._build = work / "build"

    def agent(self, fault):
        self._copy()
        replace(self._tree / fault.source, *fault.changes)
        commands = (["cmake", "--preset", "package", "-B", self._build, "-DVELM_WERROR=OFF"],
                    ["cmake", "--build", self._build, "--target", "velmmonitord", "-j2"])
        for command in commands:
            subprocess.run(command, cwd=self._tree, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return self._build / "src/velmmonitord/velmmonitord"

    def _copy(self):
        """Only what differs is written, so that build times stay short."""
        names = subprocess.run(["git", "ls-files"], cwd=SOURCES, check=True, stdout=subprocess.PIPE,
                               text=True).stdout.splitlines()
        for name in names:
            source, target = SOURCES / name, self._tree / name
            if not source.is_file() or (target.exists() and target.read_bytes() == source.read_bytes()):
                continue
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)


def faulty_packages(fault, packages, target, builder):
    shutil.rmtree(target, ignore_errors=True)
    if fault.source:
        program = builder.agent(fault)

        def edit(tree):
            shutil.copy(program, tree / "usr/sbin/velmmonitord")
            subprocess.run(["strip", tree / "usr/sbin/velmmonitord"], check=True)
    else:
        edit = fault.edit
    for package in packages.glob("velmmonitord_*.deb"):
        repack(package, target, edit)
    for package in packages.glob("velmdaemon-sim_*.deb"):
        shutil.copy(package, target)


def boot(fault, packages, previous, tarball, log):
    """Runs the booted test until the fault's point has failed, and returns the points that failed."""
    with tempfile.TemporaryDirectory(prefix="velm-fault.", dir="/var/tmp") as work:
        root = pathlib.Path(work) / "root"
        root.mkdir()
        subprocess.run(["tar", "-C", root, "-xf", tarball], check=True)
        brief = ["--brief"] if fault.brief else []
        test = subprocess.Popen([sys.executable, "-B", HERE / "booted.py", *brief, "--root", root, "--packages",
                                 packages, "--previous", previous], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True)
        failed = []
        with open(log, "w", encoding="utf-8", buffering=1) as output:
            for line in test.stdout:
                output.write(line)
                point = re.match(r"FAILED +[\d.]+ s  (.*)", line)
                if point and "points shown" not in line:
                    failed.append(point[1])
                    if point[1].startswith(fault.point):
                        test.terminate()
        test.wait()
    return failed


def main():
    packages, tarball, work = (pathlib.Path(path).resolve() for path in sys.argv[1:4])
    wanted = sys.argv[4:]
    unknown = set(wanted) - {fault.name for fault in FAULTS}
    if unknown:
        sys.exit(f"faults.py: there is no fault {', '.join(sorted(unknown))}")
    builder = Builder(work)
    previous = work / "previous"
    work.mkdir(parents=True, exist_ok=True)
    subprocess.run([sys.executable, "-B", HERE / "previous.py", packages, previous], check=True)
    missed = 0
    for fault in FAULTS:
        if wanted and fault.name not in wanted:
            continue
        log = work / f"{fault.name}.log"
        faulty_packages(fault, packages, work / fault.name, builder)
        points = boot(fault, work / fault.name, previous, tarball, log)
        found = any(point.startswith(fault.point) for point in points)
        missed += not found
        print(f"{'found' if found else 'MISSED':7} {fault.name}: {'; '.join(points) or 'no point failed'}", flush=True)
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main() if len(sys.argv) > 3 else __doc__)
