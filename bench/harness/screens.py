"""Displays without a screen, for the peers that want one."""

import contextlib
import os
import shutil
import subprocess
import tempfile

from .contest import NotHere
from .processes import await_that, running

NOBODY = 65534


def need(*programs):
    for program in programs:
        if shutil.which(program) is None:
            raise NotHere(f"{program} is not installed")


@contextlib.contextmanager
def x_display():
    """The environment of a client of an X server of its own."""
    read, write = os.pipe()
    with running(["Xvfb", "-displayfd", str(write), "-nolisten", "tcp"], pass_fds=(write,), stderr=subprocess.DEVNULL):
        os.close(write)
        with os.fdopen(read) as numbers:
            display = numbers.readline().strip()
        if not display:
            raise RuntimeError("Xvfb does not come up")
        yield {"DISPLAY": f":{display}"}


@contextlib.contextmanager
def wayland_display():
    """The environment of a client of a sway of its own, which does not run as root."""
    with tempfile.TemporaryDirectory() as directory:
        command = ["sway", "-c", "/dev/null"]
        if os.geteuid() == 0:
            os.chown(directory, NOBODY, NOBODY)
            command = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", *command]
        environment = {"PATH": os.environ["PATH"], "HOME": directory, "XDG_RUNTIME_DIR": directory,
                       "WLR_BACKENDS": "headless", "WLR_RENDERER": "pixman", "WLR_LIBINPUT_NO_DEVICES": "1"}
        with running(command, environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL):
            display = "wayland-1"
            await_that(lambda: os.path.exists(f"{directory}/{display}"), "sway does not come up")
            yield {"XDG_RUNTIME_DIR": directory, "WAYLAND_DISPLAY": display}
