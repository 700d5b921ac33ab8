"""Zip archives whose directory and records contradict each other, or unpack to more than they should."""

from __future__ import annotations

import io
import struct
import zipfile
import zlib
from collections.abc import Callable
from dataclasses import dataclass
from functools import partial
from tempfile import TemporaryDirectory
from pathlib import Path

from .model import Case, Place, SECRET, binary, metadata, ordinary

LOCAL, CENTRAL, END, END64, LOCATOR64 = b"PK\x03\x04", b"PK\x01\x02", b"PK\x05\x06", b"PK\x06\x06", b"PK\x06\x07"
STORED, DEFLATED = 0, 8
HIGH32 = 0xFFFFFFFF


@dataclass
class Record:
    """A record with everything that its headers claim, true or not."""

    name: bytes
    data: bytes
    method: int = STORED
    flags: int = 0
    # None: the truth.
    crc: int | None = None
    size: int | None = None
    packed_size: int | None = None
    offset: int | None = None
    extra: bytes = b""
    attributes: int = 0o100644 << 16
    # A record without a local header of its own: the directory alone names it.
    listed_only: bool = False


class Archive:
    """Writes an archive byte by byte."""

    def __init__(self) -> None:
        self.records: list[Record] = []
        self.count: int | None = None
        self.directory_size: int | None = None
        self.directory_offset: int | None = None
        self.comment = b""
        self.before_end = b""
        self.after_end = b""

    def add(self, name: str | bytes, data: bytes, **options: object) -> Record:
        record = Record(name.encode() if isinstance(name, str) else name, data)
        for key, value in options.items():
            setattr(record, key, value)
        self.records.append(record)
        return record

    def encode(self) -> bytes:
        out, directory = io.BytesIO(), io.BytesIO()
        for record in self.records:
            fields, packed = self._fields(record)
            offset = out.tell() if record.offset is None else record.offset
            if not record.listed_only:
                out.write(LOCAL + fields + struct.pack("<HH", len(record.name), 0) + record.name + packed)
            directory.write(CENTRAL + struct.pack("<H", 20) + fields + struct.pack(
                "<HHHHHII", len(record.name), len(record.extra), 0, 0, 0, record.attributes, offset & HIGH32))
            directory.write(record.name + record.extra)
        start, size = out.tell(), directory.tell()
        count = len(self.records) if self.count is None else self.count
        out.write(directory.getvalue() + self.before_end)
        out.write(END + struct.pack(
            "<HHHHIIH", 0, 0, count & 0xFFFF, count & 0xFFFF,
            size if self.directory_size is None else self.directory_size,
            start if self.directory_offset is None else self.directory_offset, len(self.comment)))
        out.write(self.comment + self.after_end)
        return out.getvalue()

    def _fields(self, record: Record) -> tuple[bytes, bytes]:
        packed = deflated(record.data) if record.method == DEFLATED else record.data
        crc = zlib.crc32(record.data) if record.crc is None else record.crc
        packed_size = len(packed) if record.packed_size is None else record.packed_size
        size = len(record.data) if record.size is None else record.size
        return struct.pack("<HHHHHIII", 20, record.flags, record.method, 0, 0x21, crc, packed_size, size), packed


def deflated(data: bytes) -> bytes:
    # Great ones are bombs, of which there is little to compress.
    compressor = zlib.compressobj(9 if len(data) < 1 << 20 else 1, zlib.DEFLATED, -15)
    return compressor.compress(data) + compressor.flush()


def sound(place: Place) -> Archive:
    """The archive of an ordinary backup."""
    archive = Archive()
    with TemporaryDirectory() as folder:
        root = ordinary(Place(Path(folder) / "backup", place.outside)).write()
        for path in sorted(root.rglob("*")):
            if path.is_file():
                archive.add(str(path.relative_to(root)), path.read_bytes())
    return archive


def zipped(change: Callable[[Archive, Place], None], **options: object) -> Case:
    def make(place: Place) -> None:
        archive = sound(place)
        change(archive, place)
        place.backup.write_bytes(archive.encode())
    return Case(make, zipped=True, **options)  # type: ignore[arg-type]


def raw(spoil: Callable[[bytes], bytes]) -> Case:
    """The bytes of a sound archive come to harm."""
    def make(place: Place) -> None:
        place.backup.write_bytes(spoil(sound(place).encode()))
    return Case(make, zipped=True)


def overlapping(archive: Archive, _place: Place) -> None:
    """Three thousand records over one stretch of bytes."""
    data = deflated(bytes(1_000_000))
    first = archive.add("00/" + "0" * 40, bytes(1_000_000), method=DEFLATED)
    first.offset = sum(30 + len(r.name) + len(r.data) for r in archive.records[:-1])
    for index in range(1, 3000):
        name = f"{index:040x}"
        archive.add(f"{name[:2]}/{name}", b"", method=DEFLATED, size=1_000_000, packed_size=len(data),
                    crc=zlib.crc32(bytes(1_000_000)), offset=first.offset, listed_only=True)


def wrapped_count(archive: Archive, _place: Place) -> None:
    """The count is kept in sixteen bits, and there is no larger form beside it."""
    for index in range(65_536 + 10 - len(archive.records)):
        archive.add(f"{index:06}", b"")


def bomb(archive: Archive, _place: Place, name: str, size: int) -> None:
    archive.records = [record for record in archive.records if record.name != name.encode()]
    archive.add(name, bytes(size), method=DEFLATED)


def property_list_bomb(archive: Archive, _place: Place) -> None:
    """A sound list of one great text."""
    archive.records = [record for record in archive.records if record.name != b"Info.plist"]
    text = b"<plist><dict><key>a</key><string>" + b"x" * 100_000_000 + b"</string></dict></plist>"
    archive.add("Info.plist", text, method=DEFLATED)


def content_bomb(archive: Archive, _place: Place) -> None:
    for record in archive.records:
        if b"/" in record.name:
            record.data, record.method = bytes(200_000_000), DEFLATED


def many_bombs(archive: Archive, _place: Place) -> None:
    for name in ("Manifest.plist", "Info.plist", "Status.plist", "Manifest.db"):
        bomb(archive, _place, name, 100_000_000)


def mbdb_bomb(archive: Archive, _place: Place, count: int) -> None:
    """Millions of records of an old manifest in a few kilobytes."""
    archive.records = [record for record in archive.records if record.name != b"Manifest.db"]
    for record in archive.records:
        if record.name == b"Status.plist":
            record.data = binary(metadata()["Status.plist"] | {"Version": "2.4"})
    entry = b"\x00\x01D\x00\x01p" + b"\xff\xff" * 3 + struct.pack(">HQIIIIIQBB", 0o100644, 1, 1, 1, 1, 1, 1, 1, 1, 0)
    archive.add("Manifest.mbdb", b"mbdb\x05\x00" + entry * count, method=DEFLATED)


def names(archive: Archive, place: Place) -> None:
    for name in (b"../escape", b"/escape", str(place.outside).encode() + b"/escape", b"..\\escape", b"a\0b", b"",
                 b"\xff\xfe", b"\x1b[31m", b"./Info.plist", b"INFO.PLIST", b"Manifest.db\0", b"ab//cd", b"x" * 60_000,
                 b"a/" * 5_000, b"../../../../../../etc/passwd", b"CON", b"directory/"):
        archive.add(name, SECRET)


def duplicates(archive: Archive, _place: Place) -> None:
    for record in list(archive.records):
        archive.add(record.name, b"another content under the same name")


def changed(archive: Archive, _place: Place, which: str, **changes: object) -> None:
    """The headers of some records claim something else."""
    for record in archive.records:
        if which == "all" or record.name == which.encode() or (which == "contents" and b"/" in record.name):
            for name, value in changes.items():
                setattr(record, name, value)


def encrypted(archive: Archive, _place: Place, prefix: str) -> None:
    """Records that only a password of the archive would open: twelve bytes more, and none of them readable."""
    for record in archive.records:
        if record.name.startswith(prefix.encode()) and (prefix or b"/" in record.name):
            record.crc, record.size, record.flags = zlib.crc32(record.data), len(record.data), 1
            record.data = bytes(12) + bytes(octet ^ 0x5A for octet in record.data)


def zip64(archive: Archive, _place: Place, size: int, packed_size: int, offset: int) -> None:
    extra = struct.pack("<HHQQQ", 1, 24, size, packed_size, offset)
    for record in archive.records:
        record.extra = extra
        record.size, record.packed_size, record.offset = HIGH32, HIGH32, HIGH32


def zip64_end(archive: Archive, _place: Place, count: int, size: int, offset: int, locator: int | None) -> None:
    where = len(archive.encode()) - 22
    archive.before_end = END64 + struct.pack("<QHHIIQQQQ", 44, 45, 45, 0, 0, count, count, size, offset)
    archive.before_end += LOCATOR64 + struct.pack("<IQI", 0, where if locator is None else locator, 1)
    archive.count, archive.directory_size, archive.directory_offset = 0xFFFF, HIGH32, HIGH32


def end(archive: Archive, _place: Place, **changes: object) -> None:
    for name, value in changes.items():
        setattr(archive, name, value)


def of_many_records(archive: Archive, _place: Place) -> None:
    for index in range(40_000):
        archive.add(f"{index:040x}", b"")


def python_made(place: Place) -> None:
    """Records of other makers: directories, links, an encrypted record, other methods."""
    with zipfile.ZipFile(place.backup, "w") as out:
        for record in sound(place).records:
            method = zipfile.ZIP_BZIP2 if record.name == b"Info.plist" else zipfile.ZIP_DEFLATED
            out.writestr(record.name.decode(), record.data, method)
        link = zipfile.ZipInfo("link")
        link.external_attr = 0o120777 << 16
        out.writestr(link, str(place.outside))
        out.writestr("link/escape", SECRET)
        out.mkdir("directory") if hasattr(out, "mkdir") else out.writestr("directory/", b"")


CASES: dict[str, Case] = {
    "overlapping": zipped(overlapping, status={"export": 1, "verify": 1}),
    "wrapped_count": zipped(wrapped_count),
    "metadata_bomb": zipped(partial(bomb, name="Manifest.plist", size=100_000_000), status={"info": 1}),
    "info_bomb": zipped(property_list_bomb, heavy=True),
    "metadata_bombs": zipped(many_bombs, heavy=True, status={"info": 1}),
    "content_bomb": zipped(content_bomb, heavy=True),
    "mbdb_bomb": zipped(partial(mbdb_bomb, count=3_000_000), heavy=True),
    "names": zipped(names),
    "duplicates": zipped(duplicates),
    "many_records": zipped(of_many_records),
    "other_makers": Case(python_made, zipped=True),
    "encrypted_contents": zipped(partial(encrypted, prefix=""), status={"extract": 1, "verify": 1}),
    "encrypted_metadata": zipped(partial(encrypted, prefix="Manifest.plist"), status={"info": 1}),
    "unknown_method": zipped(partial(changed, which="contents", method=99), status={"extract": 1, "verify": 1}),
    "wrong_crc": zipped(partial(changed, which="contents", crc=1), status={"extract": 1, "verify": 1}),
    "absurd_sizes": zipped(partial(changed, which="all", size=HIGH32 - 1, packed_size=HIGH32 - 1)),
    "sizes_of_zero": zipped(partial(changed, which="all", size=0, packed_size=0)),
    "larger_when_unpacked": zipped(partial(changed, which="contents", method=DEFLATED, size=3)),
    "offsets_outside": zipped(partial(changed, which="all", offset=0x7FFFFFF0)),
    "one_offset": zipped(partial(changed, which="all", offset=0)),
    "zip64_of_2_63": zipped(partial(zip64, size=2**63, packed_size=2**63, offset=2**63)),
    "zip64_of_2_64": zipped(partial(zip64, size=2**64 - 1, packed_size=2**64 - 1, offset=2**64 - 1)),
    "zip64_of_tera": zipped(partial(zip64, size=2**40, packed_size=10, offset=0)),
    "zip64_count": zipped(partial(zip64_end, count=2**60, size=100, offset=0, locator=None)),
    "zip64_offset": zipped(partial(zip64_end, count=4, size=2**63, offset=2**63, locator=None)),
    "zip64_locator": zipped(partial(zip64_end, count=4, size=100, offset=0, locator=2**62)),
    "count_of_nothing": zipped(partial(end, count=0)),
    "count_too_large": zipped(partial(end, count=60_000)),
    "directory_too_large": zipped(partial(end, directory_size=0x7FFFFFFF)),
    "directory_outside": zipped(partial(end, directory_offset=0x7FFFFFFF)),
    "trailing_data": zipped(partial(end, after_end=SECRET * 100)),
    "second_end_in_comment": zipped(partial(end, comment=(END + bytes(18)) * 2000)),
    "comment_cut": zipped(partial(end, comment=b"x" * 60_000, after_end=b"")),
    "empty_file": raw(lambda _whole: b""),
    "end_only": raw(lambda _whole: END + bytes(18)),
    "start_only": raw(lambda _whole: LOCAL),
    "truncated_early": raw(lambda whole: whole[:40]),
    "truncated_in_the_middle": raw(lambda whole: whole[:len(whole) // 2]),
    "truncated_late": raw(lambda whole: whole[:-30]),
    "start_cut": raw(lambda whole: whole[1000:]),
    "changed_bytes": raw(lambda whole: bytes(b ^ 0xFF if i % 997 == 0 else b for i, b in enumerate(whole))),
    "zeros": raw(lambda _whole: bytes(100_000)),
}
