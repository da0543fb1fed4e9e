"""Plays the script of ./run with the macOS agent and stand-in, as two processes over the doubles of the frameworks, and
compares the agent's log and the daemon's record, line by line, with those of the real demonstration on Linux.

Usage: play.py ROOT MACOS_BUILD [LINUX_BUILD]        without the last, only plays
"""

import concurrent.futures
import os
import re
import shutil
import subprocess
import sys
import tempfile

from mac_stage import MacStage


def zone(stage, timeline):
    """the time zone changes"""
    mark = timeline.mark()
    stage.change_zone()
    timeline.wait("agent", r"Timezone changed notification came$", mark)
    timeline.wait("agent", r"xpc service monitor: sending time zone changed notification$", mark)
    timeline.wait("daemon", r"<- onTimeZoneChanged$", mark)


def perform(play, timeline_module, build):
    """Plays it here; returns whether all of it happened, and the lines of each step."""
    directory = tempfile.mkdtemp(prefix="velm-macos-play.", dir="/tmp")
    timeline = timeline_module.Timeline(False)
    stage = MacStage(directory, build, timeline)
    steps = {}
    try:
        for name in STEPS:
            step = zone if name == "zone" else getattr(play, name)
            timeline.heading(f"{name}: {step.__doc__}")
            mark = timeline.mark()
            step(stage, timeline)
            timeline.quieten(0.3, 0.6)
            if stage.agent_status() is not None:
                raise timeline_module.Missing(f"a running agent (it ended with status {stage.agent_status()})")
            steps[name] = {source: timeline.since(mark, source) for source in ("agent", "daemon")}
    except timeline_module.Missing as missing:
        timeline.end()
        print(f"missing {missing}")
        print("\n".join(stage.complaints()))
        return None
    finally:
        stage.strike()
        shutil.rmtree(directory, ignore_errors=True)
    timeline.end()
    return steps


STEPS = ["link_up", "lock", "unlock", "message", "zone", "kill", "restart"]


def demonstrate(root, play, build):
    """Runs the demonstration; returns the lines of each step."""
    programs = [os.path.join(build, "src/velmmonitord/velmmonitord"),
                os.path.join(build, "tools/velmdaemon-sim/linux/velmdaemon-sim")]
    done = subprocess.run([sys.executable, "-B", os.path.join(root, "tools/demo/demo.py"), *programs], text=True,
                          capture_output=True, check=False, timeout=240)
    if done.returncode != 0:
        print(done.stdout + done.stderr)
        return None
    titles = {getattr(play, name).__doc__.lower().split("{")[0]: name for name in STEPS + ["intruder", "end"]}
    steps, current = {}, None
    for line in done.stdout.splitlines():
        found = re.match(r" *\d+\.\d{3}  (agent|daemon) +(.*)$", line)
        if found and current is not None:
            current[found.group(1)].append(found.group(2))
            continue
        heading = re.match(r" *\d+\.\d{3}  (.*)$", line)
        for title, name in titles.items():
            if heading and heading.group(1).lower().startswith(title):
                current = steps[name] = {"agent": [], "daemon": []}
    return steps


def comparable(lines):
    """Without what differs from run to run: names of peers, counts of seconds, and how often a second passed."""
    result = set()
    for line in lines:
        line = re.sub(r"^(agent|connection)? *(\d+|:[\d.]+)? +", "agent ", line)
        line = re.sub(r" {2,}", " ", line)
        line = re.sub(r"(arrived|left|ready)\b.*", r"\1", line)
        result.add(line)
    return sorted(result)


def main(root, macos_build, linux_build=None):
    sys.path.insert(0, os.path.join(root, "tools/demo"))
    import play
    import timeline
    if linux_build is None:
        here = perform(play, timeline, macos_build)
        print("the demonstration's script was played, and compared with nothing" if here else "the script was not played")
        return 0 if here else 1
    with concurrent.futures.ThreadPoolExecutor() as pool:
        demonstration = pool.submit(demonstrate, root, play, linux_build)
        here = perform(play, timeline, macos_build)
        there = demonstration.result()
    if here is None or there is None:
        print("the script was not played to its end")
        return 1
    differences, equal = 0, 0
    for step in STEPS:
        for source in ("agent", "daemon"):
            mine, its = comparable(here[step][source]), comparable(there.get(step, {}).get(source, []))
            equal += len(set(mine) & set(its))
            for line in sorted(set(mine) ^ set(its)):
                differences += 1
                print(f"{step}: only on {'macOS' if line in mine else 'Linux'}: {source}: {line}")
    print(f"the demonstration's script: {equal} lines of the agent and the daemon as on Linux, {differences} not")
    return 1 if differences or equal < 30 else 0


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
