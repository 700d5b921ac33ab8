"""Copies a backup's entries to a directory, never outside of it."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

from .backup import Backup
from .errors import BackupError
from .manifest import Entry

# The bits that would hand the owner's rights to others are not restored.
PERMISSIONS = 0o777


def destination(root: Path, entry: Entry) -> Path:
    """Where an entry goes; refuses names that would lead elsewhere, and anything below a link."""
    parts = [entry.domain, *(entry.path.split("/") if entry.path else [])]
    if any(part in ("", ".", "..") or "/" in part or "\0" in part for part in parts):
        raise BackupError("unsafe name")
    path = root
    for part in parts[:-1]:
        path /= part
        if path.is_symlink() or (path.exists() and not path.is_dir()):
            raise BackupError(f"{part!r} in its way is no directory")
    return path / parts[-1]


def extract_entry(backup: Backup, root: Path, entry: Entry) -> None:
    path = destination(root, entry)
    path.parent.mkdir(parents=True, exist_ok=True)
    if entry.kind == "directory":
        path.mkdir(exist_ok=True)
    elif entry.kind == "symlink":
        os.symlink(entry.target, path)
    elif entry.kind == "file":
        extract_file(backup, path, entry)
    else:
        raise BackupError(f"mode {entry.mode:o} is of no known type")


def extract_file(backup: Backup, path: Path, entry: Entry) -> None:
    try:
        with open(path, "xb") as file:
            file.writelines(backup.content(entry))
    except BackupError:
        path.unlink()
        raise
    os.chmod(path, entry.mode & PERMISSIONS)
    os.utime(path, (entry.modified, entry.modified))


def extract(backup: Backup, root: Path) -> Iterator[tuple[Entry, str]]:
    """Extracts everything and yields the entries that failed, with the reasons."""
    root.mkdir()
    for entry in backup.entries:
        try:
            extract_entry(backup, root, entry)
        except (BackupError, OSError) as error:
            yield entry, str(error)
    # From the inside out: filling a directory changes its time.
    for entry in sorted(backup.entries, key=lambda entry: entry.path.count("/"), reverse=True):
        if entry.kind == "directory":
            restore_directory(root, entry)


def restore_directory(root: Path, entry: Entry) -> None:
    try:
        path = destination(root, entry)
    except BackupError:
        return
    if path.is_dir() and not path.is_symlink():
        os.chmod(path, entry.mode & PERMISSIONS)
        os.utime(path, (entry.modified, entry.modified))
