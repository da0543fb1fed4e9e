"""Trying a mutant: the copy is built with the mistake, and the tests that must notice it are run."""

import enum
import os
import re
import subprocess
import tempfile
import xml.etree.ElementTree as ElementTree
from pathlib import Path

# Less than a test has by itself, as many a mistake is a hang; still far above what any test needs.
TEST_TIMEOUT = 60
# For commands, which may boot a whole system.
COMMAND_TIMEOUT = 1800


class NoReport(Exception):
    """ctest ended without saying what it did."""


class Verdict(enum.Enum):
    CAUGHT = "caught"
    SURVIVED = "SURVIVED"
    NOT_BUILT = "DID NOT BUILD"
    UNFIT = "TEST UNFIT"


def _unions(expressions):
    """Few expressions that match what all of these match. CMake's have room for 31 pairs of brackets."""
    union = ""
    for expression in expressions:
        if union and (len(union) > 2000 or (union + expression).count("(") > 30):
            yield union
            union = ""
        union += f"{'|' if union else ''}{expression}"
    if union:
        yield union


class Trial:
    """Builds and tests in a copy, whose log of the last build or test is in `build/mutants/last.log`."""

    def __init__(self, copy, jobs):
        self._copy = copy
        self._jobs = str(jobs)
        # Most tests wait for something most of the time.
        self._test_jobs = str(4 * jobs)
        self._log = copy.place.parent / "last.log"

    def _run(self, command, **options):
        with open(self._log, "w") as log:
            return subprocess.run(command, cwd=self._copy.place, stdin=subprocess.DEVNULL, stdout=log,
                                  stderr=subprocess.STDOUT, check=False, **options).returncode

    def _build(self, targets):
        return self._run(["cmake", "--build", "--preset", "debug", "-j", self._jobs, "--target", *targets]) == 0

    def _test(self, expression, *options):
        """What ctest ran, as a dictionary from the test's name to whether it passed."""
        with tempfile.NamedTemporaryFile(suffix=".xml") as report:
            self._run(["ctest", "--preset", "debug", "-R", expression, "-j", self._test_jobs, *options,
                       "--output-junit", report.name])
            text = Path(report.name).read_bytes()
        if not text:
            raise NoReport
        cases = ElementTree.fromstring(text).iter("testcase")
        # The others were skipped, or not run any more.
        return {case.get("name"): case.get("status") == "run" for case in cases
                if case.get("status") in ("run", "fail")}

    def _command(self, command):
        """Whether the command succeeds. It runs in a session of its own, so that a hang can be ended with all its
        children."""
        try:
            return self._run(["setsid", "--wait", "timeout", "--kill-after=10", str(COMMAND_TIMEOUT), "sh", "-c",
                              command]) == 0
        except OSError:
            return False

    def _give_up(self, why):
        tail = "\n".join(self._log.read_text(errors="replace").splitlines()[-30:])
        raise SystemExit(f"mutants: {why}:\n{tail}")

    def without_mistake(self, mutants):
        """Builds everything that the mutants need and runs all their tests. Returns verdicts for those whose test says
        nothing, as it does not exist, or fails also without the mistake."""
        configured = self._run(["cmake", "--preset", "debug", f"-DVELM_TEST_TIMEOUT={TEST_TIMEOUT}"]) == 0
        targets = sorted({target for mutant in mutants for target in mutant.build})
        if not configured or (targets and not self._build(targets)):
            self._give_up("the tree itself does not build")
        tests = {}
        for expression in _unions(sorted({mutant.test for mutant in mutants if mutant.test})):
            try:
                tests.update(self._test(expression))
            except NoReport:
                self._give_up("ctest finds no test, or cannot run")
        commands = {command: self._command(command) for command in
                    sorted({mutant.command for mutant in mutants if mutant.command})}
        unfit = {mutant: self._unfitness(mutant, tests, commands) for mutant in mutants}
        return {mutant: (Verdict.UNFIT, reason) for mutant, reason in unfit.items() if reason}

    @staticmethod
    def _unfitness(mutant, tests, commands):
        if mutant.command:
            return None if commands[mutant.command] else f"'{mutant.command}' fails without the mistake too"
        named = {name: passed for name, passed in tests.items() if re.search(mutant.test, name)}
        if not named:
            return f"no test is named {mutant.test}"
        failed = sorted(name for name, passed in named.items() if not passed)
        return f"fails without the mistake too: {', '.join(failed)}" if failed else None

    def of(self, mutant):
        """The verdict, and who caught it."""
        with self._copy.with_mistake(mutant):
            if mutant.build and not self._build(mutant.build):
                return Verdict.NOT_BUILT, self._first_error()
            if mutant.command:
                caught = not self._command(mutant.command)
                return (Verdict.CAUGHT, f"by {mutant.command}") if caught else (Verdict.SURVIVED, mutant.command)
            try:
                results = self._test(mutant.test, "--stop-on-failure")
            except NoReport:
                return Verdict.UNFIT, "ctest finds no test any more, or cannot run"
            failed = sorted(name for name, passed in results.items() if not passed)
            if failed:
                return Verdict.CAUGHT, f"by {failed[0]}"
            if not results:
                return Verdict.UNFIT, f"no test matching {mutant.test} ran"
            return Verdict.SURVIVED, f"{len(results)} tests matching {mutant.test} passed"

    def _first_error(self):
        errors = [line for line in self._log.read_text(errors="replace").splitlines() if re.search("error:|FAILED|undefined", line)]
        return errors[0].replace(f"{self._copy.place}{os.sep}", "") if errors else "see build/mutants/last.log"
