"""File IDs, which become names of stored files, that are anything but forty digits."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from typing import Any

from .model import Backup, CONTENT, Case, LOOSE_SCHEMA, DOMAIN, FILE, file_id, made, record

IDENTIFIERS: dict[str, tuple[Any, ...]] = {
    "short": ("a", "ab", "abc", "."),
    "empty": ("",),
    "not_hex": ("Z" * 40, "z" * 40, "\u00e9" * 40, "0123456789" * 20, "-" * 40, "%" * 40),
    "slashes": ("a/b", "ab/../../secret", "/etc/passwd", "ab//cd", "/" * 40, "ab/", "{outside}/secret"),
    "dotdot": ("..", "../secret", "../../../../etc/passwd", "...", "..a", "../" * 13 + "x", "....//secret"),
    "metadata": ("Manifest.db", "Manifest.plist", "Info.plist", "Status.plist", "Ma", "Manifest.db-wal"),
    "upper_case": (file_id(DOMAIN, "Library/upper").upper(), "ABCDEF" + "0" * 34),
    "controls": ("nul\0" + "0" * 36, "\0" * 40, "\n" * 40, "\x1b[31m" + "0" * 35, "\x9b" * 40),
    "other_types": (None, 42, 2**63 - 1, -1, 1.5, b"blob", b"\0" * 20, b"\xff" * 40),
    "long": ("a" * 1_000_000, "ab" * 2048, "0" * 41, "0" * 39),
    "unicode": ("\u202e" * 40, "\ufffe" * 40, "\U0001f4a9" * 10),
}


def identifiers(backup: Backup, values: tuple[Any, ...]) -> None:
    backup.schema = LOOSE_SCHEMA
    for index, value in enumerate(values):
        if isinstance(value, str):
            value = value.replace("{outside}", str(backup.place.outside))
        backup.file_with_id(value, f"Library/entry {index}")


def shared(backup: Backup) -> None:
    """One content for many entries, of which each may be removed."""
    backup.schema = LOOSE_SCHEMA
    identifier = backup.rows[2][0]
    for index in range(50):
        backup.file_with_id(identifier, f"Library/shared {index}")


def foreign(backup: Backup) -> None:
    """Each entry has the ID of the other."""
    (first, *rest), (second, *others) = backup.rows[2], backup.rows[3]
    backup.rows[2:4] = [(second, *rest), (first, *others)]  # type: ignore[list-item]


def of_directories(backup: Backup) -> None:
    """A directory and a link share the ID of a file."""
    backup.schema = LOOSE_SCHEMA
    identifier = backup.rows[2][0]
    backup.rows.append((identifier, DOMAIN, "Library/dir", 2, record("Library/dir", 0o040755, 0)))
    backup.rows.append((identifier, DOMAIN, "Library/link", 4, record("Library/link", 0o120755, 0)))


def of_new_entries(backup: Backup) -> None:
    """What an edit is going to make is taken by something else."""
    for path in ("Library/new.txt", "Library/New", "Library"):
        identifier = file_id(DOMAIN, path)
        backup.rows = [row for row in backup.rows if row[0] != identifier]
        backup.rows.append((identifier, "OtherDomain", f"other/{path}", FILE, record(f"other/{path}")))


def equal_prefixes(backup: Backup, count: int) -> None:
    """So long alike that a comparison has much to read, and in the worst order."""
    start = "0" * 300
    for index in range(count, 0, -1):
        backup.rows.append((f"{start}{index:08}", DOMAIN, f"Library/{index}", FILE, b""))


def with_content(backup: Backup) -> None:
    """The stored files exist under these odd names too."""
    for index, identifier in enumerate(("ab", "Manifest.dbx", "zz" * 20, "AB" * 20, "ab.hidden")):
        backup.file_with_id(identifier, f"Library/entry {index}")
        backup.stored[f"{identifier[:2]}/{identifier}"] = CONTENT


def case_of(change: Callable[..., None], **options: Any) -> Case:
    return made(partial(change, **options))


CASES: dict[str, Case] = {
    **{name: case_of(identifiers, values=values) for name, values in IDENTIFIERS.items()},
    "shared": made(shared),
    "foreign": made(foreign),
    "of_directories": made(of_directories),
    "of_new_entries": made(of_new_entries),
    "with_content": made(with_content),
    "equal_prefixes": made(partial(equal_prefixes, count=5_000)),
    "equal_prefixes_of_many": made(partial(equal_prefixes, count=200_000), heavy=True),
}
