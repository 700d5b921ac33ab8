"""A whole backup: its description, its entries and their contents."""

from __future__ import annotations

import functools
import hashlib
import plistlib
import shutil
import tempfile
import zipfile
from collections.abc import Iterator
from datetime import datetime, timezone
from pathlib import Path
from typing import Any
from xml.parsers.expat import ExpatError

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

from .device_form import metadata_faults
from .errors import BackupError
from .keys import KeyBag
from .manifest import Entry, Manifest, read_binary, read_database
from .source import open_source

CHUNK_SIZE = 1 << 20
BLOCK = 16
BINARY_VERSION = "2.4"
DATABASE_MARK = b"SQLite format 3\0"
# Padding makes the ciphertext longer than a whole number of pages.
SMALLEST_PAGE = 512


def decrypt(chunks: Iterator[bytes], key: bytes, strict: bool = False) -> Iterator[bytes]:
    """Undoes AES-256-CBC with a zero initial value and takes the padding off; nothing stays nothing, unless strict."""
    context = Cipher(algorithms.AES(key), modes.CBC(bytes(BLOCK))).decryptor()
    # The last block is held back: it is the padding's.
    held, length = b"", 0
    for chunk in chunks:
        length += len(chunk)
        held += context.update(chunk)
        yield held[:-BLOCK]
        held = held[-BLOCK:]
    if length == 0 and strict:
        raise BackupError("nothing is stored, not even padding")
    if length == 0:
        return
    if length % BLOCK:
        raise BackupError(f"{length} encrypted bytes are no whole number of blocks")
    count = held[-1]
    if not 1 <= count <= BLOCK or held[-count:] != bytes([count]) * count:
        raise BackupError("invalid padding")
    yield held[:-count]


class Backup:
    """A backup opened for reading."""

    def __init__(self, path: Path, password: bytes | None, strict: bool = False) -> None:
        """Strict: what is not in the form in which devices write it is a fault."""
        self._strict = strict
        self._source = open_source(path)
        self.manifest_plist = self._plist("Manifest.plist")
        self.status_plist = self._plist("Status.plist")
        self.version: str = self.status_plist["Version"]
        self.encrypted = bool(self.manifest_plist.get("IsEncrypted"))
        self.keybag = self._unlock(password)
        self._manifest = self._read_manifest()

    @property
    def entries(self) -> list[Entry]:
        return self._manifest.entries

    @property
    def placeholders(self) -> int:
        return self._manifest.placeholders

    @functools.cached_property
    def kinds(self) -> dict[tuple[str, str], str]:
        """The kind of each entry by its domain and path."""
        return {(entry.domain, entry.path): entry.kind for entry in self.entries}

    @property
    def manifest_faults(self) -> list[str]:
        return self._manifest.faults + (list(self._metadata_faults()) if self._strict else [])

    def _metadata_faults(self) -> Iterator[str]:
        yield from metadata_faults(self.manifest_plist, self.status_plist, self.version != BINARY_VERSION)
        if "Info.plist" in self.stored_names():
            try:
                self._plist("Info.plist")
            except BackupError as error:
                yield str(error)

    def stored_names(self) -> set[str]:
        return self._source.names()

    def info(self) -> dict[str, Any]:
        lockdown, kinds = self.manifest_plist["Lockdown"], [entry.kind for entry in self.entries]
        date: datetime = self.manifest_plist["Date"]
        return {
            "deviceName": lockdown["DeviceName"],
            "productType": lockdown["ProductType"],
            "productVersion": lockdown["ProductVersion"],
            "buildVersion": lockdown["BuildVersion"],
            "serialNumber": lockdown["SerialNumber"],
            "uniqueIdentifier": lockdown["UniqueDeviceID"],
            "date": int(date.replace(tzinfo=timezone.utc).timestamp()),
            "version": self.version,
            "encrypted": self.encrypted,
            "domains": len({entry.domain for entry in self.entries}),
            "files": kinds.count("file"),
            "directories": kinds.count("directory"),
            "symlinks": kinds.count("symlink"),
            "placeholders": self.placeholders,
            "totalSize": sum(entry.size for entry in self.entries),
        }

    def content(self, entry: Entry) -> Iterator[bytes]:
        """The plaintext of a file in chunks; raises BackupError before its end when it is not what it should be."""
        stored_hash, plain_hash, plain_size, stored_size = hashlib.sha1(), hashlib.sha1(), 0, 0

        def stored() -> Iterator[bytes]:
            nonlocal stored_size
            for chunk in self.stored_chunks(self.stored_name(entry.file_id)):
                stored_hash.update(chunk)
                stored_size += len(chunk)
                yield chunk

        for chunk in decrypt(stored(), self._file_key(entry), self._strict) if self.encrypted else stored():
            plain_hash.update(chunk)
            plain_size += len(chunk)
            yield chunk
        sizes, digests = [plain_size], [stored_hash.digest()]
        # Writers differ in whether they mean the plaintext or what they stored; devices do not.
        if not self._strict:
            sizes.append(stored_size)
            digests.append(plain_hash.digest())
        if entry.size not in sizes:
            raise BackupError(f"{plain_size} bytes instead of {entry.size}")
        if entry.digest is not None and entry.digest not in digests:
            raise BackupError("the digest does not match")

    def _file_key(self, entry: Entry) -> bytes:
        if entry.key is None or self.keybag is None:
            raise BackupError("the file has no key")
        return self.keybag.unlock(entry.key)

    def stored_name(self, file_id: str) -> str:
        if self.version == BINARY_VERSION:
            return file_id
        if len(file_id) < 2:
            raise BackupError(f"unsafe stored name {file_id!r}")
        return f"{file_id[:2]}/{file_id}"

    def stored_chunks(self, name: str) -> Iterator[bytes]:
        with self._source.open(name) as file:
            try:
                while chunk := file.read(CHUNK_SIZE):
                    yield chunk
            except (OSError, zipfile.BadZipFile) as error:
                raise BackupError(f"cannot read {name!r}: {error}") from error

    def _plist(self, name: str) -> dict[str, Any]:
        try:
            return plistlib.loads(b"".join(self.stored_chunks(name)))
        except (plistlib.InvalidFileException, ExpatError, ValueError) as error:
            raise BackupError(f"{name} is no property list") from error

    def _unlock(self, password: bytes | None) -> KeyBag | None:
        if not self.encrypted:
            if password is not None:
                raise BackupError("a password was given, but the backup is not encrypted")
            return None
        if password is None:
            raise BackupError("the backup is encrypted, a password is needed")
        return KeyBag(self.manifest_plist["BackupKeyBag"], password)

    def _manifest_plaintext(self, chunks: Iterator[bytes], key: bytes) -> Iterator[bytes]:
        """Other programs leave a manifest decrypted, or encrypt it without padding."""
        if self._strict:
            return decrypt(chunks, key)
        stored = b"".join(chunks)
        if stored.startswith(DATABASE_MARK):
            return iter([stored])
        context = Cipher(algorithms.AES(key), modes.CBC(bytes(BLOCK))).decryptor()
        if stored and len(stored) % SMALLEST_PAGE == 0:
            return iter([context.update(stored)])
        return decrypt(iter([stored]), key)

    def _read_manifest(self) -> Manifest:
        if self.version == BINARY_VERSION:
            return read_binary(b"".join(self.stored_chunks("Manifest.mbdb")))
        chunks = self.stored_chunks("Manifest.db")
        if self.keybag is not None:
            chunks = self._manifest_plaintext(chunks, self.keybag.unlock(self.manifest_plist["ManifestKey"]))
        folder = tempfile.mkdtemp()
        try:
            path = Path(folder) / "Manifest.db"
            with open(path, "wb") as file:
                file.writelines(chunks)
            return read_database(path, self._strict)
        finally:
            shutil.rmtree(folder)
