#!/usr/bin/python3
"""Makes a keybag as devices write it, and prints it with everything that is locked in it.

Usage: keybag_oracle.py [--seed N] [--version N] [--type N] [--dpic N] [--iter N]
                        [--password TEXT] [--classes N,N,...] [--device-bound N,N,...]
                        [--shuffle] [--old]

Output: one "NAME VALUE" a line, VALUE in hexadecimal:
  blob          the keybag
  device        the device's key, which wraps the keys of device-bound classes too
  kek           the key-encryption key of the password
  class.N       the key of class N
  file          a file's key
  locked.N      that key as a key blob of class N
  manifest      the manifest's key
  manifestblob  that key as a key blob of the last class that is not bound to the device

Python's hashlib and the cryptography package do the work, none of the library's code.
"""
import argparse
import hashlib
import random
import struct

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes
from cryptography.hazmat.primitives.keywrap import aes_key_wrap


def numbers(text):
    return [int(part) for part in text.split(",") if part]


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--version", type=int, default=5)
    parser.add_argument("--type", type=int, default=1)
    parser.add_argument("--dpic", type=int, default=20)
    parser.add_argument("--iter", type=int, default=10)
    parser.add_argument("--password", default="correct horse")
    parser.add_argument("--classes", type=numbers, default=[1, 2, 3, 4, 6, 7, 8])
    parser.add_argument("--device-bound", type=numbers, default=[])
    parser.add_argument("--shuffle", action="store_true")
    parser.add_argument("--old", action="store_true", help="one derivation, without DPWT, DPIC and DPSL")
    return parser.parse_args()


def record(tag, value):
    data = struct.pack(">I", value) if isinstance(value, int) else value
    return tag.encode() + struct.pack(">I", len(data)) + data


class Maker:
    def __init__(self, options):
        self.options = options
        self.rng = random.Random(options.seed)
        self.salt = self.rng.randbytes(20)
        self.dpsl = self.rng.randbytes(20)
        self.device = self.rng.randbytes(16)
        self.kek = self.derive()
        self.keys = {}

    def derive(self):
        o = self.options
        if o.old:
            return hashlib.pbkdf2_hmac("sha1", o.password.encode(), self.salt, max(o.iter, 1), 32)
        first = hashlib.pbkdf2_hmac("sha256", o.password.encode(), self.dpsl, max(o.dpic, 1), 32)
        return hashlib.pbkdf2_hmac("sha1", first, self.salt, max(o.iter, 1), 32)

    def header(self):
        o = self.options
        records = [
            record("VERS", o.version), record("TYPE", o.type),
            record("UUID", self.rng.randbytes(16)), record("HMCK", self.rng.randbytes(40)),
            record("WRAP", 0), record("SALT", self.salt), record("ITER", o.iter),
        ]
        if not o.old:
            records += [record("DPWT", 1), record("DPIC", o.dpic), record("DPSL", self.dpsl)]
        return b"".join(records)

    def under_device(self, key):
        encryptor = Cipher(algorithms.AES(self.device), modes.CBC(bytes(16))).encryptor()
        return encryptor.update(key) + encryptor.finalize()

    def class_block(self, number):
        key = self.keys[number] = self.rng.randbytes(32)
        bound = number in self.options.device_bound
        wrapped = aes_key_wrap(self.kek, self.under_device(key) if bound else key)
        block = [
            record("UUID", self.rng.randbytes(16)), record("CLAS", number),
            record("WRAP", 3 if bound else 2), record("KTYP", 1 if number == 2 else 0),
            record("WPKY", wrapped),
        ]
        if number == 2:  # an asymmetric class comes with its public key
            block.append(record("PBKY", self.rng.randbytes(32)))
        return b"".join(block)

    def blob(self):
        order = sorted(set(self.options.classes + self.options.device_bound))
        if self.options.shuffle:
            self.rng.shuffle(order)
        return self.header() + b"".join(self.class_block(number) for number in order)

    def lock(self, number, key):
        return struct.pack("<I", number) + aes_key_wrap(self.keys[number], key)


def main():
    options = arguments()
    maker = Maker(options)
    values = {"blob": maker.blob(), "device": maker.device, "kek": maker.kek}
    file_key, manifest_key = maker.rng.randbytes(32), maker.rng.randbytes(32)
    for number, key in maker.keys.items():
        values[f"class.{number}"] = key
        values[f"locked.{number}"] = maker.lock(number, file_key)
    values |= {"file": file_key, "manifest": manifest_key}
    if options.classes:
        values["manifestblob"] = maker.lock(options.classes[-1], manifest_key)
    for name, value in values.items():
        print(name, value.hex())


main()
