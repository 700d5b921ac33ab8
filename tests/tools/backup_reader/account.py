"""Accounts for everything in a backup: every entry is sound, and every file belongs to one."""

from __future__ import annotations

import hashlib
from collections import Counter
from collections.abc import Iterator

from .backup import BINARY_VERSION, Backup
from .device_form import DIGEST_SIZE, KEY_SIZE
from .errors import BackupError
from .manifest import Entry

METADATA = {"Manifest.plist", "Info.plist", "Status.plist"}
FLAGS = {"file": 1, "directory": 2, "symlink": 4}
# 0 is for what has no content of its own.
FILE_CLASSES = (1, 2, 3, 4)


def account(backup: Backup) -> Iterator[str]:
    """Everything that is wrong, a line each."""
    yield from backup.manifest_faults
    yield from account_for_files(backup)
    for entry in backup.entries:
        for fault in entry_faults(backup, entry):
            yield f"{entry.domain}/{entry.path}: {fault}"


def account_for_files(backup: Backup) -> Iterator[str]:
    files = [entry for entry in backup.entries if entry.kind == "file"]
    wanted = METADATA | {"Manifest.mbdb" if backup.version == BINARY_VERSION else "Manifest.db"}
    wanted |= {backup.stored_name(entry.file_id) for entry in files}
    found = backup.stored_names()
    yield from (f"{name} is missing" for name in sorted(wanted - found))
    yield from (f"{name} belongs to nothing" for name in sorted(found - wanted))
    for what, values in (("file ID", [entry.file_id for entry in backup.entries]),
                         ("path", [(entry.domain, entry.path) for entry in backup.entries])):
        yield from (f"{count} entries have the {what} {value}" for value, count in Counter(values).items() if count > 1)


def entry_faults(backup: Backup, entry: Entry) -> Iterator[str]:
    if entry.file_id != hashlib.sha1(f"{entry.domain}-{entry.path}".encode()).hexdigest():
        yield f"the file ID is {entry.file_id}"
    if entry.kind == "unknown":
        yield f"the mode is {entry.mode:o}"
    elif entry.flags not in (None, FLAGS[entry.kind]):
        yield f"the flags are {entry.flags}"
    if (entry.kind == "symlink") != bool(entry.target):
        yield f"the target is {entry.target!r}"
    if entry.kind == "file":
        yield from file_faults(backup, entry)
    elif entry.key is not None or entry.digest is not None or entry.size != 0:
        yield "a key, digest or size without content"
    yield from parent_faults(backup, entry)


def parent_faults(backup: Backup, entry: Entry) -> Iterator[str]:
    kinds = backup.kinds
    path = entry.path
    while path:
        path = path.rpartition("/")[0]
        if kinds.get((entry.domain, path)) != "directory":
            yield f"{path!r} above it is no directory"


def file_faults(backup: Backup, entry: Entry) -> Iterator[str]:
    if entry.digest is not None and len(entry.digest) != DIGEST_SIZE:
        yield f"a digest of {len(entry.digest)} bytes"
    if entry.protection not in FILE_CLASSES:
        yield f"the class is {entry.protection}"
    if backup.encrypted:
        if entry.key is None or len(entry.key) != KEY_SIZE:
            yield "no key, or one of another size"
        elif int.from_bytes(entry.key[:4], "little") != entry.protection:
            yield f"a key of another class than {entry.protection}"
    try:
        for _ in backup.content(entry):
            pass
    except BackupError as error:
        yield str(error)
