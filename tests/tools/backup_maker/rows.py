"""Backups that are nothing but a large manifest, for measuring how fast one opens.

Building every row through the property-list library would take minutes. Rows of one shape differ in a few fields of
fixed width only, so one archive of each shape is built properly, with marks in place of those fields, and the marks are
then overwritten row by row.
"""

from __future__ import annotations

import hashlib
import struct
from collections.abc import Iterator
from pathlib import Path

from . import archive, expectations
from .build import open_sink, write_database
from .database import Row
from .keybag import KeyBagMaker
from .metadata import MetadataMaker, make_device
from .model import DIRECTORY, Entry, FILE, Options, ROW_FLAGS, Stored
from .randomness import Randomness

# Values that nothing else in an archive equals, as wide as what replaces them.
MARK_MODIFIED, MARK_CHANGED, MARK_BIRTH, MARK_SIZE, MARK_INODE = (0x71A1A1A1 + step for step in range(5))
MARK_DIGEST, MARK_KEY = b"\xd1" * 20, b"\xe1" * 40
# Lengths of the paths, chosen for the averages of real manifests; a domain's root has the empty path.
PATH_LENGTHS = (28, 32, 36, 40, 48, 72)
# The application domains that the rows are spread over: as many as on a device in use.
DOMAINS = 200
DIRECTORIES_PERCENT = 12
# Of the files of a plain backup; all files of an encrypted one have a key.
KEYS_PERCENT = 20
# Below this a number would take fewer bytes than its mark.
SMALLEST_NUMBER = 1 << 16


class Template:
    """The archive of one shape of row."""

    def __init__(self, kind: str, path_length: int, with_digest: bool, with_key: bool, protection: int) -> None:
        is_file = kind == FILE
        entry = Entry("", "P" * path_length, kind, 0o644 if is_file else 0o755, MARK_BIRTH, MARK_MODIFIED,
                      MARK_CHANGED, MARK_INODE, size=MARK_SIZE if is_file else 0, protection=protection)
        key = struct.pack("<I", protection) + MARK_KEY if is_file and with_key else None
        blob = archive.encode(Stored(entry, "", MARK_DIGEST if with_digest and is_file else None, key))
        marks = {"modified": pack(MARK_MODIFIED), "changed": pack(MARK_CHANGED), "birth": pack(MARK_BIRTH),
                 "inode": pack(MARK_INODE), "path": entry.path.encode()}
        if is_file:
            marks["size"] = pack(MARK_SIZE)
        if key is not None:
            marks["key"] = MARK_KEY
        if is_file and with_digest:
            marks["digest"] = MARK_DIGEST
        if not path_length:
            del marks["path"]
        self._split(blob, marks)

    def _split(self, blob: bytes, marks: dict[str, bytes]) -> None:
        for name, mark in marks.items():
            if blob.count(mark) != 1:
                raise AssertionError(f"the mark of {name} is not unique")
        found = sorted((blob.index(mark), len(mark), name) for name, mark in marks.items())
        self._pieces: list[bytes] = []
        self._names: list[str] = []
        start = 0
        for offset, length, name in found:
            self._pieces.append(blob[start:offset])
            self._names.append(name)
            start = offset + length
        self._pieces.append(blob[start:])

    def fill(self, values: dict[str, bytes]) -> bytes:
        parts = [self._pieces[0]]
        for name, piece in zip(self._names, self._pieces[1:]):
            parts += (values[name], piece)
        return b"".join(parts)


def pack(number: int) -> bytes:
    return struct.pack(">I", number)


class RowsMaker:
    """Makes the manifest of such a backup and the property lists beside it."""

    def __init__(self, options: Options) -> None:
        self._options = options
        self._randomness = Randomness(options.seed)
        self._device = make_device(self._randomness)
        self._templates: dict[tuple[str, int, bool, bool, int], Template] = {}
        self._counts = {FILE: 0, DIRECTORY: 0}
        self._domains: set[str] = set()
        self._total_size = 0

    def make(self, output: Path, expectations_path: Path) -> None:
        sink = open_sink(self._options, output, self._device.date)
        keybag = KeyBagMaker(self._options, self._randomness).make()
        manifest_key = self._randomness.octets("manifest key", 32)
        write_database(sink, self._rows(), self._options, manifest_key)
        MetadataMaker(self._options, self._randomness, self._device, []).write(sink, keybag, manifest_key)
        sink.close()
        backup = expectations.describe_backup(self._options, self._device, [])
        backup |= {"domains": len(self._domains), "files": self._counts[FILE],
                   "directories": self._counts[DIRECTORY], "totalSize": self._total_size}
        expectations.write(expectations_path, backup, [])

    def _rows(self) -> Iterator[Row]:
        count = self._options.rows or 0
        previous = None
        for index in range(count):
            number = index * DOMAINS // count
            domain = f"AppDomain-com.example.app{number:03}"
            self._domains.add(domain)
            yield self._row(domain, index, is_root=number != previous)
            previous = number

    def _row(self, domain: str, index: int, is_root: bool) -> Row:
        raw = self._randomness.octets(f"row/{index}", 96)
        first, second, size, inode, pick = struct.unpack(">IIIII", raw[:20])
        kind = DIRECTORY if is_root or pick % 100 < DIRECTORIES_PERCENT else FILE
        length = 0 if is_root else PATH_LENGTHS[pick // 100 % len(PATH_LENGTHS)]
        path = "" if is_root else f"Documents/{index // 50:06}/{index:07}".ljust(length - 4, "x") + ".bin"
        modified = self._device.date - first % 100_000_000
        size = 0 if kind == DIRECTORY else SMALLEST_NUMBER + size % 1_000_000
        self._counts[kind] += 1
        self._total_size += size
        blob = self._template(kind, length, pick).fill({
            "modified": pack(modified), "changed": pack(modified + second % 60),
            "birth": pack(modified - second % 30_000_000), "inode": pack(inode | SMALLEST_NUMBER), "size": pack(size),
            "path": path.encode(), "digest": raw[20:40], "key": raw[40:80]})
        identifier = hashlib.sha1(f"{domain}-{path}".encode()).hexdigest()
        return identifier, domain, path, ROW_FLAGS[kind], blob

    def _template(self, kind: str, path_length: int, pick: int) -> Template:
        with_digest = pick // 1000 % 10 < 7
        with_key = self._options.encrypted or pick // 100_000 % 100 < KEYS_PERCENT
        protection = 1 + pick // 10_000 % 4 if kind == FILE else 0
        key = (kind, path_length, with_digest, with_key, protection)
        if key not in self._templates:
            self._templates[key] = Template(*key)
        return self._templates[key]
