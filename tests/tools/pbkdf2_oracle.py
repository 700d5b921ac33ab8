#!/usr/bin/python3
"""Prints PBKDF2 results by hashlib for random inputs, the same ones for one seed.

Usage: pbkdf2_oracle.py HASH SEED COUNT

One case a line, blank-separated: password, salt (hexadecimal, "-" when empty),
iterations, result (hexadecimal). Password lengths gather around the hash's block size.
"""
import hashlib
import random
import sys


def text(data):
    return data.hex() or "-"


def main():
    name, seed, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    rng = random.Random(seed)
    block = hashlib.new(name).block_size
    digest = hashlib.new(name).digest_size
    lengths = [0, 1, block - 1, block, block + 1, 2 * block]
    for _ in range(count):
        password = rng.randbytes(rng.choice(lengths + [rng.randrange(300)]))
        salt = rng.randbytes(rng.choice([0, 1, 20, block - 4, block, rng.randrange(300)]))
        iterations = rng.choice([1, 2, 3, rng.randrange(1, 200)])
        length = rng.choice([1, digest - 1, digest, digest + 1, rng.randrange(1, 4 * digest)])
        result = hashlib.pbkdf2_hmac(name, password, salt, iterations, length)
        print(text(password), text(salt), iterations, result.hex())


main()
