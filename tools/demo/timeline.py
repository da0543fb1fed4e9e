"""One timeline, on one clock, from programs that have clocks of their own."""

import os
import re
import sys
import threading
import time

COLOURS = {"agent": "36", "daemon": "32", "intruder": "31", "run": "1"}
# How long a line waits for an earlier one that is still on its way through a pipe.
HOLD_BACK = 0.2
STAMP = re.compile(r"^(?:\d{4}/\d\d/\d\d )?(\d\d):(\d\d):(\d\d)[:.](\d{3}) +(.*)$")
QUARTER_HOUR = 900.0


class Missing(Exception):
    """What was waited for and did not come."""


def true_time(clock, now):
    """The time of a stamp (hours, minutes, seconds, milliseconds) in any time zone that was read at `now`.

    Zones differ by whole quarters of an hour, and a line is not read a quarter of an hour late.
    """
    hours, minutes, seconds, milliseconds = (int(part) for part in clock)
    stamp = hours * 3600 + minutes * 60 + seconds + milliseconds / 1000
    late = (stamp - now + QUARTER_HOUR / 2) % QUARTER_HOUR - QUARTER_HOUR / 2
    return now + late


class Timeline:
    """Collects lines from several threads, prints them in the order of their times, and finds them again."""

    def __init__(self, colour):
        self._colour = colour
        self._changed = threading.Condition()
        self._entries = []  # (source, text) in the order of their arrival
        self._waiting = []  # (time, sequence, source, text), not yet printed
        self._start = time.time()
        self._ended = False
        self._titled = False
        self._printer = threading.Thread(target=self._print_when_due, daemon=True)
        self._printer.start()

    def add(self, source, line):
        """A line of a program, which begins with the program's own time."""
        now = time.time()
        found = STAMP.match(line)
        if found:
            self._add(true_time(found.group(1, 2, 3, 4), now), source, found.group(5))
        else:
            self._add(now, source, line)

    def read(self, source, stream):
        """Adds the lines of a stream until it ends. Blocks, so it needs a thread."""
        for line in stream:
            self.add(source, line.rstrip("\n"))

    def follow(self, source, path):
        """Adds the lines of a file that is to come, and to grow, for ever. Blocks, so it needs a thread."""
        while not os.path.exists(path):
            time.sleep(0.005)
        with open(path, encoding="utf-8", errors="replace") as file:
            rest = ""
            while True:
                rest += file.readline()
                if rest.endswith("\n"):
                    self.add(source, rest[:-1])
                    rest = ""
                else:
                    time.sleep(0.005)

    def heading(self, text):
        """Says what happens next."""
        self.note("run", text)

    def note(self, source, text):
        """A line that has no time of its own."""
        # The programs cut their times to milliseconds; so is this one, to stand before what it causes.
        self._add(int(time.time() * 1000) / 1000, source, text)

    def _add(self, when, source, text):
        with self._changed:
            self._waiting.append((when, len(self._entries), source, text))
            self._entries.append((source, text))
            self._changed.notify_all()

    def mark(self):
        """A place to look from later."""
        with self._changed:
            return len(self._entries)

    def since(self, mark, source):
        """The lines of one source since the mark."""
        with self._changed:
            return [text for entry_source, text in self._entries[mark:] if entry_source == source]

    def wait(self, source, pattern, mark=0, count=1, cap=20.0):
        """Waits for that many lines of one source, since the mark, that the pattern matches; returns the last."""
        deadline = time.monotonic() + cap
        with self._changed:
            while True:
                found = [text for entry_source, text in self._entries[mark:]
                         if entry_source == source and re.search(pattern, text)]
                if len(found) >= count:
                    return found[count - 1]
                left = deadline - time.monotonic()
                if left <= 0:
                    raise Missing(f"a line of the {source} like /{pattern}/ within {cap:g} s")
                self._changed.wait(left)

    def quieten(self, quiet=0.5, cap=5.0, until=lambda: False):
        """Waits until no line has come for a while, or until something holds."""
        deadline = time.monotonic() + cap
        with self._changed:
            while time.monotonic() < deadline and not until():
                known = len(self._entries)
                if not self._changed.wait_for(lambda known=known: len(self._entries) > known, quiet):
                    return

    def settle(self):
        """Waits until everything so far is printed."""
        with self._changed:
            while self._waiting:
                self._changed.wait(HOLD_BACK)

    def end(self):
        """Prints what is left; later lines are not printed."""
        with self._changed:
            self._ended = True
            self._changed.notify_all()
        self._printer.join()

    def _print_when_due(self):
        while True:
            with self._changed:
                now = time.time()
                due = [entry for entry in self._waiting if self._ended or entry[0] <= now - HOLD_BACK]
                self._waiting = [entry for entry in self._waiting if entry not in due]
                for entry in sorted(due):
                    self._print(*entry)
                if due:
                    self._changed.notify_all()
                if self._ended:
                    return
                self._changed.wait(HOLD_BACK / 4 if self._waiting else None)

    def _print(self, when, _sequence, source, text):
        seconds = when - self._start
        if not self._titled:
            self._titled = True
            sys.stdout.write(f"{'seconds':>8}  {'who':<9} line\n")
        if source == "run":
            line = f"{seconds:8.3f}  {text}"
            blank = "\n"
        else:
            line = f"{seconds:8.3f}  {source:<9} {text}"
            blank = ""
        if self._colour:
            line = f"\033[{COLOURS[source]}m{line}\033[0m"
        sys.stdout.write(f"{blank}{line}\n")
        sys.stdout.flush()


def wants_colour():
    return sys.stdout.isatty() and "NO_COLOR" not in os.environ and os.environ.get("TERM") != "dumb"
