"""The lists of mutants: what one is, and whether it still applies to the tree."""

import re
import tomllib
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from test_names import test_names

ALLOWED = {"name", "file", "from", "to", "build", "test", "command", "slow"}


class BadList(Exception):
    """A list that cannot be read, or that does not hold what it was asked for."""


@dataclass(frozen=True)
class Mutant:
    """One mistake, and what must notice it: ctest's tests that match `test`, or a shell command that must fail."""

    area: str
    name: str
    file: str
    original: str
    mistake: str
    build: tuple[str, ...]
    test: str | None
    command: str | None
    slow: bool

    def __str__(self):
        return f"{self.area}/{self.name}"

    def applied(self, text):
        return text.replace(self.original, self.mistake)


def _mutant(area, table):
    where = f"{area}.toml, {table.get('name', 'a mutant without a name')}"
    if unknown := set(table) - ALLOWED:
        raise BadList(f"{where}: unknown key {', '.join(sorted(unknown))}")
    if missing := {"name", "file", "from", "to"} - set(table):
        raise BadList(f"{where}: no {', '.join(sorted(missing))}")
    if ("test" in table) == ("command" in table):
        raise BadList(f"{where}: needs either a test or a command")
    if "test" in table and not table.get("build"):
        raise BadList(f"{where}: a test needs the targets to build")
    return Mutant(area, table["name"], table["file"], table["from"], table["to"], tuple(table.get("build", ())),
                  table.get("test"), table.get("command"), table.get("slow", False))


def load(directory):
    """All mutants of all lists, in the order of the lists' names."""
    mutants = []
    for path in sorted(Path(directory).glob("*.toml")):
        try:
            content = tomllib.loads(path.read_text(encoding="utf-8"))
        except tomllib.TOMLDecodeError as error:
            raise BadList(f"{path.name}: {error}") from error
        if unknown := set(content) - {"mutant"}:
            raise BadList(f"{path.name}: unknown table {', '.join(sorted(unknown))}")
        mutants += [_mutant(path.stem, table) for table in content.get("mutant", [])]
    return mutants


def _problem(mutant, tree, tests):
    path = tree / mutant.file
    if not path.is_file():
        return f"there is no {mutant.file}"
    if mutant.original == mutant.mistake:
        return "changes nothing"
    occurrences = path.read_bytes().decode().count(mutant.original)
    if occurrences != 1:
        return f"its text stands {occurrences} times in {mutant.file}"
    if mutant.test and not any(re.search(mutant.test, name) for name in tests):
        return f"no test is named {mutant.test}"
    return None


def problems(mutants, tree):
    """One line for each mutant that cannot be applied."""
    tests = test_names(tree)
    found = [f"{mutant}: {problem}" for mutant in mutants if (problem := _problem(mutant, tree, tests))]
    names = Counter(str(mutant) for mutant in mutants)
    return found + [f"{name}: stands {count} times in its list" for name, count in names.items() if count > 1]
