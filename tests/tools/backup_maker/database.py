"""Manifest.db, the SQLite manifest, with the same bytes wherever it is made.

SQLite stamps its own version and a count of changes into the file's header. Both are overwritten, so that another
build of SQLite gives the same file; secure_delete keeps remains of moved cells out of it, which builds differ in. What
is left to SQLite is how its trees split their pages: no promise covers that.
"""

from __future__ import annotations

import sqlite3
from collections.abc import Iterable
from pathlib import Path

SCHEMA = (
    "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB)",
    "CREATE INDEX FilesDomainIdx ON Files(domain)",
    "CREATE INDEX FilesRelativePathIdx ON Files(relativePath)",
    "CREATE INDEX FilesFlagsIdx ON Files(flags)",
    "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB)",
)
INSERT = "INSERT INTO Files (fileID, domain, relativePath, flags, file) VALUES (?, ?, ?, ?, ?)"
USER_VERSION = 2
PAGE_SIZE = 4096
# The version that the header claims: a release that knows everything used here.
CLAIMED_SQLITE_VERSION = 3_028_000
JOURNAL_FORMATS = {"delete": 1, "wal": 2}

Row = tuple[str, str | None, str | None, int, bytes | None]


def write(path: Path, rows: Iterable[Row], journal_mode: str) -> None:
    """Writes a database of the rows in the given order; the file must not exist."""
    connection = sqlite3.connect(path, isolation_level=None)
    try:
        for pragma in (f"page_size={PAGE_SIZE}", "encoding='UTF-8'", "auto_vacuum=INCREMENTAL", "secure_delete=ON",
                       "journal_mode=OFF", "synchronous=OFF", "cache_size=-262144", f"user_version={USER_VERSION}"):
            connection.execute(f"PRAGMA {pragma}").fetchall()
        connection.execute("BEGIN")
        for statement in SCHEMA:
            connection.execute(statement)
        connection.executemany(INSERT, rows)
        connection.execute("COMMIT")
    finally:
        connection.close()
    normalise_header(path, journal_mode)


def normalise_header(path: Path, journal_mode: str) -> None:
    journal = JOURNAL_FORMATS[journal_mode]
    with open(path, "r+b") as file:
        file.seek(18)
        # The write-ahead log is checkpointed away on a device, but the file keeps saying that it is in use.
        file.write(bytes([journal, journal]))
        file.seek(24)
        file.write((1).to_bytes(4, "big"))
        file.seek(92)
        file.write((1).to_bytes(4, "big") + CLAIMED_SQLITE_VERSION.to_bytes(4, "big"))
