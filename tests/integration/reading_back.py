"""Judges what the tool wrote: by the independent reader, by other programs, and by the tool itself."""

from __future__ import annotations

import hashlib
import json
import os
import plistlib
import sqlite3
import stat
import subprocess
import tempfile
import zipfile
from pathlib import Path
from typing import Any

from tool_testing import DONE, PASSWORD, TIMEOUT, ToolTest, WITH_PASSWORD, run

from backup_reader.account import account  # found through tool_testing
from backup_reader.backup import BINARY_VERSION, Backup, decrypt
from backup_reader.manifest import Entry

PLISTS = ("Manifest.plist", "Info.plist", "Status.plist")
# Writers of database records have always stored times before 2001 that much too late.
REFERENCE_DATE, LATENESS = 978307200, 2**32
LARGEST_OWNER = 2**32 - 1

Place = tuple[str, str]


def read(path: Path, strict: bool = False) -> Backup:
    encrypted = plistlib.loads(raw(path)["Manifest.plist"])["IsEncrypted"]
    return Backup(path, PASSWORD.encode() if encrypted else None, strict)


def raw(path: Path) -> dict[str, bytes]:
    """Every stored file by its name."""
    if path.is_dir():
        return {str(item.relative_to(path)): item.read_bytes() for item in path.rglob("*") if item.is_file()}
    with zipfile.ZipFile(path) as archive:
        return {record.filename: archive.read(record) for record in archive.infolist() if not record.is_dir()}


def stored_time(seconds: int, version: str) -> int:
    """A database gets 32 bits of what has passed since the reference date."""
    return seconds if version == BINARY_VERSION else (seconds - REFERENCE_DATE) % LATENESS + REFERENCE_DATE


def stored_owner(number: int, version: str) -> int:
    return number if version == BINARY_VERSION else number & LARGEST_OWNER


def content_of(backup: Backup, entry: Entry) -> str | None:
    if entry.kind != "file":
        return None
    digest = hashlib.sha256()
    for chunk in backup.content(entry):
        digest.update(chunk)
    return digest.hexdigest()


def facts(backup: Backup, entry: Entry, version: str | None = None) -> dict[str, Any]:
    """All that a manifest says of an entry and what its content is; with a version, as that would be written."""
    times = {name: getattr(entry, name) for name in ("birth", "modified", "changed")}
    owners = {name: getattr(entry, name) for name in ("uid", "gid")}
    if version is not None:
        times = {name: stored_time(seconds, version) for name, seconds in times.items()}
        owners = {name: stored_owner(number, version) for name, number in owners.items()}
    return times | owners | {name: getattr(entry, name) for name in (
        "file_id", "target", "mode", "inode", "size", "protection", "digest", "key", "attributes")} | {
        "sha256": content_of(backup, entry)}


def facts_of(path: Path, as_written: bool = False) -> dict[Place, dict[str, Any]]:
    backup = read(path)
    version = backup.version if as_written else None
    return {(entry.domain, entry.path): facts(backup, entry, version) for entry in backup.entries}


class ResultTest(ToolTest):
    """Verbs for commands that write backups, and judgements of the results."""

    # What is written is in the form of the program's first version instead of the devices'.
    legacy = False

    def password_for(self, path: Path) -> tuple[str, ...]:
        return WITH_PASSWORD if read(path).encrypted else ()

    def write(self, name: str, source: Path, target: Path, *options: str | Path) -> list[str]:
        """Runs export or edit, which must succeed; gives its messages."""
        form = ("--form=legacy",) if self.legacy else ()
        return self.fail_with(DONE, name, source, target, *form, *options, *self.password_for(source))

    def facts_before(self, source: Path) -> dict[Place, dict[str, Any]]:
        """What is to be read of the source's entries once they are written anew."""
        return facts_of(source, as_written=self.legacy)

    def assert_sound(self, path: Path) -> None:
        """Accounted for to the last byte, and accepted by everything at hand."""
        backup = read(path)
        self.assertEqual(list(account(backup)), [])
        if self.legacy:
            self.assert_xml(path)
        else:
            self.assert_device_form(path)
        self.assert_forms(path, backup)
        if path.is_dir():
            self.assert_private(path)
        else:
            self.assert_archive(path)
        found = run("verify", path, "--json", *self.password_for(path))
        self.assertEqual((found.returncode, found.stderr), (DONE, b""), found.stdout)
        summary = json.loads(found.stdout)
        self.assertEqual((summary["entries"], summary["sourceFiles"]), (len(backup.entries), len(raw(path))))
        self.assert_no_leftovers()

    def assert_device_form(self, path: Path) -> None:
        """Every record, row, size, digest and padding is as devices write it, and accounted for."""
        self.assertEqual(list(account(read(path, strict=True))), [])

    def assert_xml(self, path: Path) -> None:
        for name in PLISTS:
            self.assertTrue(raw(path)[name].startswith(b"<?xml"), name)

    def assert_forms(self, path: Path, backup: Backup) -> None:
        files = raw(path)
        with tempfile.TemporaryDirectory() as folder:
            for name in files.keys() & set(PLISTS):
                (item := Path(folder) / name).write_bytes(files[name])
                self.accepted("plistutil", "-i", item, "-o", os.devnull)
            if backup.version != BINARY_VERSION:
                database = Path(folder) / "Manifest.db"
                database.write_bytes(self.plain_database(files, backup))
                self.assertEqual(self.accepted("sqlite3", database, "PRAGMA integrity_check; PRAGMA user_version"),
                                 b"ok\n2\n")

    def plain_database(self, files: dict[str, bytes], backup: Backup) -> bytes:
        database = files["Manifest.db"]
        if backup.keybag is None:
            return database
        key = backup.keybag.unlock(backup.manifest_plist["ManifestKey"])
        return b"".join(decrypt(iter([database]), key))

    def accepted(self, *command: str | Path) -> bytes:
        result = subprocess.run([*map(str, command)], capture_output=True, check=False, timeout=TIMEOUT)
        self.assertEqual(result.returncode, 0, (command, result.stdout, result.stderr))
        return result.stdout

    def assert_archive(self, path: Path) -> None:
        self.accepted("unzip", "-t", "-q", path)
        self.accepted("zip", "-T", "-q", path)
        with zipfile.ZipFile(path) as archive:
            names = archive.namelist()
        self.assertEqual(len(set(names)), len(names))

    def assert_private(self, path: Path) -> None:
        for item in (path, *path.rglob("*")):
            wanted = 0o700 if item.is_dir() else 0o600
            self.assertEqual(stat.S_IMODE(item.lstat().st_mode), wanted, item)

    def assert_same_metadata(self, source: Path, target: Path) -> None:
        one, other = raw(source), raw(target)
        for name in PLISTS:
            dictionaries = [plistlib.loads(files[name]) if name in files else {} for files in (one, other)]
            self.assertEqual(*dictionaries, name)

    def assert_same_entries(self, found: dict[Place, Any], wanted: dict[Place, Any]) -> None:
        self.assertEqual(set(found), set(wanted))
        for place, facts_wanted in wanted.items():
            self.assertEqual(found[place], facts_wanted, place)


def rows(database: bytes) -> list[tuple[Any, ...]]:
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "Manifest.db"
        path.write_bytes(database)
        connection = sqlite3.connect(f"{path.as_uri()}?immutable=1", uri=True)
        try:
            return connection.execute("SELECT * FROM Files ORDER BY rowid").fetchall()
        finally:
            connection.close()
