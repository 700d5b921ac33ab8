"""Manifest.mbdb files whose records are cut, claim more than is there, or come in millions."""

from __future__ import annotations

import random
import struct
from collections.abc import Callable, Iterable
from typing import Any

from .model import Backup, CONTENT, Case, Place, binary, file_id, metadata

HEADER = b"mbdb\x05\x00"
ABSENT = b"\xff\xff"
FILE_MODE, DIRECTORY_MODE, LINK_MODE = 0o100644, 0o040755, 0o120755


def value(data: bytes | None) -> bytes:
    return ABSENT if data is None else struct.pack(">H", len(data)) + data


def entry(path: bytes, mode: int = FILE_MODE, domain: bytes | None = b"HomeDomain", target: bytes | None = None,
          digest: bytes | None = None, key: bytes | None = None, inode: int = 1, times: tuple[int, int, int] = (1, 1, 1),
          size: int = len(CONTENT), protection: int = 0, count: int = 0, properties: bytes = b"") -> bytes:
    return b"".join(map(value, (domain, path, target, digest, key))) + struct.pack(
        ">HQIIIIIQBB", mode, inode, 501, 501, *times, size, protection, count) + properties


def old(whole: bytes, **options: Any) -> Case:
    """A backup of the old format with that manifest."""
    def make(place: Place) -> None:
        backup = Backup(place)
        backup.root.mkdir()
        backup.metadata["Status.plist"] = binary(metadata()["Status.plist"] | {"Version": "2.4"})
        backup.write_metadata()
        (backup.root / "Manifest.mbdb").write_bytes(whole)
        for path in ("a", "Library/notes.txt"):
            (backup.root / file_id("HomeDomain", path)).write_bytes(CONTENT)
    return Case(make, **options)


def of_entries(*entries: bytes, **options: Any) -> Case:
    return old(HEADER + SOUND + b"".join(entries) + entry(b"last"), **options)


SOUND = entry(b"", DIRECTORY_MODE) + entry(b"Library", DIRECTORY_MODE) + entry(b"Library/notes.txt") + entry(b"a")
PATHS = (b"../escape", b"/escape", b"..", b".", b"a//b", b"a/", b"nul\0", b"\x1b[31m", b"\xff\xfe", b"x" * 65_534,
         b"a/" * 32_000, b"\xed\xa0\x80", b"two\nlines", b"Manifest.mbdb", b"Info.plist")
PROPERTY = value(b"name") + value(b"value")


def mutated() -> bytes:
    generator = random.Random(7)
    data = bytearray(SOUND * 40)
    for _ in range(120):
        data[generator.randrange(len(data))] = generator.randrange(256)
    return HEADER + bytes(data)


def each(make: Callable[[Any], bytes], values: Iterable[Any]) -> Case:
    return of_entries(*map(make, values))


BIG = (0, 1, 2**31, 2**32, 2**63 - 1, 2**63, 2**64 - 1)

CASES: dict[str, Case] = {
    "empty_file": old(b""),
    "header_only": old(HEADER),
    "header_cut": old(HEADER[:3]),
    "other_header": old(b"mbdx\x05\x00" + SOUND),
    "other_version": old(b"mbdb\x09\x09" + SOUND),
    **{f"truncated_at_{length}": old((HEADER + SOUND)[:length]) for length in (7, 8, 20, 60, 100, 150, 230)},
    "length_past_the_end": old(HEADER + SOUND + b"\xff\xfe" + b"x" * 100),
    "all_absent": old(HEADER + ABSENT * 2000),
    "zeros": old(HEADER + bytes(100_000)),
    "mutated": old(mutated()),
    "paths": each(lambda path: entry(path), PATHS),
    "directories": each(lambda path: entry(path, DIRECTORY_MODE), PATHS),
    "domains": each(lambda domain: entry(b"file", domain=domain[:60_000]), PATHS),
    "targets": each(lambda pair: entry(b"link %d" % pair[0], LINK_MODE, target=pair[1]), enumerate((*PATHS, None, b""))),
    "without_names": of_entries(entry(b"x", domain=None), entry(b"", domain=None), entry(b"", domain=b"")),
    "modes": each(lambda pair: entry(b"mode %d" % pair[0], pair[1]), enumerate(range(0, 65536, 1777))),
    "sizes": each(lambda size: entry(b"size %d" % size, size=size), BIG),
    "inodes": each(lambda inode: entry(b"inode %d" % inode, inode=inode), BIG),
    "times": each(lambda time: entry(b"time %d" % time, times=(time,) * 3), (0, 2**31, 2**32 - 1)),
    "classes": each(lambda number: entry(b"class %d" % number, protection=number), range(256)),
    "properties": of_entries(entry(b"p", count=255, properties=PROPERTY * 255), entry(b"q", count=1, properties=PROPERTY)),
    "properties_absent": of_entries(entry(b"p", count=255, properties=ABSENT * 510)),
    "properties_missing": old(HEADER + SOUND + entry(b"p", count=255)),
    "properties_odd": of_entries(entry(b"p", count=3, properties=(value(b"\0\x1b[31m") + value(b"x" * 65_534)) * 3)),
    "keys": each(lambda size: entry(b"key %d" % size, key=bytes(size)), (0, 1, 43, 44, 45, 65_534)),
    "digests": each(lambda size: entry(b"digest %d" % size, digest=bytes(size)), (0, 1, 19, 20, 21, 65_534)),
    "same_path": of_entries(*[entry(b"a")] * 1000),
    "large_entries": of_entries(*[entry(b"a" * 65_534, domain=b"d" * 65_534) for _ in range(100)]),
    "many": old(HEADER + entry(b"p") * 200_000, heavy=True),
}
