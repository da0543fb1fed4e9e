#!/usr/bin/env python3
"""Runs clang-tidy on the sources of a build tree that was configured for clang++, one a core.

A source that was clean stays so until it, a header of it, its compile command, the configuration or clang-tidy
itself changes; build/check/tidy remembers. Headers are checked through the sources that include them.

Usage: tools/check/tidy.py BUILD_DIR [SOURCE...]        all sources of the build tree without one
"""

import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

# Others know other checks, and other reasons to complain.
VERSION = "14"
SKIPPED_STATUS = 77
ROOT = pathlib.Path(__file__).resolve().parents[2]
MEMORY = ROOT / "build" / "check" / "tidy"


def output_of(command, directory=ROOT):
    return subprocess.run(command, cwd=directory, check=True, stdout=subprocess.PIPE, text=True).stdout


def configuration():
    """What the verdict on every source rests on."""
    files = output_of(["git", "ls-files", "--", ".clang-tidy", "**/.clang-tidy"]).split()
    return output_of(["clang-tidy", "--version"]).encode() + b"".join((ROOT / file).read_bytes() for file in files)


def fingerprint(entry, shared):
    command = shlex.split(entry["command"])
    output = command.index("-o")
    dependencies = output_of(command[:output] + command[output + 2:] + ["-M"], entry["directory"])
    digest = hashlib.sha256(shared + entry["command"].encode())
    for file in shlex.split(dependencies.replace("\\\n", " "))[1:]:
        digest.update((pathlib.Path(entry["directory"]) / file).read_bytes())
    return digest.hexdigest()


def tidy(entry, build, shared):
    """The verdict's word and what there is to say about it."""
    remembered = MEMORY / fingerprint(entry, shared)
    if remembered.exists():
        return "unchanged", ""
    result = subprocess.run(["clang-tidy", "-p", build, "--quiet", entry["file"]], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        return "FAILED", result.stdout
    remembered.touch()
    return "clean", ""


def main(build, wanted):
    found = re.search(r"version (\d+)", output_of(["clang-tidy", "--version"]))[1]
    if found != VERSION:
        print(f"the checks are chosen for clang-tidy {VERSION}, and this is {found}")
        return SKIPPED_STATUS
    MEMORY.mkdir(parents=True, exist_ok=True)
    tracked = {str(ROOT / file) for file in output_of(["git", "ls-files", "*.cpp"]).split()}
    chosen = tracked & {str(ROOT / file) for file in wanted} if wanted else tracked
    database = json.loads((pathlib.Path(build) / "compile_commands.json").read_text())
    entries = [entry for entry in {entry["file"]: entry for entry in database}.values() if entry["file"] in chosen]
    if not entries:
        sys.exit(f"tidy.py: {build} builds none of these sources")

    shared = configuration()
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        verdicts = {pool.submit(tidy, entry, build, shared): entry["file"] for entry in entries}
        for verdict in concurrent.futures.as_completed(verdicts):
            word, text = verdict.result()
            print(f"{word:9} {os.path.relpath(verdicts[verdict], ROOT)}", flush=True)
            print(text, end="")
            failed += word == "FAILED"
    print(f"{len(entries) - failed} of {len(entries)} sources are clean")
    return failed != 0


if __name__ == "__main__":
    if len(sys.argv) < 2 or not os.path.exists(os.path.join(sys.argv[1], "compile_commands.json")):
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2:]))
