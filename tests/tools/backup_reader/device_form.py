"""The form in which devices write records, rows and metadata, and nothing beside it.

Writers differ, and readers in the field do not: most of them take native references and wrapped keys alone. What passes
here passes there.
"""

from __future__ import annotations

import plistlib
import re
import sqlite3
from collections.abc import Iterator
from typing import Any

DIGEST_SIZE, KEY_SIZE = 20, 44
TOP_LEVEL = ["$version", "$archiver", "$top", "$objects"]
ARCHIVER, ARCHIVER_VERSION = "NSKeyedArchiver", 100000
RECORD_CLASS = ["MBFile", "NSObject"]
DATA_CLASS = ["NSMutableData", "NSData", "NSObject"]
DICTIONARY_CLASSES = (["NSDictionary", "NSObject"], ["NSMutableDictionary", "NSDictionary", "NSObject"])
NUMBERS = ("LastModified", "Flags", "GroupID", "LastStatusChange", "Birth", "Size", "InodeNumber", "Mode", "UserID",
           "ProtectionClass")
REFERENCES = ("$class", "RelativePath", "Target", "Digest", "EncryptionKey", "ExtendedAttributes")
TIMES, OWNERS = ("LastModified", "LastStatusChange", "Birth"), ("UserID", "GroupID")
# Some writers make a time before 2001 later by 2**32 seconds; nothing else comes to lie here.
LATE_TIMES = range(2**32, 2**32 + 978_307_200)
SIGNED_32_BITS = range(-2**31, 2**31)

STATEMENTS = {
    "Files": "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB)",
    "FilesDomainIdx": "CREATE INDEX FilesDomainIdx ON Files(domain)",
    "FilesRelativePathIdx": "CREATE INDEX FilesRelativePathIdx ON Files(relativePath)",
    "FilesFlagsIdx": "CREATE INDEX FilesFlagsIdx ON Files(flags)",
    "Properties": "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB)",
}
PRAGMAS = {"auto_vacuum": 2, "encoding": "UTF-8", "application_id": 0}


def database_faults(connection: sqlite3.Connection) -> Iterator[str]:
    found = dict(connection.execute("SELECT name, sql FROM sqlite_master WHERE sql IS NOT NULL"))
    for name, statement in STATEMENTS.items():
        # Later systems add columns.
        if not (found.get(name) == statement or (found.get(name) or "").startswith(statement.rstrip(")") + ", ")):
            yield f"{name} is made by {found.get(name)!r}"
    for pragma, wanted in PRAGMAS.items():
        [value] = connection.execute(f"PRAGMA {pragma}").fetchone()
        if value != wanted:
            yield f"{pragma} is {value!r}"


class Record:
    """One row's archive, whose objects are looked at in the order of their references."""

    def __init__(self, blob: bytes) -> None:
        self._blob = blob
        self._used: set[int] = set()

    def faults(self) -> Iterator[str]:
        if not self._blob.startswith(b"bplist00"):
            yield "the record is no binary property list"
            return
        try:
            yield from self._archive_faults(plistlib.loads(self._blob))
        except (plistlib.InvalidFileException, KeyError, IndexError, TypeError, ValueError) as error:
            yield f"the record cannot be read: {error!r}"

    def _archive_faults(self, archive: dict[str, Any]) -> Iterator[str]:
        if list(archive) != TOP_LEVEL:
            yield f"the top level holds {list(archive)}"
        if (archive["$archiver"], archive["$version"]) != (ARCHIVER, ARCHIVER_VERSION):
            yield "another archiver"
        self._objects = archive["$objects"]
        if archive["$top"] != {"root": plistlib.UID(1)} or self._objects[0] != "$null":
            yield f"the root is {archive['$top']}"
            return
        self._used = {0, 1}
        yield from self._record_faults(self._objects[1])
        unused = set(range(len(self._objects))) - self._used
        if unused:
            yield f"nothing refers to the objects {sorted(unused)}"

    def _object(self, reference: Any) -> Any:
        if not isinstance(reference, plistlib.UID):
            raise ValueError(f"{reference!r} is no native reference")
        self._used.add(reference.data)
        return self._objects[reference.data]

    def _record_faults(self, record: dict[str, Any]) -> Iterator[str]:
        if unknown := set(record) - {*NUMBERS, *REFERENCES}:
            yield f"the record holds {sorted(unknown)}"
        for key in NUMBERS:
            if type(record[key]) is not int:
                yield f"{key} is {record[key]!r}"
        yield from self._number_faults(record)
        for key in ("RelativePath", "Target"):
            if key in record and not isinstance(self._object(record[key]), str):
                yield f"{key} is no text"
        yield from self._data_faults(record)
        yield from self._class_faults(record["$class"], [RECORD_CLASS])
        if record["$class"].data != len(self._objects) - 1:
            yield "the record's class is not the last object"

    @staticmethod
    def _number_faults(record: dict[str, Any]) -> Iterator[str]:
        for key in TIMES:
            if record[key] in LATE_TIMES:
                yield f"{key} is 2**32 seconds too late"
        for key in OWNERS:
            if record[key] not in SIGNED_32_BITS:
                yield f"{key} is {record[key]}"

    def _data_faults(self, record: dict[str, Any]) -> Iterator[str]:
        if "Digest" in record:
            digest = self._object(record["Digest"])
            if not isinstance(digest, bytes) or len(digest) != DIGEST_SIZE:
                yield f"the digest is {digest!r}"
        if "EncryptionKey" in record:
            yield from self._key_faults(self._object(record["EncryptionKey"]))
        if "ExtendedAttributes" in record:
            yield from self._attribute_faults(self._object(record["ExtendedAttributes"]))

    def _key_faults(self, wrapper: Any) -> Iterator[str]:
        if not isinstance(wrapper, dict) or set(wrapper) != {"NS.data", "$class"}:
            yield "the key is not wrapped"
            return
        if not isinstance(wrapper["NS.data"], bytes) or len(wrapper["NS.data"]) != KEY_SIZE:
            yield "the key is no data of 44 bytes"
        yield from self._class_faults(wrapper["$class"], [DATA_CLASS])

    def _attribute_faults(self, found: Any) -> Iterator[str]:
        if isinstance(found, bytes):
            if not isinstance(plistlib.loads(found), dict):
                yield "the attributes are no dictionary"
            return
        if not isinstance(found, dict) or set(found) != {"NS.keys", "NS.objects", "$class"}:
            yield "the attributes are neither data nor a dictionary object"
            return
        for item in found["NS.keys"] + found["NS.objects"]:
            value = self._object(item)
            if isinstance(value, dict) and "NS.data" in value:
                yield from self._class_faults(value["$class"], [DATA_CLASS, DATA_CLASS[1:]])
        yield from self._class_faults(found["$class"], DICTIONARY_CLASSES)

    def _class_faults(self, reference: Any, chains: Any) -> Iterator[str]:
        found = self._object(reference)
        if found not in [{"$classname": chain[0], "$classes": chain} for chain in chains]:
            yield f"a class {found!r}"


def row_faults(file_id: str, blob: bytes) -> Iterator[str]:
    if not re.fullmatch("[0-9a-f]{40}", file_id):
        yield f"row {file_id!r}: no file ID"
    yield from (f"row {file_id}: {fault}" for fault in Record(blob).faults())


def metadata_faults(manifest: dict[str, Any], status: dict[str, Any], database: bool) -> Iterator[str]:
    """What a restore asks for: a keybag also of a plain backup, and a key exactly where something is locked by it."""
    if type(manifest.get("IsEncrypted")) is not bool:
        yield f"IsEncrypted is {manifest.get('IsEncrypted')!r}"
    if not isinstance(manifest.get("BackupKeyBag"), bytes):
        yield "Manifest.plist holds no keybag"
    if not isinstance(manifest.get("Lockdown"), dict):
        yield "Manifest.plist holds no Lockdown"
    key = manifest.get("ManifestKey")
    if manifest.get("IsEncrypted") and database:
        if not isinstance(key, bytes) or len(key) != KEY_SIZE:
            yield f"the manifest's key is {key!r}"
    elif key is not None:
        yield "a manifest key that opens nothing"
    if status.get("SnapshotState") != "finished":
        yield f"the snapshot is {status.get('SnapshotState')!r}"
