"""The stored files of a backup, in a directory or in a zip archive."""

from __future__ import annotations

import os
import stat
import zipfile
from pathlib import Path
from typing import BinaryIO, Protocol

from .errors import BackupError


class Source(Protocol):
    """Opens stored files by their names relative to the backup's root."""

    def open(self, name: str) -> BinaryIO: ...

    def names(self) -> set[str]:
        """Every stored file."""


def check_name(name: str) -> None:
    """A manifest is free to name files outside of the backup, so no name is used before it has been looked at."""
    if any(part in ("", ".", "..") for part in name.split("/")) or "\0" in name:
        raise BackupError(f"unsafe stored name {name!r}")


class DirectorySource:
    """A backup directory."""

    def __init__(self, root: Path) -> None:
        self._root = root

    def open(self, name: str) -> BinaryIO:
        check_name(name)
        try:
            # Without O_NONBLOCK a FIFO in place of a stored file would block for ever.
            descriptor = os.open(self._root / name, os.O_RDONLY | os.O_NONBLOCK | os.O_NOFOLLOW | os.O_CLOEXEC)
        except OSError as error:
            raise BackupError(f"cannot open {name!r}: {error.strerror}") from error
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            os.close(descriptor)
            raise BackupError(f"{name!r} is no regular file")
        return os.fdopen(descriptor, "rb")

    def names(self) -> set[str]:
        return {str(path.relative_to(self._root)) for path in self._root.rglob("*")
                if not path.is_symlink() and path.is_file()}


class ZipSource:
    """A zip archive of a backup directory."""

    def __init__(self, path: Path) -> None:
        self._archive = zipfile.ZipFile(path)

    def open(self, name: str) -> BinaryIO:
        check_name(name)
        try:
            return self._archive.open(name)  # type: ignore[return-value]
        except KeyError as error:
            raise BackupError(f"the archive holds no {name!r}") from error

    def names(self) -> set[str]:
        return {record.filename for record in self._archive.infolist() if not record.is_dir()}


def open_source(path: Path) -> Source:
    if path.is_dir():
        return DirectorySource(path)
    try:
        return ZipSource(path)
    except (OSError, zipfile.BadZipFile) as error:
        raise BackupError(f"{path} is neither a directory nor a zip archive: {error}") from error
