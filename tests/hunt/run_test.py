#!/usr/bin/python3 -B
"""Tests that tests/hunt/run disturbs what it runs and names what failed. Usage: this file alone."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

RUN = pathlib.Path(__file__).resolve().parent / "run"

NOT_TRACED = "grep -q '^TracerPid:.0$' /proc/self/status"
HAS_SEVERAL_PROCESSORS = "test $(nproc) -gt 1"
# ctest's neighbours are those that the hunt has started.
HAS_NO_BUSY_LOOP = """
hunt=$(awk '/^PPid/ {print $2}' /proc/$PPID/status)
for child in $(cat /proc/$hunt/task/$hunt/children); do
    ! grep 'while True' /proc/$child/cmdline || exit 1
done"""

CANNOT_TRACE = subprocess.run("strace -qq true", shell=True, capture_output=True, check=False).returncode != 0


class Hunt(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory()
        self.addCleanup(place.cleanup)
        self.build = pathlib.Path(place.name)

    def hunt(self, tests, *arguments):
        """The status and the output of a hunt over such tests: names and shell commands."""
        (self.build / "CTestTestfile.cmake").write_text("".join(
            f'add_test("{name}" "sh" "-c" [==[{command}]==])\n'
            f'set_tests_properties("{name}" PROPERTIES LABELS unit SKIP_RETURN_CODE 77)\n'
            for name, command in tests.items()))
        done = subprocess.run([RUN, self.build, *arguments], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout + done.stderr

    def test_tests_that_pass_find_nothing(self):
        status, output = self.hunt({"A.Passes": "true", "A.IsSkipped": "exit 77"}, "--way", "shuffled", "--times", "3")
        self.assertEqual(status, 0, output)
        self.assertIn("1 ways, 3 times each: 0 found something, 0 skipped", output)

    def test_a_test_that_fails_now_and_then_is_named_with_how_often(self):
        now_and_then = f'n=$(cat {self.build}/n || echo 0); echo $((n + 1)) > {self.build}/n; test "$n" != 1'
        status, output = self.hunt({"A.Passes": "true", "B.Fails": now_and_then}, "--way", "shuffled", "--times", "3")
        self.assertEqual(status, 1, output)
        self.assertIn("failed: B.Fails, 1 of 3 times", output)
        self.assertNotIn("A.Passes", output)

    @unittest.skipIf(len(os.sched_getaffinity(0)) == 1, "there is one processor only")
    @unittest.skipIf(CANNOT_TRACE, "strace may not trace here")
    def test_each_way_takes_effect(self):
        tests = {"IsTraced": NOT_TRACED, "IsPinned": HAS_SEVERAL_PROCESSORS, "HasBusyLoop": HAS_NO_BUSY_LOOP}
        expected = {"shuffled": (), "busy": ("HasBusyLoop",), "one-processor": ("HasBusyLoop", "IsPinned"),
                    "slow-sockets": ("IsTraced",), "slow-starts": ("IsTraced",), "slow-threads": ("IsTraced",),
                    "slow-files": ("IsTraced",), "slow-ends": ("IsTraced",), "slow-messages": ("IsTraced",)}
        for way, failing in expected.items():
            with self.subTest(way):
                _, output = self.hunt(tests, "--way", way, "--times", "1")
                found = re.findall(r"failed: (\w+), 1 of 1 times", output)
                self.assertEqual(sorted(found), sorted(failing), output)

    @unittest.skipIf(CANNOT_TRACE, "strace may not trace here")
    def test_a_delayed_call_is_late(self):
        late = "began=$(date +%s%N); /bin/true; test $(($(date +%s%N) - began)) -lt 110000000"
        status, output = self.hunt({"Late": late}, "--way", "slow-starts", "--times", "1")
        self.assertEqual(status, 1, output)

    def test_a_way_that_the_machine_does_not_allow_is_skipped_with_the_reason(self):
        tool = self.build / "strace"
        tool.write_text("#!/bin/sh\necho 'strace: not allowed' >&2; exit 1\n")
        tool.chmod(0o755)
        with mock.patch.dict(os.environ, PATH=f"{self.build}:{os.environ['PATH']}"):
            status, output = self.hunt({"A": "false"}, "--way", "slow-starts", "--times", "1")
        self.assertEqual(status, 0, output)
        self.assertRegex(output, "skip +slow-starts +strace: not allowed\n1 ways, 1 times each: 0 found something, 1 skipped")

    def test_no_test_at_all_is_a_failure(self):
        status, output = self.hunt({"A": "true"}, "--tests", "Nonsense", "--way", "shuffled", "--times", "1")
        self.assertEqual(status, 1, output)
        self.assertIn("found no such tests", output)

    def test_a_place_without_tests_is_refused(self):
        done = subprocess.run([RUN, self.build], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 2)
        self.assertIn(f"there are no tests in {self.build}", done.stderr)


if __name__ == "__main__":
    outcome = unittest.main(exit=False, verbosity=0).result
    bad, skipped = len(outcome.failures) + len(outcome.errors), len(outcome.skipped)
    for test, reason in outcome.skipped:
        print(f"skipped: {test.id().split('.')[-1]}: {reason}")
    print(f"{outcome.testsRun - bad - skipped} passed, {bad} failed, {skipped} skipped")
    sys.exit(bad != 0)
