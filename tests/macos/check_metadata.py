"""Compares the Objective-C metadata in object files with the protocol tables.

Usage: check_metadata.py TABLE REVIEW OBJECT...

TABLE is the printed table, REVIEW the text that must name every selector and every function of the frameworks that
the agent's objects call. Those of the stand-in need no review: they do not ship."""

import re
import sys
from dataclasses import dataclass

import macho

# The one optional method that the agent leaves out; the connection then refuses the call.
NOT_IMPLEMENTED = {"rmmMessage:"}

# The exported objects of the agent and the stand-in, and the protocol that each implements.
CLASSES = {"VelmXpcExportedObject": "XpcAgentProtocol", "VelmSimExportedObject": "XpcDaemonProtocol"}

# The C functions and constants of the frameworks, as symbols.
FRAMEWORK_SYMBOL = re.compile(r"^_((?:NS|CF|kCF)[A-Z]\w*)$")

# Added by the compiler for members with constructors and destructors.
COMPILERS_OWN = {".cxx_construct", ".cxx_destruct"}


@dataclass(frozen=True)
class Expected:
    selector: str
    required: bool
    types: str
    extended: str


class Checker:
    def __init__(self):
        self.failures = []
        self.counts = {}

    def expect_equal(self, what, found, expected):
        if found != expected:
            self.failures.append(f"{what}\n    is        {found}\n    should be {expected}")

    def expect_same_lists(self, what, found, expected):
        """The first place where they differ says more than both as a whole."""
        for i in range(max(len(found), len(expected))):
            is_there = found[i] if i < len(found) else "nothing"
            wanted = expected[i] if i < len(expected) else "nothing"
            if is_there != wanted:
                self.failures.append(f"{what}, number {i + 1}\n    is        {is_there}\n    should be {wanted}")
                return

    def count(self, what, number=1):
        self.counts[what] = self.counts.get(what, 0) + number


def encodings(arguments, reply, architecture):
    """The type encoding of a method and its extended form: result, frame size, self, _cmd and each argument, with
    their offsets in the frame. BOOL is a signed char on Intel and bool on Apple silicon, and takes an int's room."""
    boolean = {"x86_64": "c", "arm64": "B"}[architecture]
    plain = {"Bool": (boolean, 4), "Int": ("i", 4), "Integer": ("q", 8), "Data": ("@", 8), "String": ("@", 8)}
    extended = {"Data": '@"NSData"', "String": '@"NSString"', "Number": '@"NSNumber"', "Bool": boolean}
    fields = [(plain[each][0], extended.get(each, plain[each][0]), plain[each][1]) for each in arguments]
    if reply != "None":
        fields.append(("@?", f"@?<v@?{extended[reply]}>", 8))
    offset = 16
    types, extended_types = "", ""
    for short, long, size in fields:
        types += f"{short}{offset}"
        extended_types += f"{long}{offset}"
        offset += size
    return f"v{offset}@0:8{types}", f"v{offset}@0:8{extended_types}"


def read_table(path, architecture):
    protocols = {}
    with open(path, encoding="utf-8") as table:
        for line in table:
            protocol, selector, need, reply, *arguments = line.split()
            types, extended = encodings(arguments, reply, architecture)
            protocols.setdefault(protocol, []).append(Expected(selector, need == "required", types, extended))
    return protocols


def check_protocol(checker, where, protocol, expected):
    required = [method for method in expected if method.required]
    optional = [method for method in expected if not method.required]
    title = f"{where}: protocol {protocol.name}"
    checker.expect_equal(f"{title}: adopted protocols", protocol.adopted, ())
    checker.expect_equal(f"{title}: class methods", protocol.class_methods, 0)
    for need, found, wanted in (("required", protocol.required, required),
                                ("optional", protocol.optional, optional)):
        checker.expect_same_lists(f"{title}: {need} methods", [method.selector for method in found],
                                  [method.selector for method in wanted])
        checker.expect_same_lists(f"{title}: types of the {need} methods", [method.types for method in found],
                                  [method.types for method in wanted])
    checker.expect_same_lists(f"{title}: extended types", protocol.extended_types,
                              [method.extended for method in required + optional])
    checker.count("protocol")
    checker.count("method", len(protocol.required) + len(protocol.optional))


def check_class(checker, where, found, protocol, expected):
    title = f"{where}: class {found.name}"
    checker.expect_equal(f"{title}: superclass", found.superclass, "_OBJC_CLASS_$_NSObject")
    checker.expect_equal(f"{title}: adopted protocols", found.adopted, (protocol,))
    wanted = {method.selector: method.types for method in expected if method.selector not in NOT_IMPLEMENTED}
    implemented = {method.selector: method.types for method in found.methods
                   if method.selector not in COMPILERS_OWN and not method.types.startswith("@")}
    checker.expect_same_lists(f"{title}: implemented methods", sorted(implemented.items()), sorted(wanted.items()))
    checker.count("class")


def main(table, review, *paths):
    checker = Checker()
    seen = set()
    called = set()
    for path in paths:
        file = macho.ObjectFile(path)
        where = f"{path.rsplit('/', 1)[-1]} ({file.architecture})"
        protocols = read_table(table, file.architecture)
        for protocol in file.protocols():
            if protocol.name in protocols:
                check_protocol(checker, where, protocol, protocols[protocol.name])
                seen.add((protocol.name, file.architecture))
        for found in file.classes():
            if found.name in CLASSES:
                check_class(checker, where, found, CLASSES[found.name], protocols[CLASSES[found.name]])
                seen.add((found.name, file.architecture))
        if "/src/" in path:
            called.update(file.sent_selectors())
            called.update(match.group(1) for match in map(FRAMEWORK_SYMBOL.match, file.undefined_symbols()) if match)

    for architecture in ("x86_64", "arm64"):
        for name in ("XpcDaemonProtocol", "XpcAgentProtocol", *CLASSES):
            if (name, architecture) not in seen:
                checker.failures.append(f"{name} is in no {architecture} object file")
    with open(review, encoding="utf-8") as text:
        reviewed = text.read()
    for name in sorted(called):
        if f"`{name}`" not in reviewed:
            checker.failures.append(f"{review} does not review `{name}`, which the agent calls")

    for failure in checker.failures:
        print(failure)
    if not checker.failures:
        counts = checker.counts
        print(f"{counts['protocol']} emissions of the protocols with {counts['method']} methods and "
              f"{counts['class']} classes equal the table; {len(called)} selectors and functions called, all reviewed")
    return 1 if checker.failures else 0


if __name__ == "__main__":
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
