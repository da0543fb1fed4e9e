"""Checks that the objects need nothing of the C++ library that macOS 10.12 does not have: std::filesystem, and the
exceptions of std::any, std::optional and std::variant, came with later systems.

Usage: check_deployment.py OBJECT... -- SOURCE..."""

import pathlib
import re
import sys

import macho

# As they stand in mangled names.
TOO_NEW = ("bad_any_cast", "bad_optional_access", "bad_variant_access", "10filesystem", "St11align_val_t", "3pmr")


# Refused by Apple's library even where it can't throw, which this host's optimises away.
REFUSED = re.compile(r"\bstd::visit\b")


def main(objects, sources):
    failures = []
    for path in sources:
        if REFUSED.search(pathlib.Path(path).read_text(encoding="utf-8")):
            failures.append(f"{path} uses std::visit, which macOS 10.12 lacks")
    for path in objects:
        names = macho.ObjectFile(path).symbols()
        for word in TOO_NEW:
            found = sorted(name for name in names if word in name)
            if found:
                failures.append(f"{path.rsplit('/', 1)[-1]} needs {word}, which macOS 10.12 lacks: {found[0]}")
    print("\n".join(failures) if failures else
          f"{len(objects)} objects and {len(sources)} sources need nothing that macOS 10.12 lacks")
    return 1 if failures else 0


if __name__ == "__main__":
    if "--" not in sys.argv:
        sys.exit(__doc__)
    middle = sys.argv.index("--")
    sys.exit(main(sys.argv[1:middle], sys.argv[middle + 1:]))
