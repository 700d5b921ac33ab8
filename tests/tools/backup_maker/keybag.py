"""The keybag of a backup, and the keys that it locks.

A backup that is not encrypted carries a keybag as well, under a password that nobody knows.
"""

from __future__ import annotations

import hashlib
import struct
from dataclasses import dataclass

from cryptography.hazmat.primitives.keywrap import aes_key_wrap

from .model import Options
from .randomness import Randomness

CLASSES = range(1, 12)
# Items that never leave the device: their keys are wrapped under a key of the device too, which no backup holds.
DEVICE_BOUND_CLASSES = (5, 9, 10, 11)
WRAPPED_BY_PASSWORD, WRAPPED_BY_DEVICE = 2, 1
TYPE_BACKUP = 1
# The class whose key is one half of a pair of keys, and so comes with the public half.
ASYMMETRIC_CLASS = 2
# The class of the key of Manifest.db.
MANIFEST_CLASS = 4


def derive_kek(password: bytes, dpsl: bytes, dpic: int, salt: bytes, iterations: int) -> bytes:
    first = hashlib.pbkdf2_hmac("sha256", password, dpsl, dpic, 32)
    return hashlib.pbkdf2_hmac("sha1", first, salt, iterations, 32)


def record(tag: str, value: bytes | int) -> bytes:
    data = struct.pack(">I", value) if isinstance(value, int) else value
    return tag.encode("ascii") + struct.pack(">I", len(data)) + data


@dataclass(frozen=True)
class KeyBag:
    """The blob for Manifest.plist and the class keys inside it."""

    blob: bytes
    class_keys: dict[int, bytes]

    def lock(self, protection: int, key: bytes) -> bytes:
        """The key blob of a file: its class, least significant byte first, and the wrapped key."""
        return struct.pack("<I", protection) + aes_key_wrap(self.class_keys[protection], key)


class KeyBagMaker:
    """Builds the keybag that the options ask for."""

    def __init__(self, options: Options, randomness: Randomness) -> None:
        self._options = options
        self._randomness = randomness

    def make(self) -> KeyBag:
        keys = {number: self._octets(f"class key {number}", 32) for number in CLASSES}
        kek = self._kek()
        # Devices write the blocks in no fixed order, so a reader must not count on one.
        order = self._randomness.shuffled("keybag order", list(CLASSES))
        blocks = b"".join(self._class_block(number, keys[number], kek) for number in order)
        return KeyBag(self._header() + blocks, keys)

    def _octets(self, label: str, count: int) -> bytes:
        return self._randomness.octets(f"keybag/{label}", count)

    def _kek(self) -> bytes:
        options = self._options
        if options.password is None:
            return self._octets("unknown", 32)
        salt = self._octets("salt", 20)
        if options.one_derivation:
            return hashlib.pbkdf2_hmac("sha1", options.password, salt, options.iterations, 32)
        return derive_kek(options.password, self._octets("dpsl", 20), options.dp_iterations, salt, options.iterations)

    def _header(self) -> bytes:
        options = self._options
        records = [
            record("VERS", options.keybag_version), record("TYPE", TYPE_BACKUP),
            record("UUID", self._octets("uuid", 16)), record("HMCK", self._octets("hmck", 40)), record("WRAP", 0),
            record("SALT", self._octets("salt", 20)), record("ITER", options.iterations),
        ]
        if not (options.without_dpwt or options.one_derivation):
            records.append(record("DPWT", 1))
        if not options.one_derivation:
            records += [record("DPIC", options.dp_iterations), record("DPSL", self._octets("dpsl", 20))]
        return b"".join(records)

    def _class_block(self, number: int, key: bytes, kek: bytes) -> bytes:
        bound = self._options.device_bound and number in DEVICE_BOUND_CLASSES
        # Without the device's key such bytes are as good as random, whatever the password.
        wrapped = self._octets(f"device {number}", 40) if bound else aes_key_wrap(kek, key)
        asymmetric = number == ASYMMETRIC_CLASS
        block = [
            record("UUID", self._octets(f"uuid {number}", 16)), record("CLAS", number),
            record("WRAP", WRAPPED_BY_PASSWORD | (WRAPPED_BY_DEVICE if bound else 0)),
            record("KTYP", 1 if asymmetric else 0), record("WPKY", wrapped),
        ]
        if asymmetric:
            block.append(record("PBKY", self._octets(f"public {number}", 32)))
        return b"".join(block)
