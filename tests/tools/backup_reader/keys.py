"""Opens a keybag with the password, and the keys that its class keys lock."""

from __future__ import annotations

import hashlib

from cryptography.hazmat.primitives.keywrap import InvalidUnwrap, aes_key_unwrap

from .errors import BackupError

NEEDS_PASSWORD, NEEDS_DEVICE = 2, 1
KEY_BLOB_SIZE = 44


def parse_records(blob: bytes) -> list[tuple[str, bytes]]:
    records = []
    offset = 0
    while len(blob) - offset >= 8:
        length = int.from_bytes(blob[offset + 4:offset + 8], "big")
        if length > len(blob) - offset - 8:
            raise BackupError("a keybag record is longer than the keybag")
        records.append((blob[offset:offset + 4].decode("latin-1"), blob[offset + 8:offset + 8 + length]))
        offset += 8 + length
    return records


def parse_blocks(records: list[tuple[str, bytes]]) -> list[dict[str, bytes]]:
    """One dictionary for the header and one for each class; each starts with its UUID."""
    blocks: list[dict[str, bytes]] = []
    for tag, value in records:
        if tag == "UUID":
            blocks.append({})
        if blocks:
            blocks[-1].setdefault(tag, value)
    return blocks


def number(block: dict[str, bytes], tag: str) -> int:
    if tag not in block:
        raise BackupError(f"the keybag lacks {tag}")
    return int.from_bytes(block[tag], "big")


def unwrap(key: bytes, wrapped: bytes, what: str) -> bytes:
    try:
        return aes_key_unwrap(key, wrapped)
    except (InvalidUnwrap, ValueError) as error:
        raise BackupError(f"cannot unwrap {what}") from error


class KeyBag:
    """The class keys that the password opens; those that only the device could open are left out."""

    def __init__(self, blob: bytes, password: bytes) -> None:
        header, *classes = parse_blocks(parse_records(blob)) or [{}]
        secret = password
        # Devices before the one that wrote these two derived the key in one pass.
        if "DPSL" in header or "DPIC" in header:
            secret = hashlib.pbkdf2_hmac("sha256", password, header.get("DPSL", b""), number(header, "DPIC"), 32)
        kek = hashlib.pbkdf2_hmac("sha1", secret, header.get("SALT", b""), number(header, "ITER"), 32)
        self._keys: dict[int, bytes] = {}
        for block in classes:
            protection, wrap = number(block, "CLAS"), number(block, "WRAP")
            if wrap & NEEDS_PASSWORD and not wrap & NEEDS_DEVICE:
                self._keys[protection] = unwrap(kek, block.get("WPKY", b""), f"class {protection}, wrong password?")

    def unlock(self, blob: bytes) -> bytes:
        if len(blob) != KEY_BLOB_SIZE:
            raise BackupError(f"a key blob of {len(blob)} bytes")
        protection = int.from_bytes(blob[:4], "little")
        if protection not in self._keys:
            raise BackupError(f"no key for class {protection}")
        return unwrap(self._keys[protection], blob[4:], f"a key of class {protection}")
