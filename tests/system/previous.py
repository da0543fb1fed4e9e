#!/usr/bin/env python3
"""Makes, of the packages that were built, what stands for the version that users have now.

It is older, and different in what an upgrade must replace: another unit, of another mode, another program, log
directories open to everybody, no helper for the maintainer scripts. Usage: previous.py FROM TO
"""

import pathlib
import re
import shutil
import sys

from repack import repack, replace

VERSION = "0.9.0"
START = 'if [ -d /run/systemd/system ]; then deb-systemd-invoke --user start "$unit" >/dev/null || true; fi'


def older_agent(tree):
    unit = tree / "usr/lib/systemd/user/velmmonitord.service"
    text = re.sub(r"^SystemCallFilter=.*\n", "", unit.read_text(), flags=re.MULTILINE)
    unit.write_text(text)
    replace(unit, ("Description=Velm monitor agent", "Description=Older agent"), ("RestartSec=5s", "RestartSec=25s"),
            ("StandardOutput=null", "StandardOutput=journal"))
    unit.chmod(0o664)
    replace(tree / "usr/share/user-tmpfiles.d/velmmonitord.conf", (":0700", ":0755"))
    # Programs of two versions are never the same bytes.
    with open(tree / "usr/sbin/velmmonitord", "ab") as program:
        program.write(b"older")
    shutil.rmtree(tree / "usr/libexec")
    replace(tree / "DEBIAN/postinst", ("/usr/libexec/velmmonitord/user-agents refresh || true", START))


def main():
    source, target = map(pathlib.Path, sys.argv[1:])
    shutil.rmtree(target, ignore_errors=True)
    for package in source.glob("velmmonitord_*.deb"):
        repack(package, target, older_agent, {"Version": VERSION})
    for package in source.glob("velmdaemon-sim_*.deb"):
        repack(package, target, lambda _: None, {"Version": VERSION, "Depends": "velmmonitord"})


if __name__ == "__main__":
    main()
