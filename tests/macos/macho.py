"""Reads the Objective-C metadata of 64-bit Mach-O object files, by the layouts of <mach-o/loader.h>,
<mach-o/reloc.h> and the runtime's own structures."""

import struct
from dataclasses import dataclass


class FormatError(Exception):
    """The file is not what this reader knows; never to be taken for an empty one."""


@dataclass(frozen=True)
class Section:
    name: str
    address: int
    data: bytes


@dataclass(frozen=True)
class Symbol:
    name: str
    section: int  # 0 for one that another file defines
    value: int


@dataclass(frozen=True)
class Method:
    selector: str
    types: str


@dataclass(frozen=True)
class Protocol:
    name: str
    adopted: tuple
    required: tuple
    optional: tuple
    class_methods: int
    extended_types: tuple


@dataclass(frozen=True)
class Class:
    name: str
    superclass: str
    adopted: tuple
    methods: tuple


_MAGIC = 0xFEEDFACF
_CPU = {0x01000007: "x86_64", 0x0100000C: "arm64"}
_SEGMENT_64, _SYMTAB = 0x19, 0x2
_UNSIGNED_QUAD = (0, 3)  # relocation type and length; the same numbers for both processors


class ObjectFile:
    def __init__(self, path):
        with open(path, "rb") as file:
            self._bytes = file.read()
        magic, cpu, _, kind, commands = struct.unpack_from("<IIIII", self._bytes)
        if magic != _MAGIC or cpu not in _CPU or kind != 1:
            raise FormatError(f"{path}: not a 64-bit Mach-O object file")
        self.architecture = _CPU[cpu]
        self._sections, self._symbols, self._relocations = [], [], []
        self._read_commands(commands)
        self._targets = self._resolve_relocations()

    def protocols(self):
        return [self._protocol(address) for address in self._pointers_in("__objc_protolist")]

    def classes(self):
        return [self._class(address) for address in self._pointers_in("__objc_classlist")]

    def sent_selectors(self):
        return [self._text(address) for address in self._pointers_in("__objc_selrefs")]

    def symbols(self):
        return {symbol.name for symbol in self._symbols}

    def undefined_symbols(self):
        return {symbol.name for symbol in self._symbols if symbol.section == 0}

    def _read_commands(self, count):
        offset = 32
        for _ in range(count):
            command, size = struct.unpack_from("<II", self._bytes, offset)
            if command == _SEGMENT_64:
                self._read_sections(offset)
            elif command == _SYMTAB:
                self._read_symbols(offset)
            offset += size

    def _read_sections(self, command):
        (count,) = struct.unpack_from("<I", self._bytes, command + 64)
        for i in range(count):
            name, _, address, size, offset, _, relocations, relocation_count, flags = struct.unpack_from(
                "<16s16sQQIIIII", self._bytes, command + 72 + 80 * i)
            zero_filled = flags & 0xFF == 1
            data = b"" if zero_filled else self._bytes[offset:offset + size]
            self._sections.append(Section(name.rstrip(b"\0").decode(), address, data))
            for j in range(relocation_count):
                where, what = struct.unpack_from("<iI", self._bytes, relocations + 8 * j)
                self._relocations.append((address + where, what))

    def _read_symbols(self, command):
        table, count, strings, _ = struct.unpack_from("<IIII", self._bytes, command + 8)
        for i in range(count):
            name, _, section, _, value = struct.unpack_from("<IBBHQ", self._bytes, table + 16 * i)
            end = self._bytes.index(b"\0", strings + name)
            self._symbols.append(Symbol(self._bytes[strings + name:end].decode(), section, value))

    def _resolve_relocations(self):
        """Where each relocated pointer of the data leads: an address of this file, or another file's symbol."""
        targets = {}
        for address, what in self._relocations:
            number, relative, length, external, kind = (
                what & 0xFFFFFF, what >> 24 & 1, what >> 25 & 3, what >> 27 & 1, what >> 28)
            if relative or (kind, length) != _UNSIGNED_QUAD:
                continue
            (addend,) = struct.unpack("<Q", self._read(address, 8))
            if not external:
                targets[address] = addend
            elif self._symbols[number].section == 0:
                targets[address] = self._symbols[number].name
            else:
                targets[address] = self._symbols[number].value + addend
        return targets

    def _read(self, address, size):
        for section in self._sections:
            start = address - section.address
            if 0 <= start and start + size <= len(section.data):
                return section.data[start:start + size]
        raise FormatError(f"nothing at {address:#x}")

    def _number(self, address, size):
        return int.from_bytes(self._read(address, size), "little")

    def _pointer(self, address):
        if address in self._targets:
            return self._targets[address]
        if self._number(address, 8) != 0:
            raise FormatError(f"a pointer without relocation at {address:#x}")
        return None

    def _text(self, address):
        for section in self._sections:
            start = address - section.address
            if 0 <= start < len(section.data):
                return section.data[start:section.data.index(b"\0", start)].decode()
        raise FormatError(f"no text at {address:#x}")

    def _pointers_in(self, name):
        return [self._pointer(section.address + offset)
                for section in self._sections if section.name == name
                for offset in range(0, len(section.data), 8)]

    def _methods(self, address):
        if address is None:
            return ()
        size, count = self._number(address, 4), self._number(address + 4, 4)
        if size != 24:
            raise FormatError(f"methods of {size} bytes")
        entries = [address + 8 + size * i for i in range(count)]
        return tuple(Method(self._text(self._pointer(entry)), self._text(self._pointer(entry + 8)))
                     for entry in entries)

    def _adopted(self, address):
        if address is None:
            return ()
        count = self._number(address, 8)
        return tuple(self._text(self._pointer(self._pointer(address + 8 + 8 * i) + 8)) for i in range(count))

    def _protocol(self, address):
        required, optional = (self._methods(self._pointer(address + offset)) for offset in (24, 40))
        class_methods = sum(len(self._methods(self._pointer(address + offset))) for offset in (32, 48))
        types = self._pointer(address + 72)
        total = len(required) + len(optional) + class_methods
        return Protocol(
            name=self._text(self._pointer(address + 8)),
            adopted=self._adopted(self._pointer(address + 16)),
            required=required,
            optional=optional,
            class_methods=class_methods,
            extended_types=tuple(self._text(self._pointer(types + 8 * i)) for i in range(total)))

    def _class(self, address):
        constant = self._pointer(address + 32)
        return Class(
            name=self._text(self._pointer(constant + 24)),
            superclass=self._pointer(address + 8),
            adopted=self._adopted(self._pointer(constant + 40)),
            methods=self._methods(self._pointer(constant + 32)))
