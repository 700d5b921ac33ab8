"""Manifest.mbdb, the older binary manifest."""

from __future__ import annotations

import struct
from collections.abc import Iterable

from .model import Stored, TYPE_BITS

HEADER = b"mbdb\x05\x00"
# A length of 0xFFFF stands for an absent value, so this is the longest that can be written.
LONGEST_VALUE = 0xFFFE
# Device writers mark absent values with this length, and empty ones too.
ABSENT = b"\xff\xff"
# Owners are written without a sign.
LARGEST_OWNER = 0xFFFFFFFF


def value(data: bytes | None) -> bytes:
    if not data:
        return ABSENT
    if len(data) > LONGEST_VALUE:
        raise ValueError(f"a value of {len(data)} bytes does not fit into Manifest.mbdb")
    return struct.pack(">H", len(data)) + data


def encode_entry(stored: Stored) -> bytes:
    entry = stored.entry
    head = b"".join([
        value(entry.domain.encode()), value(entry.path.encode()), value(entry.target.encode()),
        value(stored.digest), value(stored.key),
    ])
    fixed = struct.pack(
        ">HQIIIIIQBB", TYPE_BITS[entry.kind] | entry.mode, entry.inode, entry.uid & LARGEST_OWNER,
        entry.gid & LARGEST_OWNER, entry.changed,
        entry.modified, entry.birth, entry.size, entry.protection, len(entry.attributes))
    pairs = b"".join(value(name.encode()) + value(data) for name, data in entry.attributes.items())
    return head + fixed + pairs


def encode(entries: Iterable[Stored]) -> bytes:
    return HEADER + b"".join(map(encode_entry, entries))
