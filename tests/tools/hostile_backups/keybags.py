"""Keybags of encrypted backups that are cut, contradict themselves, or cost more than they should."""

from __future__ import annotations

import atexit
import functools
import plistlib
import shutil
import struct
import tempfile
from collections.abc import Callable
from functools import partial
from pathlib import Path
from typing import Any

from backup_maker.build import BackupMaker
from backup_maker.keybag import record
from backup_maker.model import Options

from .model import Case, Place

PASSWORD = b"password"
Records = list[tuple[str, bytes]]
# A failure, or what looks like a wrong password.
COMMANDS = ("info", "ls", "extract", "verify", "export", "edit", "csv")
OPENING: dict[str, int | tuple[int, ...]] = {command: (1, 3) for command in COMMANDS}


@functools.cache
def sound_backup() -> Path:
    """Made once; every case changes a copy."""
    folder = Path(tempfile.mkdtemp())
    atexit.register(shutil.rmtree, folder)
    maker = BackupMaker(Options(tree="small", password=PASSWORD, iterations=10, dp_iterations=10))
    maker.make(folder / "backup", folder / "expectations.json")
    return folder / "backup"


def split(blob: bytes) -> Records:
    found, offset = [], 0
    while offset < len(blob):
        length = struct.unpack(">I", blob[offset + 4:offset + 8])[0]
        found.append((blob[offset:offset + 4].decode(), blob[offset + 8:offset + 8 + length]))
        offset += 8 + length
    return found


def joined(records: Records) -> bytes:
    return b"".join(record(tag, value) for tag, value in records)


def encrypted(change: Callable[[dict[str, Any]], None], **options: Any) -> Case:
    """An encrypted backup whose Manifest.plist is changed."""
    def make(place: Place) -> None:
        shutil.copytree(sound_backup(), place.backup)
        path = place.backup / "Manifest.plist"
        values = plistlib.loads(path.read_bytes())
        change(values)
        path.write_bytes(plistlib.dumps(values, fmt=plistlib.FMT_BINARY))
    return Case(make, password=True, **options)


def bag(change: Callable[[Records], Any], **options: Any) -> Case:
    def apply(values: dict[str, Any]) -> None:
        records = split(values["BackupKeyBag"])
        changed = change(records)
        values["BackupKeyBag"] = joined(changed if isinstance(changed, list) else records)
    return encrypted(apply, **options)


def blob(change: Callable[[bytes], Any], **options: Any) -> Case:
    def apply(values: dict[str, Any]) -> None:
        values["BackupKeyBag"] = change(values["BackupKeyBag"])
    return encrypted(apply, **options)


def key_blob(change: Callable[[bytes], Any]) -> Case:
    def apply(values: dict[str, Any]) -> None:
        values["ManifestKey"] = change(values["ManifestKey"])
    return encrypted(apply, status=OPENING)


def with_value(records: Records, tag: str, value: bytes | int) -> Records:
    octets = struct.pack(">I", value) if isinstance(value, int) else value
    return [(name, octets if name == tag else old) for name, old in records]


def without(records: Records, tag: str) -> Records:
    return [(name, value) for name, value in records if name != tag]


def twice(records: Records, tag: str) -> Records:
    """The second one has other bytes: only one of the two can be right."""
    return [pair for name, value in records
            for pair in ([(name, value), (name, bytes(len(value)))] if name == tag else [(name, value)])]


def header(records: Records) -> Records:
    """What stands before the first class."""
    return records[:next(i for i, (name, _) in enumerate(records) if name == "CLAS") - 1]


def many_classes(records: Records) -> Records:
    block = records[len(header(records)):][:5]
    return header(records) + block * 20_000


HEADER_FIELDS = ("VERS", "TYPE", "UUID", "HMCK", "WRAP", "SALT", "ITER", "DPIC", "DPSL", "CLAS", "KTYP", "WPKY")

CASES: dict[str, Case] = {
    "sound": bag(lambda records: records, status={command: 0 for command in COMMANDS}),
    "empty": blob(lambda _blob: b"", status=OPENING),
    "text": blob(lambda _blob: "text", status=OPENING),
    "zeros": blob(lambda whole: bytes(len(whole)), status=OPENING),
    **{f"truncated_at_{length}": blob(lambda whole, length=length: whole[:length], status=OPENING)
       for length in (4, 8, 30, 200)},
    "truncated_late": blob(lambda whole: whole[:-7]),
    "trailing_data": blob(lambda whole: whole + b"abc"),
    "length_of_2_32": blob(lambda whole: whole + b"DATA\xff\xff\xff\xff", status=OPENING),
    **{f"without_{tag}": bag(partial(without, tag=tag), status=OPENING) for tag in HEADER_FIELDS},
    **{f"empty_{tag}": bag(partial(with_value, tag=tag, value=b""), status=OPENING) for tag in HEADER_FIELDS},
    **{f"long_{tag}": bag(partial(with_value, tag=tag, value=bytes(1000)), status=OPENING) for tag in HEADER_FIELDS},
    **{f"twice_{tag}": bag(partial(twice, tag=tag)) for tag in ("SALT", "ITER", "DPSL", "WPKY", "CLAS", "VERS")},
    "version_99": bag(partial(with_value, tag="VERS", value=99), status=OPENING),
    "type_5": bag(partial(with_value, tag="TYPE", value=5), status=OPENING),
    "no_iterations": bag(partial(with_value, tag="ITER", value=0), status=OPENING),
    "no_first_iterations": bag(partial(with_value, tag="DPIC", value=0), status=OPENING),
    "iterations_of_10_9": bag(partial(with_value, tag="ITER", value=10**9), status=OPENING),
    "iterations_of_2_32": bag(partial(with_value, tag="ITER", value=2**32 - 1), status=OPENING),
    "first_iterations_of_2_32": bag(partial(with_value, tag="DPIC", value=2**32 - 1), status=OPENING),
    "wrap_3": bag(lambda records: with_value(header(records), "WRAP", 0) + with_value(
        records[len(header(records)):], "WRAP", 3), status=OPENING),
    "wrap_0": bag(partial(with_value, tag="WRAP", value=0), status=OPENING),
    "wrap_of_2_32": bag(partial(with_value, tag="WRAP", value=2**32 - 1), status=OPENING),
    "class_of_2_32": bag(partial(with_value, tag="CLAS", value=2**32 - 1), status=OPENING),
    "one_class_number": bag(partial(with_value, tag="CLAS", value=4)),
    "no_classes": bag(header, status=OPENING),
    "classes_of_100000_records": bag(many_classes, status=OPENING),
    "records_of_nothing": blob(lambda whole: whole + b"NULL\0\0\0\0" * 100_000, status=OPENING),
    "keys_changed": bag(partial(with_value, tag="WPKY", value=b"\x5a" * 40), status={"info": 3}),
    "manifest_key_short": key_blob(lambda key: key[:-1]),
    "manifest_key_empty": key_blob(lambda _key: b""),
    "manifest_key_text": key_blob(lambda _key: "text"),
    "manifest_key_of_unknown_class": key_blob(lambda key: b"\x63\0\0\0" + key[4:]),
    "manifest_key_changed": key_blob(lambda key: key[:-1] + bytes([key[-1] ^ 1])),
}
