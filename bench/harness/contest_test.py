#!/usr/bin/python3 -B
"""Tests of what bench/run makes of rows whose contestants fail, are absent, or take turns. Usage: this file alone."""

import contextlib
import importlib.util
import io
import itertools
import json
import pathlib
import sys
import tempfile
import unittest
from importlib.machinery import SourceFileLoader
from unittest import mock

BENCH = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(BENCH))

from harness.contest import NotHere, Row, measure_all  # noqa: E402


def gives(*values):
    """A contestant that measures these, one a round, again and again."""
    turns = itertools.cycle(values)
    return lambda: {"time": next(turns)}


def absent():
    raise NotHere("its library is not installed")


def breaks():
    raise RuntimeError("it crashed")


def measured(contestants, rounds=1, **options):
    """The result of such a row, and what was printed."""
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed):
        result, = measure_all([Row("row", "a row", "us", "time", contestants, **options)], rounds)
    return result, printed.getvalue()


def loaded(program):
    """A program of bench/ as a module."""
    loader = SourceFileLoader(f"bench_{program}", str(BENCH / program))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


def run_command(rows, *arguments):
    """bench/run with these rows and nothing to build: its status or message, and bench.json."""
    command = loaded("run")
    with tempfile.TemporaryDirectory() as out, contextlib.redirect_stdout(io.StringIO()), \
            mock.patch.object(command, "build"), mock.patch.object(command, "Bench") as bench, \
            mock.patch.object(sys, "argv", ["bench/run", "--rounds", "2", "--out", out, *arguments]):
        bench.return_value.rows.return_value = rows
        status = 0
        try:
            command.main()
        except SystemExit as end:
            status = end.code
        written = pathlib.Path(out, "bench.json")
        return status, json.loads(written.read_text(encoding="utf-8")) if written.exists() else None


class Command(unittest.TestCase):
    def test_succeeds_when_every_row_ran(self):
        status, written = run_command([Row("good", "a row", "us", "time", {"velm": gives(2), "floor": gives(1)})])
        self.assertEqual(status, 0)
        self.assertEqual(written["rows"]["good"]["ratios"]["velm / floor"], {"median": 2, "rounds": [2, 2]})

    def test_fails_with_one_row_that_failed_after_all_rows_ran(self):
        bad = Row("bad", "a row", "us", "time", {"velm": gives(2), "floor": breaks}, floors=("floor",))
        good = Row("good", "a row", "us", "time", {"velm": gives(2)})
        status, written = run_command([bad, good])
        self.assertEqual(status, "bench/run: failed: bad")
        self.assertEqual(written["rows"]["bad"]["ratios"], {})
        self.assertIn("good", written["rows"])

    def test_fails_when_no_row_is_named_so(self):
        status, _ = run_command([Row("good", "a row", "us", "time", {"velm": gives(2)})], "--rows", "goo")
        self.assertEqual(status, "bench/run: no row is named goo")


class Publish(unittest.TestCase):
    whole = {"rows": {"good": {"failed": {}}}, "quick": False, "whole": True, "commit": "abc1234"}

    def test_takes_a_whole_run_of_a_commit_and_nothing_else(self):
        publish = loaded("publish")
        self.assertIsNone(publish.flaw_of(self.whole))
        for part, flaw in (({"rows": {"bad": {"failed": {"floor": "it crashed"}}}}, "failures: bad"),
                           ({"quick": True}, "quick"), ({"whole": False}, "some rows"),
                           ({"commit": "abc1234-dirty"}, "no commit")):
            self.assertIn(flaw, publish.flaw_of({**self.whole, **part}))

    def test_a_run_tells_whether_it_was_whole(self):
        row = Row("good", "a row", "us", "time", {"velm": gives(2)})
        self.assertTrue(run_command([row])[1]["whole"])
        self.assertFalse(run_command([row], "--rows", "goo*")[1]["whole"])


class Contest(unittest.TestCase):
    def test_a_ratio_is_made_within_each_round(self):
        # Medians of each alone would give 2; the pairs say 10, 1, 10.
        result, printed = measured({"velm": gives(10, 20, 300), "floor": gives(1, 20, 30)}, 3, floors=("floor",))
        self.assertEqual(result.ratios(), [("velm / floor", [10, 1, 10])])
        self.assertIn("= velm / floor", printed)
        self.assertFalse(result.failed)

    def test_the_order_is_rotated_from_round_to_round(self):
        order = []
        contestants = {name: (lambda name=name: order.append(name) or {"time": 1}) for name in ("a", "b", "c")}
        measured(contestants, 3)
        self.assertEqual("".join(order), "abc" "bca" "cab")

    def test_a_peer_that_is_not_installed_has_no_ratio_and_fails_nothing(self):
        result, printed = measured({"velm": gives(2), "floor": gives(1), "peer": absent}, floors=("floor",))
        self.assertEqual(result.ratios(), [("velm / floor", [2])])
        self.assertIn("not measured: its library is not installed", printed)
        self.assertFalse(result.failed)

    def test_without_its_floor_a_row_has_no_ratio_and_has_failed(self):
        result, printed = measured({"velm": gives(2), "floor": absent}, floors=("floor",))
        self.assertEqual(result.ratios(), [])
        self.assertNotIn("=", printed)
        self.assertTrue(result.failed)

    def test_without_its_subject_a_row_has_failed(self):
        result, _ = measured({"velm": absent, "peer": gives(1)})
        self.assertEqual(result.ratios(), [])
        self.assertTrue(result.failed)

    def test_whoever_breaks_fails_the_row_and_is_named(self):
        for name in ("velm", "floor", "peer"):
            contestants = {"velm": gives(2), "floor": gives(1), "peer": gives(1), name: breaks}
            result, printed = measured(contestants, floors=("floor",))
            self.assertTrue(result.failed, name)
            self.assertRegex(printed, f"{name} +FAILED: RuntimeError: it crashed")
            self.assertNotIn(name, "".join(title.split(" / ")[-1] for title, _ in result.ratios()))

    def test_a_round_that_broke_is_not_paired_with_another(self):
        turns = iter([{"time": 100}, None, {"time": 1}])

        def sometimes():
            return next(turns) or breaks()

        result, _ = measured({"velm": gives(1, 2, 3), "floor": sometimes}, 3, floors=("floor",))
        self.assertEqual(result.ratios(), [("velm / floor", [1 / 100, 3 / 1])])

    def test_a_ratio_of_several_needs_all_of_them(self):
        ratios = (("velm / (a + b)", lambda v: v["velm"] / (v["a"] + v["b"])),)
        both, _ = measured({"velm": gives(6), "a": gives(1), "b": gives(2)}, ratios=ratios)
        one, _ = measured({"velm": gives(6), "a": gives(1), "b": absent}, ratios=ratios)
        self.assertEqual(both.ratios(), [("velm / (a + b)", [2])])
        self.assertEqual(one.ratios(), [])

    def test_nothing_is_divided_by_zero_or_less(self):
        for value in (0, -3):
            result, printed = measured({"velm": gives(1), "floor": gives(2, value)}, 2, floors=("floor",))
            self.assertEqual(result.ratios(), [], value)
            self.assertEqual(result.as_json()["without ratio"], ["velm / floor"])
            self.assertRegex(printed, "= velm / floor +none: not above zero in each round")


if __name__ == "__main__":
    outcome = unittest.main(exit=False, verbosity=0).result
    bad = len(outcome.failures) + len(outcome.errors)
    print(f"{outcome.testsRun - bad} passed, {bad} failed")
    sys.exit(bad != 0)
