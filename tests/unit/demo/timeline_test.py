"""Tests of the timeline that ./run prints."""

import contextlib
import io
import time
import unittest

from timeline import Missing, Timeline, true_time

# 2026/11/16 05:28:20 UTC
NOW = 1794806900.0


def clock(hours, minutes, seconds, milliseconds):
    return (f"{hours:02}", f"{minutes:02}", f"{seconds:02}", f"{milliseconds:03}")


def stamp(when, zone_hours=0):
    """The stamp of a program's line."""
    milliseconds = int(when * 1000)
    return time.strftime("%H:%M:%S", time.gmtime(milliseconds // 1000 + zone_hours * 3600)) + \
        f".{milliseconds % 1000:03}"


class TrueTime(unittest.TestCase):
    def test_is_the_stamp_itself_in_utc(self):
        self.assertAlmostEqual(true_time(clock(5, 28, 19, 250), NOW), NOW - 0.75, places=3)

    def test_does_not_depend_on_the_zone(self):
        for hours, minutes in ((14, 28), (10, 58), (11, 13), (19, 28), (6, 28)):
            with self.subTest(hours=hours, minutes=minutes):
                self.assertAlmostEqual(true_time(clock(hours, minutes, 19, 250), NOW), NOW - 0.75, places=3)

    def test_crosses_midnight(self):
        midnight = NOW - NOW % 86400
        self.assertAlmostEqual(true_time(clock(23, 59, 59, 900), midnight + 0.1), midnight - 0.1, places=3)


class TimelineTest(unittest.TestCase):
    def printed(self, fill):
        """The lines that a timeline prints, without its title."""
        out = io.StringIO()
        with contextlib.redirect_stdout(out):
            timeline = Timeline(colour=False)
            fill(timeline)
            timeline.end()
        return out.getvalue().splitlines()[1:]

    def test_orders_lines_by_their_own_clocks(self):
        # Lines of a time that is still to come are held back until the end, however long this takes.
        now = time.time() + 60

        def fill(timeline):
            timeline.add("agent", f"2026/11/16 {stamp(now + 0.02, 9)} [TRACE] second")
            timeline.add("daemon", f"{stamp(now + 0.01)}  first")

        lines = self.printed(fill)
        self.assertEqual([line.split()[-1] for line in lines], ["first", "second"])

    def test_aligns_its_columns(self):
        def fill(timeline):
            timeline.add("agent", "2026/11/16 05:28:20:007 [TRACE] text")
            timeline.add("daemon", "05:28:20.007  agent 1   <- connect")
            timeline.note("intruder", "forged")

        lines = self.printed(fill)
        for text in ("[TRACE]", "agent 1", "forged"):
            self.assertEqual([line.index(text) for line in lines if text in line], [20], text)

    def test_keeps_the_order_of_lines_of_one_time(self):
        same = stamp(time.time())

        def fill(timeline):
            for text in ("a", "c", "b"):
                timeline.add("daemon", f"{same}  {text}")

        self.assertEqual([line[-1] for line in self.printed(fill)], ["a", "c", "b"])

    def test_finds_lines_of_one_source_since_a_mark(self):
        def fill(timeline):
            timeline.note("agent", "one")
            mark = timeline.mark()
            timeline.note("daemon", "one more")
            timeline.note("agent", "one again")
            self.assertEqual(timeline.wait("agent", "one", mark), "one again")
            self.assertEqual(timeline.since(mark, "agent"), ["one again"])
            self.assertEqual(timeline.wait("agent", "one", count=2), "one again")
            with self.assertRaises(Missing):
                timeline.wait("agent", "one", mark, count=2, cap=0.01)

        self.printed(fill)


if __name__ == "__main__":
    unittest.main()
