"""Repeatable random values that are named instead of drawn in sequence.

Each value depends on the seed and its own label alone, so that adding one file to a tree changes nothing else in it and
the result does not depend on the order of the work.
"""

from __future__ import annotations

import hashlib
import uuid
from collections.abc import Iterator, Sequence
from typing import TypeVar

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

T = TypeVar("T")

# Large enough that hashing and encryption dominate the loop, small enough to stay in the cache.
CHUNK_SIZE = 1 << 20


class Randomness:
    """Values derived from one seed."""

    def __init__(self, seed: int | str) -> None:
        self._seed = str(seed).encode()

    def octets(self, label: str, count: int) -> bytes:
        prefix = len(self._seed).to_bytes(4, "big") + self._seed
        return hashlib.shake_256(prefix + label.encode("utf-8", "surrogatepass")).digest(count)

    def number(self, label: str, low: int, high: int) -> int:
        """A number from low to high, both included (the bias of the modulus is below 2**-60)."""
        return low + int.from_bytes(self.octets(label, 16), "big") % (high - low + 1)

    def chance(self, label: str, percent: int) -> bool:
        return self.number(label, 0, 99) < percent

    def choice(self, label: str, values: Sequence[T]) -> T:
        return values[self.number(label, 0, len(values) - 1)]

    def shuffled(self, label: str, values: Sequence[T]) -> list[T]:
        keyed = [(self.octets(f"{label}/{index}", 16), index) for index in range(len(values))]
        return [values[index] for _, index in sorted(keyed)]

    def uuid(self, label: str) -> str:
        return str(uuid.UUID(bytes=self.octets(label, 16), version=4)).upper()

    def stream(self, label: str, size: int) -> Iterator[bytes]:
        """The given number of bytes in chunks, at the speed of AES, for contents that do not fit into memory."""
        key = self.octets(f"stream key/{label}", 32)
        encryptor = Cipher(algorithms.AES(key), modes.CTR(bytes(16))).encryptor()
        zeros = bytes(CHUNK_SIZE)
        while size > 0:
            count = min(size, CHUNK_SIZE)
            yield encryptor.update(zeros[:count])
            size -= count
