"""Metadata property lists that grow without end, contain themselves, or are no dictionaries."""

from __future__ import annotations

import plistlib
import struct
from functools import partial
from typing import Any

from .model import Backup, Case, SECRET, binary, made, metadata

NAMES = ("Manifest.plist", "Info.plist", "Status.plist")
HEADER = b"bplist00"
XML = b'<?xml version="1.0" encoding="UTF-8"?>\n'


def of_objects(objects: list[bytes], root: int = 0, reference_size: int = 4) -> bytes:
    """A binary property list of objects that are encoded already."""
    out, offsets = bytearray(HEADER), []
    for item in objects:
        offsets.append(len(out))
        out += item
    table = len(out)
    out += b"".join(struct.pack(">I", offset) for offset in offsets)
    return bytes(out) + struct.pack(">6xBBQQQ", 4, reference_size, len(objects), root, table)


def collection(mark: int, references: list[int]) -> bytes:
    count = len(references) if mark == 0xA0 else len(references) // 2
    start = bytes([mark | count]) if count < 15 else bytes([mark | 15, 0x12]) + struct.pack(">I", count)
    return start + b"".join(struct.pack(">I", reference) for reference in references)


def text(value: bytes) -> bytes:
    start = bytes([0x50 | len(value)]) if len(value) < 15 else b"\x5f\x12" + struct.pack(">I", len(value))
    return start + value


def dictionary_of(*others: bytes) -> bytes:
    """{"a": the first of the others}, which follow it in the table."""
    return of_objects([collection(0xD0, [1, 2]), text(b"a"), *others])


def multiplying(levels: int) -> bytes:
    """Each array holds the next one ten times."""
    arrays = [collection(0xA0, [index + 3] * 10) for index in range(levels)]
    return dictionary_of(*arrays, text(b"x"))


def nested(depth: int) -> bytes:
    arrays = [collection(0xA0, [index + 3]) for index in range(depth)]
    return dictionary_of(*arrays, text(b"x"))


def xml_nested(depth: int) -> bytes:
    return XML + b"<plist><dict><key>a</key>" + b"<array>" * depth + b"</array>" * depth + b"</dict></plist>"


def with_values(name: str, **values: Any) -> bytes:
    return binary(metadata()[name] | values)


def in_xml(body: str, name: str) -> bytes:
    """The ordinary list with one more value, and nothing checked."""
    whole = plistlib.dumps(metadata()[name]).replace(b"</dict>\n</plist>", b"@</dict>\n</plist>")
    return whole.replace(b"@", f"<key>odd</key>{body}".encode())


def entities(body: str) -> bytes:
    laughs = "".join(f'<!ENTITY l{i} "{f"&l{i - 1};" * 10}">' for i in range(1, 12))
    declared = f'<!DOCTYPE plist [<!ENTITY l0 "ha">{laughs}<!ENTITY file SYSTEM "file:///etc/passwd">]>'
    return XML + f"{declared}<plist><dict><key>a</key><string>{body}</string></dict></plist>".encode()


def lying(trailer: dict[int, bytes]) -> bytes:
    data = bytearray(with_values("Info.plist"))
    for offset, value in trailer.items():
        data[len(data) - 32 + offset:len(data) - 32 + offset + len(value)] = value
    return bytes(data)


ANYTHING: dict[str, bytes] = {
    "empty": b"",
    "garbage": b"\x00\xff" * 1000,
    "text": b"just some text",
    "header_only": HEADER,
    "truncated": binary(metadata()["Manifest.plist"])[:-40],
    "array_on_top": binary(["an", "array"]),
    "text_on_top": binary("a text"),
    "number_on_top": binary(42),
    "multiplying": multiplying(12),
    "contains_itself": dictionary_of(collection(0xA0, [2])),
    "dictionary_in_itself": of_objects([collection(0xD0, [1, 0]), text(b"a")]),
    "key_is_dictionary": of_objects([collection(0xD0, [0, 0])]),
    "keys_are_numbers": of_objects([collection(0xD0, [1, 1]), b"\x10\x05"]),
    "same_key_twice": of_objects([collection(0xD0, [1, 1, 1, 1]), text(b"a")]),
    "nested_1000": nested(1000),
    "nested_100000": nested(100_000),
    "xml_nested_100000": xml_nested(100_000),
    "xml_unclosed": XML + b"<plist><dict><key>a</key><array>" * 1000,
    "xml_without_end": XML + b"<plist><dict>" + b" " * 1_000_000,
    "xml_attribute": XML + b'<plist version="' + b"x" * 1_000_000 + b'"><dict/></plist>',
    "entities": entities("&l11;"),
    "entity_of_file": entities("&file;"),
    "utf16": plistlib.dumps({"a": "b"}).decode().replace("UTF-8", "UTF-16").encode("utf-16"),
    "count_of_2_60": dictionary_of(b"\xaf\x13\x10\0\0\0\0\0\0\0"),
    "data_of_2_62": dictionary_of(b"\x4f\x13\x40\0\0\0\0\0\0\0"),
    "text_of_2_31": dictionary_of(b"\x6f\x12\x80\0\0\0"),
    "unknown_marks": dictionary_of(b"\x70", b"\xe0", b"\xf0"),
    "uid": dictionary_of(b"\x80\x05"),
    "uid_of_16_octets": dictionary_of(b"\x8f" + b"\xff" * 16),
    "integer_of_16_octets": dictionary_of(b"\x14" + b"\xff" * 16),
    "set": dictionary_of(b"\xc1\0\0\0\x01"),
    "date_of_nan": dictionary_of(b"\x33\x7f\xf8\0\0\0\0\0\0"),
    "date_of_1e300": dictionary_of(b"\x33" + struct.pack(">d", 1e300)),
    "date_of_minus_1e300": dictionary_of(b"\x33" + struct.pack(">d", -1e300)),
    "real_of_infinity": dictionary_of(b"\x23" + struct.pack(">d", float("inf"))),
    "lone_surrogate": dictionary_of(b"\x61\xd8\x00"),
    "control_characters": dictionary_of(text(bytes(range(1, 32)) + b"\x7f")),
    "nul_in_text": dictionary_of(text(b"a\0b")),
    "not_ascii": dictionary_of(text(b"\xff\xfe")),
    "count_of_objects": lying({8: b"\xff" * 8}),
    "offset_table": lying({24: b"\xff" * 8}),
    "root": lying({16: b"\xff" * 8}),
    "offset_size_0": lying({6: b"\0"}),
    "offset_size_255": lying({6: b"\xff"}),
    "reference_size_0": lying({7: b"\0"}),
}
# Values that the reader of a backup asks for.
MANIFEST_VALUES: dict[str, dict[str, Any]] = {
    "encrypted_text": {"IsEncrypted": "yes"}, "encrypted_number": {"IsEncrypted": 2},
    "encrypted_dictionary": {"IsEncrypted": {}}, "encrypted_without_keys": {"IsEncrypted": True},
    "lockdown_text": {"Lockdown": "text"}, "lockdown_empty": {"Lockdown": {}},
    "lockdown_odd": {"Lockdown": {"ProductVersion": 16, "DeviceName": ["a"], "ProductType": b"x"}},
    "version_long": {"Lockdown": {"ProductVersion": "1" * 100_000}},
    "version_odd": {"Lockdown": {"ProductVersion": "-1.\x1b[31m.99999999999999999999"}},
    "domains_version": {"SystemDomainsVersion": "9" * 1000}, "domains_version_odd": {"SystemDomainsVersion": [1]},
    "applications_text": {"Applications": "text"}, "keybag_text": {"BackupKeyBag": "text", "IsEncrypted": True},
}
STATUS_VALUES: dict[str, dict[str, Any]] = {
    "version_number": {"Version": 3.2}, "version_unknown": {"Version": "9.9"}, "version_missing": {"Version": ""},
    "version_long": {"Version": "3.2" * 100_000}, "version_nul": {"Version": "3.2\0"}, "version_old": {"Version": "2.4"},
    "version_controls": {"Version": "\x1b[31m3.2\x9b"}, "version_dictionary": {"Version": {"a": 1}},
    "values_odd": {"Date": "text", "UUID": 5, "IsFullBackup": "maybe"},
}
# XML that our own writer would have to repeat, and readers of text have to bear.
INFO_XML = {
    "control_reference": "<string>&#1;&#27;[31m</string>", "control_raw": "<string>\x01\x1b[31m</string>",
    "date_of_year_0": "<date>0000-00-00T00:00:00Z</date>", "date_of_year_99999": "<date>99999-01-01T00:00:00Z</date>",
    "date_with_fraction": "<date>2023-11-05T10:00:00.123Z</date>", "integer_large": f"<integer>{'9' * 400}</integer>",
    "integer_hexadecimal": "<integer>0x7fffffffffffffff</integer>", "real": "<real>nan</real>",
    "data_odd": "<data>====</data>", "unknown_element": "<blink>text</blink>",
    "text_of_many_kinds": "<string>a<![CDATA[<b>]]>&amp;&#x10FFFF;&#xFFFE;</string>",
}


def put(backup: Backup, name: str, content: bytes) -> None:
    backup.metadata[name] = content


def add_controls(backup: Backup) -> None:
    """What `info` shows of the device."""
    odd = "\x1b]0;title\x07\x9b31m\u202ebackwards\n\r\0end"
    backup.metadata["Info.plist"] |= {"Device Name": odd, odd: odd, "Unique Identifier": "x" * 1_000_000}
    backup.metadata["Manifest.plist"]["Lockdown"] |= {"DeviceName": odd, "ProductType": odd, "BuildVersion": odd}


def entity_of_secret(backup: Backup) -> None:
    secret = backup.place.secret
    secret.write_bytes(SECRET)
    content = entities("&file;").replace(b"/etc/passwd", str(secret).encode())
    backup.metadata["Info.plist"] = content.replace(b"<key>a</key>", b"<key>Device Name</key>")


CASES: dict[str, Case] = {
    # Each is tried in one place; all in all the three places are.
    **{name: made(partial(put, name=NAMES[index % 3], content=content))
       for index, (name, content) in enumerate(ANYTHING.items())},
    **{f"manifest_{name}": made(partial(put, name="Manifest.plist", content=with_values("Manifest.plist", **values)))
       for name, values in MANIFEST_VALUES.items()},
    **{f"status_{name}": made(partial(put, name="Status.plist", content=with_values("Status.plist", **values)))
       for name, values in STATUS_VALUES.items()},
    **{f"info_{name}": made(partial(put, name="Info.plist", content=in_xml(body, "Info.plist")))
       for name, body in INFO_XML.items()},
    "info_controls": made(add_controls),
    "info_entity_of_secret": made(entity_of_secret),
    "info_multiplying_8": made(partial(put, name="Info.plist", content=multiplying(8)), heavy=True),
}
