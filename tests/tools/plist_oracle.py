"""Property lists by Python's plistlib, which the tests compare ours with.

  generate xml|binary FIRST COUNT   documents of the seeds FIRST ... on standard output
  dump                              documents on standard input, their values on output

Both sides are streams of records: a 4-byte big-endian length, then that many bytes. A
document's values are written as one line of text that says everything about them:

  s<hex of UTF-16BE>  d<hex>  i<decimal>  r<hex of the double>  t  f
  D<hex of the double: seconds from 2001>  u<decimal>  [value,...]  {key=value,...}

with keys in the order of their UTF-16 units. A document that cannot be read gives
"error" and why.
"""

import datetime
import math
import plistlib
import random
import struct
import sys

REFERENCE = datetime.datetime(2001, 1, 1)
LETTERS = "abc XYZ019_-./&<>\"'\t\n"
WIDE = "\u00e4\u00df\u0416\u4e2d\u3042\uffee\u200b\u00a0"
ASTRAL = "\U0001f600\U00010000\U0010fffd"
EDGE_INTEGERS = [0, 1, 127, 128, 255, 256, 32767, 32768, 65535, 65536, 2**31 - 1, 2**31,
                 2**32 - 1, 2**32, 2**53, 2**63 - 1, 2**63, 2**64 - 1,
                 -1, -128, -129, -2**15, -2**31, -2**31 - 1, -2**53, -2**63]
EDGE_REALS = [0.0, -0.0, 1.0, -1.5, 0.1, 1e-300, 5e-324, 1.7976931348623157e308, math.pi,
              1e20, 123456789.125, math.inf, -math.inf, math.nan]
EDGE_DATES = [datetime.datetime(1, 1, 1), datetime.datetime(9999, 12, 31, 23, 59, 59),
              datetime.datetime(1969, 12, 31, 23, 59, 59), datetime.datetime(1970, 1, 1),
              datetime.datetime(2000, 2, 29, 12), datetime.datetime(2000, 12, 31, 23, 59, 59),
              REFERENCE, datetime.datetime(2038, 1, 19, 3, 14, 8)]


class Generator:
    """The same seed gives the same values, whatever the format."""

    def __init__(self, seed, binary):
        self.random = random.Random(seed)
        self.binary = binary
        self.shared = []

    def text(self):
        alphabet = self.random.choice([LETTERS, LETTERS, LETTERS + WIDE, LETTERS + WIDE + ASTRAL])
        length = self.random.choice([0, 1, 3, 8, 14, 15, 16, 40, 300])
        return "".join(self.random.choice(alphabet) for _ in range(length))

    def uid(self):
        value = self.random.choice([0, 1, 255, 256, 65535, 65536, 2**32 - 1])
        return plistlib.UID(value) if self.binary else {"CF$UID": value}

    def leaf(self):
        choose = self.random
        return choose.choice([
            self.text,
            lambda: choose.choice(EDGE_INTEGERS),
            lambda: choose.randint(-2**40, 2**40),
            lambda: choose.choice(EDGE_REALS),
            lambda: choose.uniform(-1e6, 1e6),
            lambda: choose.random() < 0.5,
            lambda: choose.choice(EDGE_DATES),
            lambda: REFERENCE + datetime.timedelta(seconds=choose.randint(-10**10, 10**10)),
            lambda: choose.randbytes(choose.choice([0, 1, 2, 3, 14, 15, 20, 57, 58, 300])),
            self.uid,
        ])()

    def value(self, depth):
        kind = self.random.random()
        if self.shared and kind < 0.05:
            return self.random.choice(self.shared)
        if depth == 0 or kind < 0.5:
            return self.leaf()
        count = self.random.choice([0, 1, 2, 5, 9, 20])
        if kind < 0.7:
            made = [self.value(depth - 1) for _ in range(count)]
        else:
            made = {self.text(): self.value(depth - 1) for _ in range(count)}
        self.shared.append(made)
        return made


def double(value):
    return struct.pack(">d", math.nan if math.isnan(value) else value).hex()


def is_uid(value):
    return (isinstance(value, dict) and list(value) == ["CF$UID"]
            and type(value["CF$UID"]) is int and 0 <= value["CF$UID"] < 2**32)


def dump(value):
    if isinstance(value, plistlib.UID):
        return "u%d" % value.data
    if is_uid(value):
        return "u%d" % value["CF$UID"]
    if isinstance(value, dict):
        pairs = sorted((key.encode("utf-16be"), item) for key, item in value.items())
        return "{%s}" % ",".join("%s=%s" % (key.hex(), dump(item)) for key, item in pairs)
    if isinstance(value, list):
        return "[%s]" % ",".join(map(dump, value))
    if isinstance(value, bool):
        return "t" if value else "f"
    if isinstance(value, int):
        return "i%d" % value
    if isinstance(value, float):
        return "r" + double(value)
    if isinstance(value, str):
        return "s" + value.encode("utf-16be").hex()
    if isinstance(value, bytes):
        return "d" + value.hex()
    if isinstance(value, datetime.datetime):
        return "D" + double((value - REFERENCE) / datetime.timedelta(seconds=1))
    raise TypeError(type(value))


def write_record(content):
    sys.stdout.buffer.write(struct.pack(">I", len(content)) + content)


def read_records():
    stream = sys.stdin.buffer
    while header := stream.read(4):
        yield stream.read(struct.unpack(">I", header)[0])


def generate(form, first, count):
    binary = form == "binary"
    for seed in range(first, first + count):
        root = Generator(seed, binary).value(4)
        write_record(plistlib.dumps(root, fmt=plistlib.FMT_BINARY if binary else plistlib.FMT_XML,
                                    sort_keys=False))


def dump_all():
    for document in read_records():
        try:
            text = dump(plistlib.loads(document))
        except Exception as failure:  # Whatever it is, the test shows it.
            text = "error %r" % failure
        write_record(text.encode())


if __name__ == "__main__":
    if sys.argv[1] == "generate":
        generate(sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
    else:
        dump_all()
