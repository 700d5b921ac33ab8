"""What a case is, and a plain backup that a case spoils in one place."""

from __future__ import annotations

import hashlib
import plistlib
import sqlite3
from collections.abc import Callable
from dataclasses import dataclass, field
from datetime import datetime
from pathlib import Path
from typing import Any

FILE_MODE, DIRECTORY_MODE, LINK_MODE = 0o100644, 0o040755, 0o120755
FILE, DIRECTORY, LINK = 1, 2, 4
DOMAIN = "HomeDomain"
CONTENT = b"an ordinary content\n"
SCHEMA = ("CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB);"
          "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB);")
# The same without the promise that no file ID comes twice.
LOOSE_SCHEMA = "CREATE TABLE Files (fileID, domain, relativePath, flags, file)"
INSERT = "INSERT INTO Files VALUES (?, ?, ?, ?, ?)"
# Found in no output: it lies outside the backup, and only a link or a name that leads out could bring it there.
SECRET = b"this is a secret that no backup may lead to"


@dataclass(frozen=True)
class Place:
    """Where a case is made, and a directory outside with what must not be reached."""

    backup: Path
    outside: Path

    @property
    def secret(self) -> Path:
        return self.outside / "secret"


@dataclass(frozen=True)
class Case:
    """One hostile backup."""

    make: Callable[[Place], None]
    zipped: bool = False
    password: bool = False
    # Takes seconds or much memory: only a few of the commands are run on it, unless everything is asked for.
    heavy: bool = False
    needs_root: bool = False
    # The exit status of a command that must have it, or several; the others may end as they like.
    status: dict[str, int | tuple[int, ...]] = field(default_factory=dict)
    # Texts of which one stands in the messages of a command that fails.
    message: tuple[str, ...] = ()


def file_id(domain: str, path: str) -> str:
    return hashlib.sha1(f"{domain}-{path}".encode("utf-8", "surrogatepass")).hexdigest()


def binary(value: Any) -> bytes:
    return plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)


def record_objects(path: Any, mode: int, size: Any, **changes: Any) -> list[Any]:
    """The archive's objects of one record: changes replace fields, and None removes one."""
    record: dict[str, Any] = {
        "LastModified": 1_600_000_000, "Flags": 0, "GroupID": 501, "LastStatusChange": 1_600_000_000,
        "Birth": 1_600_000_000, "Size": size, "InodeNumber": 4711, "Mode": mode, "UserID": 501, "ProtectionClass": 0,
    }
    objects: list[Any] = ["$null", record, path, {"$classname": "MBFile", "$classes": ["MBFile", "NSObject"]}]
    record["RelativePath"], record["$class"] = plistlib.UID(2), plistlib.UID(3)
    for name, value in changes.items():
        if value is None:
            record.pop(name, None)
        elif isinstance(value, Referenced):
            objects.append(value.value)
            record[name] = plistlib.UID(len(objects) - 1)
        else:
            record[name] = value
    return objects


@dataclass
class Referenced:
    """A value that stands in the archive's table, with a reference to it in the record."""

    value: Any


def archive_of(objects: list[Any], **changes: Any) -> bytes:
    return binary({"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": plistlib.UID(1)},
                   "$objects": objects} | changes)


def record(path: Any, mode: int = FILE_MODE, size: Any = len(CONTENT), **changes: Any) -> bytes:
    return archive_of(record_objects(path, mode, size, **changes))


Row = tuple[Any, Any, Any, Any, Any]


def metadata() -> dict[str, dict[str, Any]]:
    """The property lists of a plain backup."""
    lockdown = {"ProductVersion": "16.7.2", "BuildVersion": "20H115", "DeviceName": "Test", "ProductType": "iPhone12,1"}
    return {
        "Manifest.plist": {"Version": "10.0", "IsEncrypted": False, "SystemDomainsVersion": "24.0",
                           "Date": datetime(2023, 11, 5), "Lockdown": lockdown, "Applications": {}},
        "Info.plist": {"Device Name": "Test", "Product Version": "16.7.2", "Unique Identifier": "00" * 20},
        "Status.plist": {"Version": "3.2", "IsFullBackup": True, "UUID": "0" * 36, "Date": datetime(2023, 11, 5)},
    }


class Backup:
    """A directory backup in the making, ordinary until something is done to it."""

    def __init__(self, place: Place) -> None:
        self.place = place
        self.root = place.backup
        self.rows: list[Row] = []
        # Property lists, or the bytes of one.
        self.metadata: dict[str, Any] = dict(metadata())
        self.schema = SCHEMA
        # Stored names with their content, beside those of the entries.
        self.stored: dict[str, bytes] = {}

    def file(self, path: Any, domain: Any = DOMAIN, content: bytes = CONTENT, **changes: Any) -> str:
        """Adds an entry with its content; gives the stored name."""
        identifier = file_id(str(domain), str(path))
        self.rows.append((identifier, domain, path, FILE, record(path, size=len(content), **changes)))
        self.stored[f"{identifier[:2]}/{identifier}"] = content
        return f"{identifier[:2]}/{identifier}"

    def file_with_id(self, identifier: Any, path: str, **changes: Any) -> None:
        """Adds an entry without content."""
        self.rows.append((identifier, DOMAIN, path, FILE, record(path, **changes)))

    def directory(self, path: Any, domain: Any = DOMAIN) -> None:
        self.rows.append((file_id(str(domain), str(path)), domain, path, DIRECTORY, record(path, DIRECTORY_MODE, 0)))

    def link(self, path: Any, target: Any, domain: Any = DOMAIN) -> None:
        blob = record(path, LINK_MODE, 0, Target=Referenced(target))
        self.rows.append((file_id(str(domain), str(path)), domain, path, LINK, blob))

    def write(self) -> Path:
        self.root.mkdir()
        self.write_metadata()
        self.write_stored()
        self.write_database()
        return self.root

    def write_metadata(self) -> None:
        for name, values in self.metadata.items():
            (self.root / name).write_bytes(values if isinstance(values, bytes) else binary(values))

    def write_stored(self) -> None:
        for name, content in self.stored.items():
            path = self.root / name
            path.parent.mkdir(exist_ok=True)
            path.write_bytes(content)

    def write_database(self) -> None:
        with sqlite3.connect(self.root / "Manifest.db") as connection:
            connection.executescript("PRAGMA page_size=4096; PRAGMA synchronous=OFF; PRAGMA journal_mode=OFF;")
            connection.executescript(self.schema)
            connection.executemany(INSERT, self.rows)
        connection.close()


def ordinary(place: Place) -> Backup:
    """A small sound backup, not yet written."""
    backup = Backup(place)
    backup.directory("")
    backup.directory("Library")
    backup.file("Library/notes.txt")
    backup.file("Library/more.txt", content=CONTENT * 300)
    return backup


def made(change: Callable[[Backup], None], **options: Any) -> Case:
    """A case of an ordinary backup that is changed before it is written."""
    def make(place: Place) -> None:
        backup = ordinary(place)
        change(backup)
        backup.write()
    return Case(make, **options)


def spoiled(spoil: Callable[[Path, Place], None], **options: Any) -> Case:
    """A case of an ordinary backup whose files are harmed once they are written."""
    def make(place: Place) -> None:
        spoil(ordinary(place).write(), place)
    return Case(make, **options)
