"""Records of entries: each field of each wrong type, and numbers that no file has."""

from __future__ import annotations

import plistlib
import random
import struct
from collections.abc import Callable, Iterable
from datetime import datetime
from typing import Any

from .model import (
    Backup, CONTENT, Case, DOMAIN, FILE, FILE_MODE, Referenced, archive_of, binary, made, record, record_objects,
)  # fmt: skip
from .plists import multiplying, nested

FIELDS = ("LastModified", "Flags", "GroupID", "$class", "LastStatusChange", "RelativePath", "Birth", "Size",
          "InodeNumber", "Mode", "UserID", "ProtectionClass", "Target", "Digest", "EncryptionKey", "ExtendedAttributes")
WRONG: tuple[Any, ...] = (
    "text", "", b"bytes", b"", 1.5, -1, 2**62, True, datetime(2020, 1, 1), [1, 2], {"a": 1}, plistlib.UID(0),
    plistlib.UID(1), plistlib.UID(3), plistlib.UID(99), plistlib.UID(2**31), Referenced("text"), Referenced(b"bytes"),
    Referenced([1]), Referenced({"a": 1}), Referenced(7), Referenced(plistlib.UID(1)), None,
)  # fmt: skip
SIZES = (-1, -2**63, 0, 1, 2**31, 2**32, 2**53, 2**63 - 1, 2**63, 2**64 - 1)
MODES = (0, 0o644, 0o177777, 0o170644, 0o104755, 0o106777, 0o060644, 0o020644, 0o010644, 0o140644, 65536 + 0o100644,
         -1, 2**32 + 0o100644, 2**63 - 1, 0o100000, 0o107000)
TIMES = (-1, 0, 1, 2**31 - 1, 2**31, 2**32 - 1, 2**32, 978307199, 2**62, 2**63 - 1, -2**63)
CLASSES = (-1, 0, 4, 5, 11, 12, 255, 256, 2**31, 2**32, 2**32 + 1, 2**63)
KEYS = (b"", b"k", bytes(43), bytes(44), bytes(45), b"\xff" * 44, bytes(40), bytes(1_000_000))
DIGESTS = (b"", b"d", bytes(19), bytes(20), bytes(21), bytes(32), bytes(1_000_000))
FLAGS = (0, 1, 2, 3, 4, 8, 16, 255, -1, 2**31, 2**40)


def add(backup: Backup, blobs: Iterable[bytes], flags: int = FILE) -> None:
    for index, blob in enumerate(blobs):
        backup.rows.append((f"{flags + 2:x}{index:039x}", DOMAIN, f"Odd/{flags} {index}", flags, blob))


def of_blobs(make: Callable[[], Iterable[bytes]], **options: Any) -> Case:
    return made(lambda backup: add(backup, make()), **options)


def of_values(field: str, values: Iterable[Any]) -> Case:
    """The field with each of the values, for a file, a directory and a link, all with a content."""
    def change(backup: Backup) -> None:
        for index, value in enumerate(values):
            name = f"Odd/{field} {index}"
            backup.file(name, **{field: value})
            mode = {"Mode": value} if field == "Mode" else {field: value, "Mode": 0o040755}
            backup.rows.append((f"d{index:039x}", DOMAIN, name + " directory", 2, record(name, **mode)))
            link = mode | ({} if field == "Mode" else {"Mode": 0o120755}) | {"Target": Referenced("notes.txt")}
            backup.rows.append((f"e{index:039x}", DOMAIN, name + " link", 4, record(name, **link)))
    return made(change)


def wrong_types(field: str) -> Iterable[bytes]:
    for value in WRONG:
        yield record(f"Odd/{field}", **{field: value})


def truncated() -> Iterable[bytes]:
    whole = record("Odd/cut", Digest=Referenced(bytes(20)))
    yield from (whole[:length] for length in range(0, len(whole), 7))


def mutated() -> Iterable[bytes]:
    """Bytes changed at random, the same in every run."""
    generator = random.Random(20)
    whole = record("Odd/mutated", Digest=Referenced(bytes(20)), EncryptionKey=Referenced(bytes(44)))
    for _ in range(1500):
        blob = bytearray(whole)
        for _ in range(generator.randint(1, 4)):
            blob[generator.randrange(len(blob))] = generator.randrange(256)
        yield bytes(blob)


def other_archives() -> Iterable[bytes]:
    """Archives of another version, another top, another class, or none at all."""
    objects = record_objects("Odd/archive", FILE_MODE, 5)
    for name, value in (("$version", 2**64 + 100000), ("$version", "100000"), ("$version", -1), ("$archiver", "Other"),
                        ("$archiver", 5), ("$top", {}), ("$top", []), ("$top", {"root": 1}),
                        ("$top", {"root": plistlib.UID(0)}), ("$top", {"root": plistlib.UID(77)}), ("$objects", {}),
                        ("$objects", []), ("$objects", ["$null"])):
        try:
            yield archive_of(objects, **{name: value})
        except OverflowError:  # numbers above 2^64 are written by hand alone
            continue
    for chain in ({"$classname": "Other", "$classes": ["Other"]}, {"$classname": 5}, {}, plistlib.UID(3), "MBFile",
                  {"$classname": "MBFile", "$classes": ["MBFile"] * 10_000, "$class": plistlib.UID(3)}):
        yield archive_of([*objects[:3], chain, *objects[4:]])
    yield plistlib.dumps({"xml": "instead"}, fmt=plistlib.FMT_XML)
    yield from (binary(5), binary([]), binary({}), b"bplist00", b"<plist/>", b"\0" * 64, b"x")


def cycles() -> Iterable[bytes]:
    own = {"NS.objects": [plistlib.UID(4)] * 3, "NS.keys": [plistlib.UID(4)] * 3, "$class": plistlib.UID(5)}
    for name in ("NSDictionary", "NSArray", "NSMutableData"):
        chain = {"$classname": name, "$classes": [name, "NSObject"]}
        for field in ("ExtendedAttributes", "Digest", "Target"):
            yield archive_of([*record_objects("Odd/cycle", FILE_MODE, 5, **{field: plistlib.UID(4)}), own, chain])


def deep_attributes() -> Iterable[bytes]:
    """Containers in containers, around every limit of depth."""
    for depth in (90, 100, 110, 128, 130, 200, 5000):
        objects = record_objects("Odd/deep", FILE_MODE, 5, ExtendedAttributes=plistlib.UID(5))
        objects.append({"$classname": "NSArray", "$classes": ["NSArray", "NSObject"]})
        for level in range(depth):
            objects.append({"NS.objects": [plistlib.UID(6 + level)], "$class": plistlib.UID(4)})
        objects.append("the end")
        yield archive_of(objects)


def attributes() -> Iterable[bytes]:
    """Extended attributes as devices write them, a property list in data, with anything inside."""
    values: tuple[Any, ...] = (
        b"", b"x", binary([]), binary({}), binary({"a": "text"}), binary({"a": {"b": b"c"}}), binary({"": b""}),
        binary({"a\0b": b"x", "\x1b[31m": b"x", "/": b"y", "..": b"z"}), binary({"a" * 100_000: b"x"}), multiplying(12),
        nested(100_000), binary({f"name {i}": b"v" for i in range(1000)}),
    )  # fmt: skip
    for value in values:
        yield record("Odd/attributes", ExtendedAttributes=Referenced(value))
        yield record("Odd/attributes", ExtendedAttributes=value)


def large_tables() -> Iterable[bytes]:
    objects = record_objects("Odd/large", FILE_MODE, 5)
    yield archive_of(objects + ["x"] * 200_000)
    yield archive_of(objects, extra="x" * 1_000_000)
    yield record("p" * 1_000_000, Target=Referenced("t" * 1_000_000))
    yield struct.pack(">8s", b"bplist00") + bytes(1_000_000)


def sums(backup: Backup) -> None:
    """Sizes that are possible each, and impossible together."""
    for index in range(10):
        backup.file(f"Odd/{index}", Size=2**62)


def other_flags(backup: Backup) -> None:
    for index, flags in enumerate(FLAGS):
        for kind, mode in enumerate((FILE_MODE, 0o040755, 0o120755)):
            backup.rows.append((f"{kind}{index:039x}", DOMAIN, f"Odd/{kind} {index}", flags, record("x", mode)))


def other_paths(backup: Backup) -> None:
    """The record names another path than the row."""
    for index, path in enumerate(("../escape", "/escape", "", "Library/notes.txt", "\0", "x" * 100_000)):
        backup.rows.append((f"{index:040x}", DOMAIN, f"Library/row {index}", FILE, record(path, size=len(CONTENT))))


CASES: dict[str, Case] = {
    **{f"types_of_{field.strip('$')}": of_blobs(lambda field=field: wrong_types(field)) for field in FIELDS},
    "sizes": of_values("Size", SIZES),
    "modes": of_values("Mode", MODES),
    **{f"times_of_{field}": of_values(field, TIMES) for field in ("LastModified", "Birth", "LastStatusChange")},
    "classes": of_values("ProtectionClass", CLASSES),
    "inodes": of_values("InodeNumber", SIZES),
    "users": of_values("UserID", SIZES),
    "groups": of_values("GroupID", SIZES),
    "keys": of_values("EncryptionKey", [Referenced(key) for key in KEYS]),
    "digests": of_values("Digest", [Referenced(digest) for digest in DIGESTS]),
    "truncated": of_blobs(truncated),
    "mutated": of_blobs(mutated),
    "archives": of_blobs(other_archives),
    "cycles": of_blobs(cycles),
    "deep_attributes": of_blobs(deep_attributes),
    "attributes": of_blobs(attributes),
    "large_tables": of_blobs(large_tables),
    "sums": made(sums),
    "flags": made(other_flags),
    "paths": made(other_paths),
}
