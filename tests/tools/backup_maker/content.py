"""Writes the content of files, plain or encrypted, and breaks it where a variant asks for it."""

from __future__ import annotations

import hashlib
from collections.abc import Callable, Iterator

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

from .keybag import KeyBag
from .model import Entry, FILE, Options, Stored
from .randomness import Randomness
from .storage import Sink

BLOCK = 16
# The class of a key that only the device could open.
LOCKED_CLASS = 11
OBSTRUCTIONS = {"stored-directory": "directory", "stored-fifo": "fifo", "stored-socket": "socket",
                "stored-symlink": "symlink"}
NOT_WRITTEN = "stored-missing"


def file_id(domain: str, path: str) -> str:
    return hashlib.sha1(f"{domain}-{path}".encode()).hexdigest()


def stored_name(identifier: str, binary_manifest: bool) -> str:
    return identifier if binary_manifest else f"{identifier[:2]}/{identifier}"


def has_safe_name(identifier: str) -> bool:
    """Whether a content can be stored under the ID at all, and only inside the backup."""
    return len(identifier) >= 2 and "/" not in identifier and not identifier.startswith(".")


class Encryptor:
    """AES-256-CBC with a zero initial value; the padding is complete unless it is to be left invalid."""

    def __init__(self, key: bytes, valid_padding: bool = True) -> None:
        self._context = Cipher(algorithms.AES(key), modes.CBC(bytes(BLOCK))).encryptor()
        self._valid_padding = valid_padding
        self._length = 0

    def update(self, chunk: bytes) -> bytes:
        self._length += len(chunk)
        return self._context.update(chunk)

    def finish(self) -> bytes:
        count = BLOCK - self._length % BLOCK
        padding = bytes([count] * count) if self._valid_padding else bytes([0xEE] * count)
        return self._context.update(padding) + self._context.finalize()


def encrypted(chunks: Iterator[bytes], encryptor: Encryptor, padded: bool = True) -> Iterator[bytes]:
    for chunk in chunks:
        yield encryptor.update(chunk)
    if padded:
        yield encryptor.finish()


def hashed(chunks: Iterator[bytes], update: Callable[[bytes], None]) -> Iterator[bytes]:
    for chunk in chunks:
        update(chunk)
        yield chunk


# How stored bytes are broken; such contents are small, so they may be gathered.
BREAKERS: dict[str, Callable[[bytes], bytes]] = {
    # At the end of a block, where only the padding or the size can tell.
    "stored-truncated": lambda whole: whole[:len(whole) // 2 // BLOCK * BLOCK],
    "cipher-ragged": lambda whole: whole[:-5],
    "stored-changed": lambda whole: whole[:-1] + bytes([whole[-1] ^ 0x01]),
}


def damaged(entry: Entry, chunks: Iterator[bytes]) -> Iterator[bytes]:
    if entry.damage not in BREAKERS:
        return chunks
    return iter([BREAKERS[entry.damage](b"".join(chunks))])


class ContentWriter:
    """Stores entries' contents in a sink and tells what the manifest has to say about them."""

    def __init__(self, options: Options, randomness: Randomness, keybag: KeyBag, sink: Sink) -> None:
        self._options = options
        self._randomness = randomness
        self._keybag = keybag
        self._sink = sink

    def store(self, entry: Entry) -> Stored:
        identifier = entry.forced_file_id
        if identifier is None:
            identifier = file_id(entry.domain, entry.path)
        stored = Stored(entry, identifier)
        if entry.kind == FILE:
            self._store_file(stored)
        return stored

    def _plaintext(self, entry: Entry) -> Iterator[bytes]:
        if entry.text is not None:
            return iter([entry.text])
        return self._randomness.stream(entry.label, entry.size)

    def _store_file(self, stored: Stored) -> None:
        entry = stored.entry
        key = self._randomness.octets(f"file key/{entry.label}", 32)
        if self._options.encrypted or entry.with_key:
            stored.key = self._key_blob(entry, key)
        plain_hash, stored_hash = hashlib.sha256(), hashlib.sha1()
        chunks = self._sealed(entry, key, hashed(self._plaintext(entry), plain_hash.update))
        # The device hashes what it meant to store, not what became of it.
        self._write(stored, damaged(entry, hashed(chunks, stored_hash.update)))
        stored.sha256 = plain_hash.hexdigest()
        if entry.with_digest:
            stored.digest = stored_hash.digest()
        if entry.damage == "digest-wrong":
            stored.digest = bytes(20)

    def _key_blob(self, entry: Entry, key: bytes) -> bytes | None:
        blob = self._keybag.lock(entry.protection, key)
        if entry.damage == "key-missing":
            return None
        if entry.damage == "key-short":
            return blob[:-1]
        if entry.damage == "key-damaged":
            return blob[:-1] + bytes([blob[-1] ^ 0x80])
        if entry.damage == "device-bound":
            return LOCKED_CLASS.to_bytes(4, "little") + blob[4:]
        return blob

    def _sealed(self, entry: Entry, key: bytes, plain: Iterator[bytes]) -> Iterator[bytes]:
        # Other writers store an empty file as nothing at all, where devices write a block of padding.
        if self._options.encrypted and entry.hostile != "empty-without-padding":
            return encrypted(plain, Encryptor(key, entry.damage != "cipher-padding"))
        return plain

    def _write(self, stored: Stored, chunks: Iterator[bytes]) -> None:
        entry = stored.entry
        name = stored_name(stored.file_id, self._options.binary_manifest)
        if entry.damage == NOT_WRITTEN or entry.damage in OBSTRUCTIONS or not has_safe_name(stored.file_id):
            # The chunks are still consumed: the hashes of what should have been there are wanted.
            for _ in chunks:
                pass
            if entry.damage in OBSTRUCTIONS:
                self._sink.obstruct(name, OBSTRUCTIONS[entry.damage])
            return
        with self._sink.writer(name, entry.size + BLOCK) as out:
            for chunk in chunks:
                out.write(chunk)
