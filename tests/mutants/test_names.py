"""The names of the tests, as ctest has them, read from the sources: nothing need be built."""

import re

TEST = re.compile(r"\b(TEST|TEST_F|TEST_P)\(\s*(\w+),\s*(\w+)\s*\)")
INSTANCE = re.compile(r"\bINSTANTIATE_TEST_SUITE_P\(\s*(\w+),\s*(\w+)")


def test_names(tree):
    """Of a test with parameters, the name up to them."""
    sources = [path.read_text(encoding="utf-8") for path in (tree / "tests").rglob("*.cpp")]
    prefixes = {}
    for source in sources:
        for prefix, suite in INSTANCE.findall(source):
            prefixes.setdefault(suite, []).append(prefix)
    names = set()
    for source in sources:
        for macro, suite, name in TEST.findall(source):
            if macro == "TEST_P":
                names.update(f"{prefix}/{suite}.{name}/" for prefix in prefixes.get(suite, ()))
            else:
                names.add(f"{suite}.{name}")
    for path in (tree / "tests").rglob("CMakeLists.txt"):
        names.update(re.findall(r"add_test\(NAME (\S+)", path.read_text(encoding="utf-8")))
    return names
