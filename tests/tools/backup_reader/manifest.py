"""The entries of a manifest, from the database or from the older binary file."""

from __future__ import annotations

import hashlib
import plistlib
import sqlite3
import struct
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from . import device_form
from .errors import BackupError

TYPES = {0o100000: "file", 0o040000: "directory", 0o120000: "symlink"}
TYPE_MASK = 0o170000
PLACEHOLDER = 16
ABSENT = 0xFFFF
# Owners may be negative: that of nobody is -2.
FIXED = struct.Struct(">HQiiIIIQBB")


@dataclass
class Entry:
    """One entry as the manifest describes it."""

    file_id: str
    domain: str
    path: str
    target: str
    mode: int
    uid: int
    gid: int
    birth: int
    modified: int
    changed: int
    size: int
    protection: int
    digest: bytes | None
    key: bytes | None
    attributes: dict[str, Any] = field(default_factory=dict)
    inode: int = 0
    # What the row of a database says of the kind; None where there is no row.
    flags: int | None = None

    @property
    def kind(self) -> str:
        return TYPES.get(self.mode & TYPE_MASK, "unknown")


class Archive:
    """A keyed archive; references are UID values or, as other writers have them, dictionaries of one key."""

    def __init__(self, blob: bytes) -> None:
        self._plist = plistlib.loads(blob)
        self._objects = self._plist["$objects"]

    def root(self) -> dict[str, Any]:
        return self.value(self._plist["$top"]["root"])

    def value(self, item: Any) -> Any:
        """What a reference leads to; wrapped values are taken out of their wrappers."""
        index = reference(item)
        if index is None:
            return item
        if index == 0:
            return None
        found = self._objects[index]
        for key in ("NS.data", "NS.string", "NS.number"):
            if isinstance(found, dict) and key in found:
                return self.value(found[key])
        return found

    def attributes(self, item: Any) -> dict[str, Any]:
        """Extended attributes: a property list inside data, or a dictionary object."""
        found = self.value(item)
        if isinstance(found, bytes):
            return plistlib.loads(found)
        if found is None:
            return {}
        return {self.value(key): self.value(value) for key, value in zip(found["NS.keys"], found["NS.objects"])}


def reference(item: Any) -> int | None:
    if isinstance(item, plistlib.UID):
        return item.data
    if isinstance(item, dict) and set(item) == {"CF$UID"}:
        return item["CF$UID"]
    return None


def decode_row(file_id: str, domain: str, path: str, flags: int, blob: bytes) -> Entry:
    archive = Archive(blob)
    record = archive.root()
    numbers = {key: archive.value(record[key]) for key in (
        "Mode", "UserID", "GroupID", "Birth", "LastModified", "LastStatusChange", "Size", "ProtectionClass",
        "InodeNumber")}
    if archive.value(record["RelativePath"]) != path:
        raise BackupError(f"row {file_id!r} and its record differ in their paths")
    return Entry(
        file_id, domain, path, archive.value(record.get("Target")) or "", numbers["Mode"], numbers["UserID"],
        numbers["GroupID"], numbers["Birth"], numbers["LastModified"], numbers["LastStatusChange"], numbers["Size"],
        numbers["ProtectionClass"], archive.value(record.get("Digest")), archive.value(record.get("EncryptionKey")),
        archive.attributes(record.get("ExtendedAttributes")), numbers["InodeNumber"], flags)


@dataclass
class Manifest:
    """All entries in the manifest's order, and how many rows only keep a file ID."""

    entries: list[Entry]
    placeholders: int = 0
    # What is wrong with the database as such, beside its rows.
    faults: list[str] = field(default_factory=list)


def read_database(path: Path, strict: bool = False) -> Manifest:
    """With strict, the faults are also those of its form."""
    manifest = Manifest([])
    # The file may claim a write-ahead log, which a reader must not start to write.
    connection = sqlite3.connect(f"{path.absolute().as_uri()}?immutable=1", uri=True)
    try:
        rows = connection.execute("SELECT fileID, domain, relativePath, flags, file FROM Files")
        for file_id, domain, relative_path, flags, blob in rows:
            if flags == PLACEHOLDER and not domain and not blob:
                manifest.placeholders += 1
                continue
            if strict:
                manifest.faults += device_form.row_faults(file_id, blob)
            manifest.entries.append(decode_row(file_id, domain, relative_path, flags, blob))
        manifest.faults += device_form.database_faults(connection) if strict else layout_faults(connection)
        manifest.faults += soundness_faults(connection)
    except (sqlite3.Error, plistlib.InvalidFileException, KeyError, IndexError, TypeError, ValueError) as error:
        raise BackupError(f"Manifest.db cannot be read: {error!r}") from error
    finally:
        connection.close()
    return manifest


COLUMNS = [("fileID", "TEXT", 1), ("domain", "TEXT", 0), ("relativePath", "TEXT", 0), ("flags", "INTEGER", 0),
           ("file", "BLOB", 0)]
PROPERTIES = [("key", "TEXT", 1), ("value", "BLOB", 0)]
INDEXES = {"FilesDomainIdx": "domain", "FilesFlagsIdx": "flags", "FilesRelativePathIdx": "relativePath"}
USER_VERSION, PAGE_SIZE = 2, 4096


def layout_faults(connection: sqlite3.Connection) -> Iterator[str]:
    """What the tables and indexes lack, and what they have beyond what anybody writes."""
    for table, wanted in (("Files", COLUMNS), ("Properties", PROPERTIES)):
        found = [(row[1], row[2], row[5]) for row in connection.execute(f"PRAGMA table_info({table})")]
        if found != wanted:
            yield f"table {table} has the columns {found}"
    names = {row[0] for row in connection.execute("SELECT name FROM sqlite_master WHERE sql IS NOT NULL")}
    if names != {"Files", "Properties", *INDEXES}:
        yield f"the schema holds {sorted(names)}"
    for index, column in INDEXES.items():
        if [row[2] for row in connection.execute(f"PRAGMA index_info({index})")] != [column]:
            yield f"{index} is no index of {column}"


def soundness_faults(connection: sqlite3.Connection) -> Iterator[str]:
    for pragma, wanted_value in (("user_version", USER_VERSION), ("page_size", PAGE_SIZE), ("integrity_check", "ok")):
        [value] = connection.execute(f"PRAGMA {pragma}").fetchone()
        if value != wanted_value:
            yield f"{pragma} is {value!r}"


class Cursor:
    """Takes values off the front of Manifest.mbdb."""

    def __init__(self, data: bytes) -> None:
        self._data = data
        self._offset = 0

    def take(self, count: int) -> bytes:
        if count > len(self._data) - self._offset:
            raise BackupError("Manifest.mbdb ends inside a record")
        self._offset += count
        return self._data[self._offset - count:self._offset]

    def value(self) -> bytes:
        length = int.from_bytes(self.take(2), "big")
        return b"" if length == ABSENT else self.take(length)

    def at_end(self) -> bool:
        return self._offset == len(self._data)


def read_binary(data: bytes) -> Manifest:
    cursor = Cursor(data)
    if cursor.take(6)[:4] != b"mbdb":
        raise BackupError("Manifest.mbdb has no mark at its start")
    return Manifest(list(binary_entries(cursor)))


def binary_entries(cursor: Cursor) -> Iterator[Entry]:
    while not cursor.at_end():
        domain, path, target = (cursor.value().decode() for _ in range(3))
        digest, key = cursor.value(), cursor.value()
        mode, inode, uid, gid, changed, modified, birth, size, protection, count = FIXED.unpack(
            cursor.take(FIXED.size))
        attributes = {cursor.value().decode(): cursor.value() for _ in range(count)}
        file_id = hashlib.sha1(f"{domain}-{path}".encode()).hexdigest()
        yield Entry(file_id, domain, path, target, mode, uid, gid, birth, modified, changed, size, protection,
                    digest or None, key or None, attributes, inode)
