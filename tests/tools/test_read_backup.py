#!/usr/bin/python3
"""Tests of read_backup.py beyond what the round trips of the generator show: extraction, and finding damage."""

from __future__ import annotations

import hashlib
import json
import os
import plistlib
import shutil
import sqlite3
import subprocess
import unittest
from collections.abc import Callable
from pathlib import Path
from typing import Any

from backup_reader.backup import Backup
from backup_reader.keys import KeyBag
from tool_testing import PASSWORD, ToolTest, plain_backup, run_tool


class Extraction(ToolTest):
    def extract(self, backup: Path) -> tuple[Path, list[str]]:
        result = self.read(backup, "--extract", str(self.folder / "out"))
        return self.folder / "out", result.stderr.splitlines()

    def assert_extracted(self, backup: Path) -> None:
        root, failures = self.extract(backup)
        self.assertEqual(failures, [])
        for entry in self.expectations(backup)["entries"]:
            path = root / entry["domain"] / entry["path"]
            if entry["type"] == "symlink":
                self.assertEqual(os.readlink(path), entry["target"])
                continue
            status = path.lstat()
            self.assertEqual((status.st_mode & 0o6777, int(status.st_mtime)),
                             (entry["mode"] & 0o777, entry["modified"]))
            if entry["type"] == "file":
                self.assertEqual(hashlib.sha256(path.read_bytes()).hexdigest(), entry["sha256"])

    def test_plain(self) -> None:
        self.assert_extracted(plain_backup())

    def test_encrypted_zip(self) -> None:
        self.assert_extracted(self.make("encrypted.zip", "--zip", *self.encrypted("--device-bound")))

    def test_binary_manifest(self) -> None:
        self.assert_extracted(self.make("old", "--version", "2.4"))

    def test_traps_stay_inside(self) -> None:
        backup = self.make("traps", "--hostile", "all")
        root, failures = self.extract(backup)
        self.assertEqual({path.name for path in self.folder.iterdir()},
                         {"password", "traps", "traps.expectations.json", root.name})
        text = "\n".join(failures)
        for reason in ("unsafe name", "unsafe stored name", "in its way is no directory", "is no regular file"):
            self.assertIn(reason, text)
        self.assertFalse(any(path.name.startswith("escape") and "way later" not in str(path)
                             for path in root.rglob("*")))


class Damage(ToolTest):
    """The generator breaks contents in ways that it knows; here they are broken from outside."""

    def setUp(self) -> None:
        super().setUp()
        self.backup = self.folder / "copy"
        shutil.copytree(plain_backup(), self.backup)
        shutil.copy(plain_backup().with_name("plain.expectations.json"), self.folder / "copy.expectations.json")

    def problems(self) -> list[str]:
        lines = self.read(self.backup, "--json").stdout.splitlines()
        return [entry["problem"] for entry in map(json.loads, lines) if entry["problem"]]

    def stored(self, with_digest: bool) -> Path:
        entry = next(entry for entry in self.expectations(self.backup)["entries"]
                     if entry["type"] == "file" and entry["size"] > 100 and bool(entry["digest"]) == with_digest)
        return self.backup / entry["fileID"][:2] / entry["fileID"]

    def test_a_changed_byte(self) -> None:
        path = self.stored(with_digest=True)
        data = bytearray(path.read_bytes())
        data[50] ^= 1
        path.write_bytes(data)
        self.assertEqual(self.problems(), ["the digest does not match"])

    def test_a_missing_byte(self) -> None:
        path = self.stored(with_digest=False)
        size = path.stat().st_size
        os.truncate(path, size - 1)
        self.assertEqual(self.problems(), [f"{size - 1} bytes instead of {size}"])

    def test_a_broken_record(self) -> None:
        connection = sqlite3.connect(self.backup / "Manifest.db")
        with connection:
            connection.execute("UPDATE Files SET file = x'00' WHERE rowid = 5")
        connection.close()
        result = self.read(self.backup)
        self.assertEqual(result.returncode, 2)
        self.assertIn("Manifest.db cannot be read", result.stderr)

    def test_references_as_dictionaries(self) -> None:
        """Not every writer uses UID values."""
        connection = sqlite3.connect(self.backup / "Manifest.db")
        with connection:
            rows = connection.execute("SELECT fileID, file FROM Files").fetchall()
            for file_id, blob in rows:
                values = (plistlib.dumps(without_uids(plistlib.loads(blob)), fmt=plistlib.FMT_BINARY), file_id)
                connection.execute("UPDATE Files SET file = ? WHERE fileID = ?", values)
        connection.close()
        self.assert_reads_as_expected(self.backup)


def with_bare_key(archive: dict[str, Any]) -> dict[str, Any]:
    record, objects = archive["$objects"][1], archive["$objects"]
    if "EncryptionKey" in record:
        objects[record["EncryptionKey"].data] = objects[record["EncryptionKey"].data]["NS.data"]
    return archive


def without_uids(value: Any) -> Any:
    if isinstance(value, plistlib.UID):
        return {"CF$UID": value.data}
    if isinstance(value, dict):
        return {key: without_uids(item) for key, item in value.items()}
    if isinstance(value, list):
        return [without_uids(item) for item in value]
    return value


class Passwords(ToolTest):
    def assert_refused(self, backup: Path, password: str | None, message: str) -> None:
        arguments: list[str | Path] = []
        if password is not None:
            (self.folder / "other").write_text(password, encoding="utf-8")
            arguments = ["--password-file", self.folder / "other"]
        result = run_tool("read_backup.py", backup, *arguments)
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn(message, result.stderr)

    def test_wrong_and_missing(self) -> None:
        backup = self.make("encrypted", *self.encrypted())
        self.assert_refused(backup, "wrong", "wrong password?")
        self.assert_refused(backup, None, "a password is needed")

    def test_one_too_many(self) -> None:
        self.assert_refused(plain_backup(), "password", "the backup is not encrypted")

    def test_openssl_agrees_about_the_cipher(self) -> None:
        """The generator and this reader use the same library, so a third party looks at one content."""
        backup = self.make("encrypted", *self.encrypted())
        values = plistlib.loads((backup / "Manifest.plist").read_bytes())
        keybag = KeyBag(values["BackupKeyBag"], PASSWORD.encode())
        command = ["openssl", "enc", "-d", "-aes-256-cbc", "-K", keybag.unlock(values["ManifestKey"]).hex(), "-iv",
                   "0" * 32, "-in", str(backup / "Manifest.db")]
        database = subprocess.run(command, capture_output=True, check=True).stdout
        self.assertTrue(database.startswith(b"SQLite format 3\0"))
        self.assertEqual(len(database) % 4096, 0)


class Unreadable(ToolTest):
    def test_what_is_no_backup(self) -> None:
        (self.folder / "empty").mkdir()
        (self.folder / "text").write_text("no archive")
        for name, message in (("empty", "cannot open 'Manifest.plist'"), ("text", "neither a directory nor a zip"),
                              ("missing", "neither a directory nor a zip")):
            result = run_tool("read_backup.py", self.folder / name)
            self.assertEqual(result.returncode, 2)
            self.assertIn(message, result.stderr)


class Account(ToolTest):
    """`--account`: nothing about a sound backup, a line about everything else."""

    def faults(self, backup: Path) -> list[str]:
        result = self.read(backup, "--account")
        self.assertEqual(result.returncode, 1 if result.stdout else 0, result.stderr)
        return result.stdout.splitlines()

    def changed(self, sql: str) -> list[str]:
        backup = self.make("changed", "--tree", "small")
        connection = sqlite3.connect(backup / "Manifest.db")
        with connection:
            connection.executescript(sql)
        connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        connection.close()
        for name in ("Manifest.db-wal", "Manifest.db-shm"):
            (backup / name).unlink(missing_ok=True)
        return self.faults(backup)

    def test_of_sound_backups_is_empty(self) -> None:
        for name, options in (("old", ("--version", "2.4")), ("new", ("--placeholders", "2")),
                              ("encrypted.zip", ("--zip", *self.encrypted()))):
            self.assertEqual(self.faults(self.make(name, *options)), [])

    def test_of_files_that_are_missing_or_belong_to_nothing(self) -> None:
        backup = self.make("files", "--tree", "small")
        identifier = next(entry["fileID"] for entry in self.expectations(backup)["entries"] if entry["type"] == "file")
        stored = backup / identifier[:2] / identifier
        stored.rename(backup / "stray")
        found = self.faults(backup)
        self.assertIn(f"'{identifier[:2]}/{identifier} is missing'", found)
        self.assertIn("'stray belongs to nothing'", found)

    def test_of_flags(self) -> None:
        [fault] = self.changed("UPDATE Files SET flags = 2 WHERE relativePath = 'Documents/Welcome.txt'")
        self.assertIn("the flags are 2", fault)

    def test_of_the_schema(self) -> None:
        self.assertEqual(self.changed("PRAGMA user_version = 3; DROP INDEX FilesFlagsIdx"), [
            "\"the schema holds ['Files', 'FilesDomainIdx', 'FilesRelativePathIdx', 'Properties']\"",
            "'FilesFlagsIdx is no index of flags'", "'user_version is 3'"])

    def test_of_file_ids(self) -> None:
        [fault] = self.changed("UPDATE Files SET fileID = 'ff' || substr(fileID, 3) WHERE flags = 2"
                               " AND relativePath = 'Documents' AND domain LIKE '%notes'")
        self.assertIn("the file ID is ff", fault)

    def test_of_directories_that_are_missing(self) -> None:
        found = self.changed("DELETE FROM Files WHERE relativePath = 'Documents' AND domain LIKE '%notes'")
        self.assertTrue(found)
        self.assertTrue(all("'Documents' above it is no directory" in fault for fault in found), found)

    def test_of_contents(self) -> None:
        for variant in ("stored-truncated", "stored-changed", "digest-wrong"):
            self.assert_one(variant, self.make(variant, "--tree", "small", "--hostile", variant))

    def test_of_keys(self) -> None:
        for variant in ("key-missing", "key-short", "key-damaged", "device-bound"):
            self.assert_one(variant, self.make(variant, "--tree", "small", "--hostile", variant,
                                               *self.encrypted("--device-bound")))

    def assert_one(self, variant: str, backup: Path) -> None:
        """One entry at fault; the directories above it are not there either, which is not asked about."""
        found = [fault for fault in self.faults(backup) if "above it is no directory" not in fault]
        self.assertTrue(found)
        self.assertTrue(all(f"{variant}.txt" in fault for fault in found), found)


class Strictness(ToolTest):
    """`--strict`: nothing about what devices write, a line about every other form that a backup may have."""

    def faults(self, backup: Path) -> list[str]:
        result = self.read(backup, "--strict")
        self.assertEqual(result.returncode, 1 if result.stdout else 0, result.stderr)
        return result.stdout.splitlines()

    def lenient_faults(self, backup: Path) -> list[str]:
        return self.read(backup, "--account").stdout.splitlines()

    def changed_records(self, change: Callable[[dict[str, Any]], dict[str, Any]]) -> Path:
        """A backup each of whose records was changed."""
        backup = self.make("changed", "--tree", "small")
        connection = sqlite3.connect(f"{(backup / 'Manifest.db').as_uri()}", uri=True)
        connection.execute("PRAGMA journal_mode=DELETE").fetchall()
        with connection:
            for file_id, blob in connection.execute("SELECT fileID, file FROM Files").fetchall():
                changed = plistlib.dumps(change(plistlib.loads(blob)), fmt=plistlib.FMT_BINARY, sort_keys=False)
                connection.execute("UPDATE Files SET file = ? WHERE fileID = ?", (changed, file_id))
        connection.close()
        return backup

    def changed_field(self, key: str, value: Any) -> Path:
        def change(archive: dict[str, Any]) -> dict[str, Any]:
            archive["$objects"][1][key] = value
            return archive
        return self.changed_records(change)

    def assert_refused(self, backup: Path, *reasons: str) -> None:
        """Strictly for each reason, and otherwise not at all."""
        found = "\n".join(self.faults(backup))
        for reason in reasons:
            self.assertIn(reason, found)
        self.assertEqual(self.lenient_faults(backup), [])

    def test_what_devices_write_passes(self) -> None:
        for name, options in (("old", ("--version", "2.4")), ("new", ("--placeholders", "2")), ("zip.zip", ("--zip",)),
                              ("encrypted", self.encrypted("--device-bound")),
                              ("encrypted-old", self.encrypted("--version", "2.4"))):
            with self.subTest(name):
                self.assertEqual(self.faults(self.make(name, *options)), [])

    def test_references_as_dictionaries(self) -> None:
        self.assert_refused(self.changed_records(without_uids), "the root is {'root': {'CF$UID': 1}}")

    def test_keys_that_are_not_wrapped(self) -> None:
        self.assert_refused(self.changed_records(with_bare_key), "the key is not wrapped")

    def test_owners_without_sign(self) -> None:
        self.assert_refused(self.changed_field("UserID", 2**32 - 2), "UserID is 4294967294")

    def test_times_that_are_too_late(self) -> None:
        self.assert_refused(self.changed_field("Birth", 2**32 + 315_532_800), "Birth is 2**32 seconds too late")

    def test_fields_that_no_device_writes(self) -> None:
        self.assert_refused(self.changed_field("Colour", 1), "the record holds ['Colour']")

    def test_records_that_lack_a_field(self) -> None:
        def change(archive: dict[str, Any]) -> dict[str, Any]:
            del archive["$objects"][1]["Flags"]
            return archive
        self.assert_refused(self.changed_records(change), "the record cannot be read: KeyError('Flags')")

    def test_objects_that_nothing_refers_to(self) -> None:
        def change(archive: dict[str, Any]) -> dict[str, Any]:
            archive["$objects"].insert(-1, "left over")
            archive["$objects"][1]["$class"] = plistlib.UID(len(archive["$objects"]) - 1)
            return archive
        self.assert_refused(self.changed_records(change), "nothing refers to the objects")

    def test_another_schema(self) -> None:
        backup = self.make("schema", "--tree", "small", "--journal-mode", "delete")
        connection = sqlite3.connect(backup / "Manifest.db")
        with connection:
            connection.execute("DROP INDEX FilesFlagsIdx")
            connection.execute("CREATE INDEX FilesFlagsIdx ON Files (flags)")
        connection.execute("PRAGMA auto_vacuum=NONE")
        connection.execute("VACUUM")
        connection.close()
        self.assert_refused(backup, "FilesFlagsIdx is made by 'CREATE INDEX FilesFlagsIdx ON Files (flags)'",
                            "auto_vacuum is 0")

    def test_what_later_systems_add_passes(self) -> None:
        backup = self.make("later", "--tree", "small", "--journal-mode", "delete")
        connection = sqlite3.connect(backup / "Manifest.db")
        with connection:
            connection.execute("ALTER TABLE Files ADD COLUMN colour TEXT")
            connection.execute("CREATE TABLE Colours (name TEXT)")
        connection.close()
        self.assertEqual(self.faults(backup), [])

    def test_empty_files_without_padding(self) -> None:
        for version in ("2.4", "3.3"):
            backup = self.make(version, *self.encrypted("--version", version, "--hostile", "empty-without-padding"))
            [fault] = [fault for fault in self.faults(backup) if "above it is no directory" not in fault]
            self.assertIn("nothing is stored, not even padding", fault)

    def test_sizes_and_digests_of_what_they_are_not(self) -> None:
        """The size of the ciphertext, and a digest of the plaintext."""
        backup = self.make("old", *self.encrypted("--version", "2.4", "--tree", "none", "--size-of-one", "5"))
        entry = next(entry for entry in self.expectations(backup)["entries"] if entry["type"] == "file")
        path = backup / "Manifest.mbdb"
        size = (5).to_bytes(8, "big") + bytes([entry["protectionClass"], 0])
        self.assertEqual(path.read_bytes().count(size), 1)
        path.write_bytes(path.read_bytes().replace(size, (16).to_bytes(8, "big") + size[8:]))
        self.assert_refused(backup, "5 bytes instead of 16")
        plain = Backup(backup, PASSWORD.encode())
        digest = hashlib.sha1(b"".join(plain.content(next(e for e in plain.entries if e.kind == "file")))).digest()
        changed = path.read_bytes().replace(bytes.fromhex(entry["digest"]), digest)
        path.write_bytes(changed.replace((16).to_bytes(8, "big") + size[8:], size))
        self.assert_refused(backup, "the digest does not match")

    def test_metadata(self) -> None:
        backup = self.make("metadata", "--tree", "small")
        values = plistlib.loads((backup / "Manifest.plist").read_bytes())
        del values["BackupKeyBag"]
        (backup / "Manifest.plist").write_bytes(plistlib.dumps(values | {"ManifestKey": bytes(44)}))
        (backup / "Info.plist").write_bytes(b"")
        self.assert_refused(backup, "holds no keybag", "a manifest key that opens nothing",
                            "Info.plist is no property list")

    def test_manifests_of_other_programs(self) -> None:
        for form in ("unpadded", "decrypted"):
            backup = self.make(form, *self.encrypted("--manifest-form", form))
            result = self.read(backup, "--strict")
            self.assertEqual((result.returncode, self.lenient_faults(backup)), (2, []), result.stderr)


if __name__ == "__main__":
    unittest.main()
