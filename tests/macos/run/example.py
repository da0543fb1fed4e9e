"""Plays a short script with the macOS agent and the example daemon, as two processes over the doubles of the frameworks.

Usage: example.py ROOT MACOS_BUILD
"""

import os
import shutil
import sys
import tempfile

from mac_stage import MacStage


def link(stage, timeline):
    stage.build()
    stage.start_daemon()
    stage.start_agent()
    timeline.wait("daemon", r": connected; whether the screen is locked is not known$")
    timeline.wait("agent", r"xpc: connection is established: 1$")


def lock(stage, timeline):
    stage.set_locked(True)
    timeline.wait("daemon", r": screen locked$")


def unlock(stage, timeline):
    stage.set_locked(False)
    timeline.wait("daemon", r": screen unlocked$")


def zone(stage, timeline):
    stage.change_zone()
    timeline.wait("daemon", r": time zone changed$")
    timeline.wait("agent", r"agent: incomming message$")


def leave(stage, timeline):
    stage.kill_agent()
    timeline.wait("daemon", r": gone$")


STEPS = [link, lock, unlock, zone, leave]


def main(root, build):
    sys.path.insert(0, os.path.join(root, "tools/demo"))
    from timeline import Missing, Timeline
    directory = tempfile.mkdtemp(prefix="velm-macos-example.", dir="/tmp")
    timeline = Timeline(False)
    stage = MacStage(directory, build, timeline, "example_daemon")
    try:
        for step in STEPS:
            timeline.heading(step.__name__)
            step(stage, timeline)
    except Missing as missing:
        timeline.end()
        print(f"the example daemon: missing {missing}")
        print("\n".join(stage.complaints()))
        return 1
    finally:
        stage.strike()
        shutil.rmtree(directory, ignore_errors=True)
    timeline.end()
    print("the example daemon: linked, saw a lock, an unlock and another zone, was heard, and saw the agent go")
    return 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
