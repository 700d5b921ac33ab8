"""Databases that are damaged, are no manifest, or have SQLite do more than read a table."""

from __future__ import annotations

import sqlite3
import struct
from collections.abc import Callable
from functools import partial
from pathlib import Path

from .model import Backup, Case, DOMAIN, FILE, INSERT, Place, made, ordinary, record, spoiled

PAGE = 4096
COLUMNS = "fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB"
ENDLESS = "WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c) "


def bytes_of(spoil: Callable[[bytes], bytes]) -> Case:
    def harm(root: Path, _place: Place) -> None:
        path = root / "Manifest.db"
        path.write_bytes(spoil(path.read_bytes()))
    return spoiled(harm)


def of_many_pages(spoil: Callable[[bytearray], None]) -> Case:
    """A database large enough to have inner pages, spoiled afterwards."""
    def make(place: Place) -> None:
        backup = ordinary(place)
        for index in range(800):
            backup.file_with_id(f"{index:040x}", f"Library/entry {index}")
        data = bytearray((backup.write() / "Manifest.db").read_bytes())
        spoil(data)
        (backup.root / "Manifest.db").write_bytes(data)
    return Case(make)


def inner_pages(data: bytearray) -> list[int]:
    """The offsets of the pages that hold references to other pages of a table or an index."""
    return [start for start in range(PAGE, len(data), PAGE) if data[start] in (2, 5)]


def make_cycle(data: bytearray) -> None:
    """Every reference of an inner page leads back to the page itself."""
    for start in inner_pages(data):
        own = struct.pack(">I", start // PAGE + 1)
        data[start + 8:start + 12] = own
        for cell in range(struct.unpack(">H", data[start + 3:start + 5])[0]):
            (offset,) = struct.unpack(">H", data[start + 12 + 2 * cell:start + 14 + 2 * cell])
            data[start + offset:start + offset + 4] = own


def share_children(data: bytearray) -> None:
    """All references of an inner page lead to one child."""
    for start in inner_pages(data):
        for cell in range(struct.unpack(">H", data[start + 3:start + 5])[0]):
            (offset,) = struct.unpack(">H", data[start + 12 + 2 * cell:start + 14 + 2 * cell])
            data[start + offset:start + offset + 4] = data[start + 8:start + 12]


def corrupt(data: bytearray, step: int, first: int) -> None:
    for offset in range(first, len(data), step):
        data[offset] ^= 0xA5


def sql(*statements: str, rows: bool = True) -> Case:
    """Another schema, and the ordinary rows in it when it has a table for them."""
    def make(place: Place) -> None:
        backup = ordinary(place)
        backup.root.mkdir()
        backup.write_metadata()
        backup.write_stored()
        with sqlite3.connect(backup.root / "Manifest.db") as connection:
            connection.executescript(";".join(statements))
            if rows:
                connection.executemany(INSERT, backup.rows)
        connection.close()
    return Case(make)


def view(definition: str) -> Case:
    return sql(f"CREATE TABLE Real ({COLUMNS})", "CREATE TABLE Properties (key, value)",
               f"CREATE VIEW Files AS {definition}", rows=False)


def unusual_schema(statement: str) -> Case:
    """What SQLite itself would refuse is written into the schema's own table."""
    def harm(root: Path, _place: Place) -> None:
        with sqlite3.connect(root / "Manifest.db") as connection:
            connection.execute("PRAGMA writable_schema=ON")
            connection.execute("UPDATE sqlite_master SET sql = ? WHERE name = 'Files'", (statement,))
        connection.close()
    return spoiled(harm)


def beside(name: str, content: Callable[[Path], bytes]) -> Case:
    def harm(root: Path, _place: Place) -> None:
        (root / name).write_bytes(content(root))
    return spoiled(harm)


def live_log(root: Path, place: Place) -> None:
    """A write-ahead log with a row that the database alone does not have."""
    path, copy = root / "Manifest.db", place.outside / "log"
    connection = sqlite3.connect(path, isolation_level=None)
    connection.execute("PRAGMA journal_mode=WAL")
    connection.execute("PRAGMA wal_autocheckpoint=0")
    connection.execute(INSERT, ("f" * 40, DOMAIN, "Library/logged", FILE, record("Library/logged")))
    copy.write_bytes((root / "Manifest.db-wal").read_bytes())
    connection.close()
    copy.rename(root / "Manifest.db-wal")


def hot_journal(root: Path) -> bytes:
    """A journal that would roll the database back to nothing."""
    pages = len((root / "Manifest.db").read_bytes()) // PAGE
    header = bytes.fromhex("d9d505f920a163d7") + struct.pack(">IIIII", 1, 0, pages, 512, PAGE)
    return header.ljust(512, b"\0") + struct.pack(">I", 1) + bytes(PAGE) + struct.pack(">I", 0)


def huge(backup: Backup, size: int) -> None:
    backup.rows.append(("e" * 40, DOMAIN, "Library/huge", FILE, b"bplist00" + bytes(size)))


def huge_texts(backup: Backup) -> None:
    backup.rows.append(("e" * 40, "D" * 10_000_000, "p" * 10_000_000, FILE, record("x")))


def other_types(backup: Backup) -> None:
    values = (None, -1, 0, 2**63 - 1, -2**63, 1e308, float("inf"), "text", "", b"", b"blob", "1", " 1", "1x")
    for index, value in enumerate(values):
        blob = record("x")
        backup.rows.append((f"{index:040x}", value, f"Library/{index}", FILE, blob))
        backup.rows.append((f"1{index:039x}", DOMAIN, value, FILE, blob))
        backup.rows.append((f"2{index:039x}", DOMAIN, f"Library/flags {index}", value, blob))
        backup.rows.append((f"3{index:039x}", DOMAIN, f"Library/blob {index}", FILE, value))


def in_encoding(encoding: str) -> Case:
    return sql(f"PRAGMA encoding='{encoding}'", f"CREATE TABLE Files ({COLUMNS})")


def of_page_size(size: int) -> Case:
    return sql(f"PRAGMA page_size={size}", f"CREATE TABLE Files ({COLUMNS})")


def instead(make: Callable[[Path], object]) -> Case:
    """Something else has the database's name."""
    def harm(root: Path, _place: Place) -> None:
        (root / "Manifest.db").unlink()
        make(root / "Manifest.db")
    return spoiled(harm, status={"info": 1, "ls": 1, "extract": 1, "verify": 1, "export": 1, "edit": 1, "csv": 1})


TABLE = f"CREATE TABLE Files ({COLUMNS})"
CASES: dict[str, Case] = {
    "empty_file": bytes_of(lambda _whole: b""),
    "no_database": bytes_of(lambda _whole: b"this is no database\n" * 1000),
    "header_only": bytes_of(lambda whole: whole[:100]),
    "truncated": bytes_of(lambda whole: whole[:len(whole) // 2]),
    "truncated_in_a_page": bytes_of(lambda whole: whole[:-1000]),
    "zeros_behind": bytes_of(lambda whole: whole + bytes(PAGE * 10)),
    "page_size_of_zero": bytes_of(lambda whole: whole[:16] + b"\0\0" + whole[18:]),
    "unknown_format": bytes_of(lambda whole: whole[:18] + b"\x09\x09" + whole[20:]),
    "large_page_count": bytes_of(lambda whole: whole[:28] + b"\x7f\xff\xff\xff" + whole[32:]),
    "free_list_cycle": bytes_of(lambda whole: whole[:32] + b"\0\0\0\x02\0\0\xff\xff" + whole[40:]),
    "cycle": of_many_pages(make_cycle),
    "shared_children": of_many_pages(share_children),
    **{f"corrupt_{step}_{first}": of_many_pages(partial(corrupt, step=step, first=first))
       for step, first in ((97, 100), (1009, 100), (1009, 5000), (4099, 4096), (9001, 20_000))},
    "triggers": sql(TABLE, "CREATE TRIGGER t1 AFTER INSERT ON Files BEGIN INSERT INTO Files SELECT "
                    "new.fileID || 'x', new.domain, new.relativePath, 1, new.file WHERE length(new.fileID) < 45; END",
                    "CREATE TRIGGER t2 BEFORE DELETE ON Files BEGIN SELECT RAISE(ABORT, 'no'); END"),
    "view": view("SELECT * FROM Real"),
    "view_endless": view(ENDLESS + "SELECT n || '', 'D', 'p', 1, x'' FROM c"),
    "view_endless_without_rows": view(ENDLESS + "SELECT n, n, n, n, n FROM c WHERE n < 0"),
    "view_of_blobs": view(ENDLESS + "SELECT n || '', 'D', 'p', 1, zeroblob(900000000) FROM c LIMIT 1000"),
    "view_of_texts": view("SELECT replace(hex(zeroblob(1000000)), '0', replace(hex(zeroblob(10000)), '0', 'x')),"
                          " 'D', 'p', 1, x''"),
    "view_of_itself": unusual_schema("CREATE VIEW Files AS SELECT * FROM Files"),
    "view_of_functions": view("SELECT load_extension('x'), readfile('/etc/passwd'), 'p', 1, x''"),
    "generated_columns": sql("CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, base BLOB,"
                             " file BLOB GENERATED ALWAYS AS (zeroblob(500000000)) VIRTUAL)"),
    "generated_randomly": sql("CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, b BLOB,"
                              " file BLOB AS (hex(replace(hex(zeroblob(9000)), '00', fileID))) VIRTUAL)"),
    "expensive_index": sql(TABLE, "CREATE INDEX i ON Files (length(replace(fileID, '0', hex(fileID))))"),
    "check_constraint": sql(TABLE.replace("flags INTEGER", "flags INTEGER CHECK (flags < 100)")),
    "unknown_collation": unusual_schema(f"CREATE TABLE Files ({COLUMNS.replace('domain TEXT', 'domain TEXT COLLATE x')})"),
    "unknown_module": unusual_schema("CREATE VIRTUAL TABLE Files USING nothing(a, b)"),
    "virtual_table": sql("CREATE VIRTUAL TABLE Files USING fts4(fileID, domain, relativePath, flags, file)"),
    "schema_is_no_sql": unusual_schema("DROP TABLE everything; --"),
    "schema_is_null": unusual_schema("CREATE TABLE Files (\0"),
    "schema_is_long": unusual_schema(f"CREATE TABLE Files ({COLUMNS}, " + ", ".join(f"c{i}" for i in range(1900)) + ")"),
    "schema_is_deep": unusual_schema(f"CREATE TABLE Files ({COLUMNS} CHECK (" + "(" * 5000 + "1" + ")" * 5000 + "))"),
    "no_table": sql("CREATE TABLE Other (a)", rows=False),
    "no_rows": sql(TABLE, rows=False),
    "missing_column": sql("CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, blob BLOB)"),
    "other_column_types": sql("CREATE TABLE Files (fileID BLOB, domain INTEGER, relativePath REAL, flags TEXT, file TEXT)"),
    "other_value_types": made(other_types),
    "without_rowid": sql(f"CREATE TABLE Files ({COLUMNS.replace('fileID TEXT', 'fileID TEXT PRIMARY KEY')}) WITHOUT ROWID"),
    "utf16_little": in_encoding("UTF-16le"),
    "utf16_big": in_encoding("UTF-16be"),
    "pages_of_512": of_page_size(512),
    "pages_of_65536": of_page_size(65536),
    "auto_vacuum": sql("PRAGMA auto_vacuum=FULL", TABLE),
    "log_live": spoiled(live_log),
    "log_of_garbage": beside("Manifest.db-wal", lambda _root: b"\x37\x7f\x06\x82" + bytes(10_000)),
    "log_is_database": beside("Manifest.db-wal", lambda root: (root / "Manifest.db").read_bytes()),
    "journal_hot": beside("Manifest.db-journal", hot_journal),
    "journal_of_garbage": beside("Manifest.db-journal", lambda _root: b"x" * 10_000),
    "shared_memory": beside("Manifest.db-shm", lambda _root: b"x" * 32768),
    "huge_blob": made(partial(huge, size=50_000_000)),
    "huge_texts": made(huge_texts),
    "is_directory": instead(Path.mkdir),
    "is_missing": instead(lambda path: None),
}
