"""Where the files of a backup go: a directory, or a zip archive of one."""

from __future__ import annotations

import os
import socket
import time
import zipfile
from collections.abc import Iterator
from contextlib import AbstractContextManager, contextmanager
from pathlib import Path
from typing import BinaryIO, Protocol

# From this size on a zip record needs its 64-bit form.
ZIP64_FROM = 1 << 31
COMPRESSION_LEVEL = 6


class Sink(Protocol):
    """A place for named files."""

    def writer(self, name: str, size_hint: int = 0) -> AbstractContextManager[BinaryIO]: ...

    def obstruct(self, name: str, kind: str) -> None:
        """Puts something that is no regular file where a stored file is expected."""

    def close(self) -> None: ...


class DirectorySink:
    """A backup directory."""

    def __init__(self, root: Path) -> None:
        self._root = root
        root.mkdir(parents=True)

    @contextmanager
    def writer(self, name: str, size_hint: int = 0) -> Iterator[BinaryIO]:
        path = self._root / name
        path.parent.mkdir(exist_ok=True)
        with open(path, "xb") as file:
            yield file

    def obstruct(self, name: str, kind: str) -> None:
        path = self._root / name
        path.parent.mkdir(exist_ok=True)
        if kind == "directory":
            path.mkdir()
        elif kind == "fifo":
            os.mkfifo(path)
        elif kind == "socket":
            bind_socket(path)
        elif kind == "symlink":
            path.symlink_to("/etc/passwd")
        else:
            raise ValueError(f"unknown obstruction {kind}")

    def close(self) -> None:
        """Nothing is held open."""


def bind_socket(path: Path) -> None:
    """Leaves a socket behind at any path: the address of a socket is too short for most, so the name alone is used."""
    previous = os.getcwd()
    os.chdir(path.parent)
    try:
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as endpoint:
            endpoint.bind(path.name)
    finally:
        os.chdir(previous)


class ZipSink:
    """A zip archive with the backup's files at its root, every record with the time of the backup."""

    def __init__(self, path: Path, date: int, deflated: bool) -> None:
        self._archive = zipfile.ZipFile(path, "x")
        self._date_time = time.gmtime(date)[:6]
        self._method = zipfile.ZIP_DEFLATED if deflated else zipfile.ZIP_STORED

    @contextmanager
    def writer(self, name: str, size_hint: int = 0) -> Iterator[BinaryIO]:
        record = zipfile.ZipInfo(name, self._date_time)
        record.compress_type = self._method
        record._compresslevel = COMPRESSION_LEVEL  # type: ignore[attr-defined]
        record.create_system = 3
        record.external_attr = 0o100644 << 16
        with self._archive.open(record, "w", force_zip64=size_hint >= ZIP64_FROM) as file:
            yield file  # type: ignore[misc]

    def obstruct(self, name: str, kind: str) -> None:
        raise ValueError(f"a zip archive cannot hold a {kind} in place of a stored file")

    def close(self) -> None:
        self._archive.close()
