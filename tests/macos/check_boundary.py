"""Checks that no exception can leave C++ that a framework calls: in the optimised LLVM IR, no method of our classes
and no block may contain a call that can unwind out of it.

Usage: check_boundary.py FILE.ll..."""

import re
import sys

FUNCTION = re.compile(r'^define (?P<head>.*?)@"?(?P<name>[^"(]+)"?\((?P<body>.*?)^}', re.MULTILINE | re.DOTALL)
# A framework's entries: methods (but for the initialisers, which return an object and which our own code calls) and
# the bodies of blocks.
ENTRY = re.compile(r"^\\01-\[Velm(?!.*\.cxx_)|_block_invoke")
# In the words of LLVM up to 14, and of later versions.
RETURNS_AN_OBJECT = re.compile(r"(i8\*|\bptr) $")
CALL = re.compile(r"^\s*(?:%\S+ = )?(?:(?:tail|musttail|notail) )?call (?P<call>.*)$", re.MULTILINE)
NOUNWIND_GROUP = re.compile(r"^attributes #(\d+) = \{[^}]*\bnounwind\b", re.MULTILINE)


def escapes(body, safe_groups, safe_functions):
    """The instructions of `body` that an exception can leave through."""
    found = re.findall(r"^\s*resume .*$", body, re.MULTILINE)
    for match in CALL.finditer(body):
        call = match.group("call")
        callee = re.search(r'@"?([^"(\s]+)"?\(', call)
        if callee and (callee.group(1) in safe_functions or callee.group(1).startswith("llvm.")):
            continue
        if not any(group in safe_groups for group in re.findall(r"#(\d+)", call)):
            found.append(call)
    return found


def main(*paths):
    entries, failures = 0, []
    for path in paths:
        with open(path, encoding="utf-8") as file:
            text = file.read()
        safe_groups = set(NOUNWIND_GROUP.findall(text))
        functions = list(FUNCTION.finditer(text))
        safe_functions = {match.group("name") for match in functions
                          if any(group in safe_groups
                                 for group in re.findall(r"#(\d+)", match.group("body").split("\n", 1)[0]))}
        for match in functions:
            if not ENTRY.search(match.group("name")) or RETURNS_AN_OBJECT.search(match.group("head")):
                continue
            entries += 1
            for instruction in escapes(match.group("body"), safe_groups, safe_functions):
                failures.append(f"{path.rsplit('/', 1)[-1]}: {match.group('name')} lets an exception out by: "
                                f"{instruction.strip()[:140]}")
    if entries == 0:
        failures.append("no entry found: the check looks for the wrong names")
    print("\n".join(failures) if failures else f"{entries} entries from Objective-C, none lets an exception out")
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
