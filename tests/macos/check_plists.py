"""Parses the launchd property lists and checks what launchd and the package rely on.

Usage: check_plists.py DIRECTORY"""

import pathlib
import plistlib
import subprocess
import sys

PROGRAMS = "/Library/Application Support/Brovik"

EXPECTED = {
    "com.brovik.velmmonitord": {
        "ProgramArguments": [f"{PROGRAMS}/velmmonitord"],
        "LimitLoadToSessionType": "Aqua",
        "RunAtLoad": True,
        "KeepAlive": True,
        "ProcessType": "Adaptive",
        "ThrottleInterval": 10,
    },
    "com.brovik.velmdaemon": {
        "MachServices": {"com.brovik.velmdaemon": True},
        "RunAtLoad": True,
        "StandardOutPath": "/var/log/velmdaemon-sim.log",
        "StandardErrorPath": "/var/log/velmdaemon-sim.log",
    },
}


def check(path):
    # xmllint is the stricter reader of XML, plistlib the one that knows property lists.
    linted = subprocess.run(["xmllint", "--noout", "--nonet", str(path)], capture_output=True, text=True, check=False)
    if linted.returncode != 0:
        return [linted.stderr.strip()]
    try:
        with path.open("rb") as file:
            content = plistlib.load(file, fmt=plistlib.FMT_XML)
    except Exception as error:  # plistlib raises whatever its parsing meets
        return [f"{path}: {error}"]
    label = path.stem
    failures = []
    for key, value in {"Label": label, **EXPECTED[label]}.items():
        # A 1 is not a true here, though it is to Python.
        if content.get(key) != value or type(content.get(key)) is not type(value):
            failures.append(f"{path}: {key} is {content.get(key)!r}, should be {value!r}")
    unknown = set(content) - set(EXPECTED[label]) - {"Label", "ProgramArguments"}
    if unknown:
        failures.append(f"{path}: keys that nobody decided on: {sorted(unknown)}")
    return failures


def main(directory):
    paths = sorted(pathlib.Path(directory).glob("*.plist"))
    failures = [failure for path in paths if path.stem in EXPECTED for failure in check(path)]
    names = {path.stem for path in paths}
    if names != set(EXPECTED):
        failures.append(f"{directory} has {sorted(names)}, should have {sorted(EXPECTED)}")
    print("\n".join(failures) if failures else f"{len(paths)} property lists parsed and as intended")
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1]))
