"""The keyed archive that a row of Manifest.db holds, written as devices write it.

References are the property list's own UID values, the encryption key is a mutable-data object whose class chain is
three deep, the digest is bare data, and the record's keys stand in the order in which devices write them.
"""

from __future__ import annotations

import plistlib
from typing import Any

from .model import Stored, TYPE_BITS

ARCHIVER_VERSION = 100000


def binary(value: Any) -> bytes:
    return plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)


class ObjectTable:
    """The archive's `$objects`, in order of first reference."""

    def __init__(self) -> None:
        self.objects: list[Any] = ["$null"]

    def add(self, value: Any) -> plistlib.UID:
        self.objects.append(value)
        return plistlib.UID(len(self.objects) - 1)

    def add_class(self, *chain: str) -> plistlib.UID:
        return self.add({"$classname": chain[0], "$classes": list(chain)})

    def add_mutable_data(self, value: bytes) -> plistlib.UID:
        wrapper: dict[str, Any] = {"NS.data": value}
        uid = self.add(wrapper)
        wrapper["$class"] = self.add_class("NSMutableData", "NSData", "NSObject")
        return uid

    def add_dictionary(self, values: dict[str, bytes]) -> plistlib.UID:
        dictionary: dict[str, Any] = {}
        uid = self.add(dictionary)
        dictionary["NS.keys"] = [self.add(name) for name in values]
        dictionary["NS.objects"] = [self.add(value) for value in values.values()]
        dictionary["$class"] = self.add_class("NSDictionary", "NSObject")
        return uid


# The order of a hash table, which differs by what a record holds.
ORDER = ("LastModified", "Flags", "GroupID", "Target", "$class", "LastStatusChange", "RelativePath", "Birth", "Size",
         "InodeNumber", "Mode", "UserID", "ProtectionClass", "ExtendedAttributes")
ORDER_WITH_KEY = (
    "LastModified", "Flags", "GroupID", "Target", "$class", "LastStatusChange", "RelativePath", "Birth",
    "EncryptionKey", "Size", "Mode", "UserID", "InodeNumber", "ProtectionClass", "ExtendedAttributes")
ORDER_WITH_DIGEST = (
    "LastModified", "ProtectionClass", "Flags", "GroupID", "Target", "$class", "LastStatusChange", "RelativePath",
    "Birth", "EncryptionKey", "Size", "Mode", "UserID", "Digest", "InodeNumber", "ExtendedAttributes")


def numbers_of(stored: Stored) -> dict[str, Any]:
    entry = stored.entry
    return {
        "LastModified": entry.modified,
        "Flags": entry.record_flags,
        "GroupID": entry.gid,
        "LastStatusChange": entry.changed,
        "Birth": entry.birth,
        "Size": entry.size,
        "InodeNumber": entry.inode,
        "Mode": TYPE_BITS[entry.kind] | entry.mode,
        "UserID": entry.uid,
        "ProtectionClass": entry.protection,
    }


def add_optional_fields(table: ObjectTable, record: dict[str, Any], stored: Stored) -> None:
    entry = stored.entry
    if entry.target:
        record["Target"] = table.add(entry.target)
    if stored.digest is not None:
        record["Digest"] = table.add(stored.digest)
    if stored.key is not None:
        record["EncryptionKey"] = table.add_mutable_data(stored.key)
    if entry.attributes and entry.attributes_as_object:
        record["ExtendedAttributes"] = table.add_dictionary(entry.attributes)
    elif entry.attributes:
        record["ExtendedAttributes"] = table.add(binary(entry.attributes))


def encode(stored: Stored) -> bytes:
    """The value of the `file` column for an entry."""
    table = ObjectTable()
    fields = numbers_of(stored)
    record: dict[str, Any] = {}
    root = table.add(record)
    fields["RelativePath"] = table.add(stored.entry.path)
    add_optional_fields(table, fields, stored)
    fields["$class"] = table.add_class("MBFile", "NSObject")
    order = ORDER_WITH_DIGEST if "Digest" in fields else ORDER_WITH_KEY if "EncryptionKey" in fields else ORDER
    record.update((key, fields[key]) for key in order if key in fields)
    return binary({
        "$version": ARCHIVER_VERSION,
        "$archiver": "NSKeyedArchiver",
        "$top": {"root": root},
        "$objects": table.objects,
    })
