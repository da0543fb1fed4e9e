"""Shows the agent at work; called by ./run.

This process makes a temporary directory, runs stage.py in a namespace of its own, and cleans up after it. Mounts are
made only inside, so the directory is empty of them when it is removed here.
"""

import argparse
import os
import shutil
import signal
import subprocess
import sys
import tempfile

from arguments import add_common

# From the most to the least. A second user id, for the intruder, comes with real root, or with subordinate ids.
NAMESPACES = [
    ["unshare", "--mount"],
    ["unshare", "--user", "--map-root-user", "--map-auto", "--mount"],
    ["unshare", "--user", "--map-root-user", "--mount"],
]


TRIAL = """
set -e
mount -t tmpfs tmpfs "$1"
mkdir "$1/etc"
mount --rbind /etc "$1/etc"
mount -t tmpfs tmpfs /etc
"""


def usable_namespace(directory):
    """The first way that works here, tried with the mounts that the stage makes; None if none does."""
    for command in NAMESPACES:
        try:
            tried = subprocess.run([*command, "sh", "-c", TRIAL, "sh", directory], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        except FileNotFoundError:
            return None
        if tried.returncode == 0:
            return command
    return None


def why_no_namespace():
    """What to tell whoever has to change that; the reasons are those of containers and chroots."""
    try:
        with open("/proc/self/mountinfo", encoding="utf-8") as file:
            mount_points = [line.split()[4] for line in file]
    except OSError:
        return "/proc is not mounted here, so no private mount namespace can be made: mount -t proc proc /proc"
    if "/" not in mount_points:
        return ("the root directory is no mount point here, as in a plain chroot, so no private mount namespace can "
                "be made; outside, do 'mount --bind ROOT ROOT' before 'chroot ROOT', or enter it with "
                "'systemd-nspawn --directory=ROOT'")
    return ("needs a private mount namespace, and this machine gives none: neither root's nor a user namespace's; "
            "in a container, start that with the capability SYS_ADMIN")


def run_stage(namespace, directory, arguments):
    stage = os.path.join(os.path.dirname(os.path.abspath(__file__)), "stage.py")
    child = subprocess.Popen([*namespace, sys.executable, "-B", stage, "--directory", directory,
                              "--uid", str(os.getuid()), *arguments])
    # The stage ends what it started, and then itself; Ctrl-C reaches it without help.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.signal(signal.SIGTERM, lambda *_: child.terminate())
    signal.signal(signal.SIGHUP, lambda *_: child.terminate())
    return child.wait()


def main():
    parser = argparse.ArgumentParser()
    add_common(parser)
    options = parser.parse_args()

    # A socket's path is short: not below a TMPDIR of any length.
    directory = tempfile.mkdtemp(prefix="velmmonitord-run.", dir="/tmp")
    try:
        namespace = usable_namespace(directory)
        if namespace is None:
            sys.exit(f"run: {why_no_namespace()}")
        # Others only pass through it, to the bus.
        os.chmod(directory, 0o711)
        arguments = [os.path.abspath(options.agent), os.path.abspath(options.daemon)]
        choices = ["--stay"] if options.stay else []
        if options.daemon_command is not None:
            choices += [f"--daemon-command={options.daemon_command}",
                        f"--daemon-directory={options.daemon_directory}"]
        status = run_stage(namespace, directory, choices + arguments)
    finally:
        shutil.rmtree(directory, ignore_errors=True)
    sys.exit(status if status >= 0 else 128 - status)


if __name__ == "__main__":
    main()
