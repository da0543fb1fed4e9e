"""What is shown: the script of ./run."""

import calendar
import re
import time

from timeline import Missing

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"


def settle(timeline, mark):
    """Returns once every connect since the mark is answered.

    A slow daemon's first answer finds a second connect on its way, and its lines must not fall into the next step. A
    connect that found no daemon is never answered, and then nothing more comes.
    """
    def count(source, pattern):
        return sum(1 for line in timeline.since(mark, source) if re.search(pattern, line))

    timeline.quieten(2, cap=20, until=lambda: count("agent", r"Monitor launcher: requesting connect$")
                     == count("daemon", r"-> connected +YES$") == count("agent", r"Monitor launcher: connected came$"))


def link_up(stage, timeline):
    """the agent starts, and the daemon confirms the link"""
    stage.build()
    stage.start_daemon()
    timeline.wait("daemon", r"\bready\b")
    stage.start_agent()
    timeline.wait("agent", r"velmmonitord started$")
    timeline.wait("agent", r"Monitor launcher: requesting connect$")
    timeline.wait("daemon", r"<- connect$")
    timeline.wait("daemon", r"-> connected +YES$")
    timeline.wait("agent", r"xpc: connection is established: 1$")
    timeline.wait("agent", r"Monitor launcher: connected came$")
    settle(timeline, 0)


def set_screen(stage, timeline, locked):
    mark = timeline.mark()
    stage.set_locked(locked)
    word = "locked" if locked else "unlocked"
    timeline.wait("agent", rf"Screen lock monitor: User's screen was {word}$", mark)
    timeline.wait("agent", rf"Monitor launcher: screen lock status {int(locked)}$", mark)
    timeline.wait("agent", r"xpc service monitor: sending lock screen status$", mark)
    timeline.wait("daemon", rf"<- onScreenLocked +{'YES' if locked else 'NO'}$", mark)


def lock(stage, timeline):
    """the screen is locked"""
    set_screen(stage, timeline, True)


def unlock(stage, timeline):
    """the screen is unlocked"""
    set_screen(stage, timeline, False)


def message(stage, timeline):
    """the daemon sends a message"""
    mark = timeline.mark()
    stage.tell_daemon("put hello, agent")
    timeline.wait("daemon", r"-> putMessage\b", mark)
    timeline.wait("agent", r"agent: incomming message$", mark)


def zone(stage, timeline):
    """the time zone changes from UTC to Tokyo; the stamps in the log follow"""
    mark = timeline.mark()
    stage.etc.set_zone("Asia/Tokyo")
    timeline.wait("agent", r"Timezone changed notification came$", mark)
    timeline.wait("agent", r"xpc service monitor: sending time zone changed notification$", mark)
    timeline.wait("daemon", r"<- onTimeZoneChanged$", mark)
    timeline.note("run", f"The log now reads {check_log_hour(stage)}")


def check_log_hour(stage):
    """The stamp of the last line, taken for Tokyo's time, is the present; returns the line."""
    with open(stage.log, encoding="utf-8") as file:
        last = file.readlines()[-1]
    found = re.match(r"\d{4}/\d\d/\d\d \d\d:\d\d:\d\d", last)
    ahead = calendar.timegm(time.strptime(found.group(0), "%Y/%m/%d %H:%M:%S")) - time.time()
    if abs(ahead - 9 * 3600) > 60:
        raise Missing("stamps in the log that follow the time zone")
    return last.rstrip("\n")


def kill(stage, timeline):
    """the daemon is killed; the agent notices, and asks for it once a second"""
    mark = timeline.mark()
    stage.kill_daemon()
    timeline.wait("agent", r"xpc connection was inerrupted$", mark)
    timeline.wait("agent", r"Monitor launcher: disconnected came$", mark)
    timeline.wait("agent", r"xpc is running$", mark)
    timeline.wait("agent", r"Monitor launcher: requesting connect$", mark, count=2)


def restart(stage, timeline):
    """the daemon comes back, and the link with it"""
    mark = timeline.mark()
    stage.start_daemon()
    timeline.wait("daemon", r"\bready\b", mark)
    timeline.wait("daemon", r"<- connect$", mark)
    timeline.wait("daemon", r"-> connected +YES$", mark)
    timeline.wait("agent", r"xpc: connection is established: 1$", mark)
    timeline.wait("agent", r"Monitor launcher: connected came$", mark)
    settle(timeline, mark)


def intruder(stage, timeline):
    """an intruder, {intruder}, calls the agent and forges a lock"""
    # The agent may have come back under another name with the link: its last arrival counts.
    arrived = [line for line in timeline.since(0, "daemon") if re.search(r" arrived +:", line)][-1]
    link = re.search(r" (:[\d.]+)", arrived).group(1)
    others = [name for name in stage.agent_names() if name != link]
    mark = timeline.mark()
    lines = stage.intrude(link, others, stage.second_user())
    for line in lines:
        timeline.note("intruder", line.replace(ACCESS_DENIED, "refused (AccessDenied)"))
    if lines != ["forged lock: sent", *(f"{member}: {ACCESS_DENIED}" for member in ("connected", "putMessage"))]:
        raise Missing("two refusals of the intruder's calls")
    stage.await_agent(others)
    # What the daemon sends now arrives after whatever the intruder sent to the link.
    stage.tell_daemon("put still me")
    timeline.wait("agent", r"agent: incomming message$", mark)
    moved = [line for line in timeline.since(mark, "agent") if not line.endswith("agent: incomming message")]
    moved += [line for line in timeline.since(mark, "daemon") if "<- " in line]
    if moved:
        raise Missing(f"an agent that the intruder does not move ({moved[0]})")


def end(stage, timeline):
    """the agent is asked to end"""
    mark = timeline.mark()
    status = stage.end_agent()
    if status != 0:
        raise Missing(f"status 0 of the agent (it ended with {status})")
    timeline.wait("daemon", r"\bleft\b", mark)


STEPS = [link_up, lock, unlock, message, zone, kill, restart, intruder, end]


def describe(step, stage):
    other = stage.second_user()
    who = "another program of the same user" if other is None else f"another user (id {other})"
    text = step.__doc__.format(intruder=who)
    return text[0].upper() + text[1:]


def play(stage, timeline):
    """Plays all steps; returns 0 if all of it happened."""
    verdicts = []
    for step in STEPS:
        title = describe(step, stage)
        if verdicts and verdicts[-1][0] != "ok":
            verdicts.append(("not reached", title, ""))
            continue
        timeline.heading(title)
        try:
            step(stage, timeline)
            if step is not end and stage.agent_status() is not None:
                raise Missing(f"a running agent (it ended with status {stage.agent_status()})")
            verdicts.append(("ok", title, ""))
        except Missing as missing:
            verdicts.append(("FAILED", title, f": missing {missing}"))
    timeline.end()
    print("\nVerdict")
    for verdict, title, why in verdicts:
        print(f"  {verdict:<12} {title}{why}")
    all_of_it = all(verdict == "ok" for verdict, _, _ in verdicts)
    print("\nAll of it happened." if all_of_it else "\nNot all of it happened.")
    return 0 if all_of_it else 1
