#!/usr/bin/python3
"""Tests of make_backup.py: that its output repeats, that it looks like a device's, and that it can be read."""

from __future__ import annotations

import json
import os
import plistlib
import sqlite3
import stat
import unittest
from collections import Counter
from pathlib import Path
from typing import Any

from backup_maker import mbdb
from backup_maker.model import Entry, FILE, Stored
from backup_reader.backup import decrypt
from backup_reader.keys import KeyBag, parse_blocks, parse_records
from tool_testing import PASSWORD, ToolTest, plain_backup, run_tool, tree_of


def plist(backup: Path, name: str) -> dict[str, Any]:
    return plistlib.loads((backup / name).read_bytes())


def keybag_blocks(backup: Path) -> list[dict[str, bytes]]:
    return parse_blocks(parse_records(plist(backup, "Manifest.plist")["BackupKeyBag"]))


def query(backup: Path, statement: str) -> list[tuple[Any, ...]]:
    connection = sqlite3.connect(f"{(backup / 'Manifest.db').as_uri()}?immutable=1", uri=True)
    try:
        return connection.execute(statement).fetchall()
    finally:
        connection.close()


def query_encrypted(test: ToolTest, backup: Path, statement: str) -> list[tuple[Any, ...]]:
    values = plist(backup, "Manifest.plist")
    key = KeyBag(values["BackupKeyBag"], PASSWORD.encode()).unlock(values["ManifestKey"])
    plain = test.folder / "plain manifest"
    plain.mkdir()
    (plain / "Manifest.db").write_bytes(b"".join(decrypt(iter([(backup / "Manifest.db").read_bytes()]), key)))
    return query(plain, statement)


def archives(backup: Path, condition: str = "1") -> list[dict[str, Any]]:
    return [plistlib.loads(blob) for blob, in query(backup, f"SELECT file FROM Files WHERE {condition}")]


class Determinism(ToolTest):
    VARIANTS = (
        ("--version", "2.4"), ("--version", "3.0", "--placeholders", "3"), ("--zip",),
        ("--zip", "--deflate"), ("--rows", "500"), ("--tree", "small", "--info-format", "binary"),
    )

    def test_same_options_give_the_same_bytes(self) -> None:
        for index, options in enumerate((*self.VARIANTS, self.encrypted("--device-bound"))):
            with self.subTest(options):
                first, second = (self.make(f"{index} {name}", *options) for name in ("first", "second"))
                self.assertEqual(tree_of(first), tree_of(second))
                self.assertEqual(self.expectations(first), self.expectations(second))

    def test_another_seed_gives_another_device(self) -> None:
        first, second = self.make("first"), self.make("second", "--seed", "2")
        self.assertNotEqual(self.expectations(first)["backup"]["uniqueIdentifier"],
                            self.expectations(second)["backup"]["uniqueIdentifier"])

    def test_more_files_leave_the_others_as_they_were(self) -> None:
        few, more = (self.expectations(self.make(name, "--files", name))["entries"] for name in ("20", "30"))
        described = {entry["fileID"]: entry for entry in more}
        self.assertEqual([described[entry["fileID"]] for entry in few], few)


class RoundTrip(ToolTest):
    def test_every_version_plain(self) -> None:
        for version in ("2.4", "3.0", "3.1", "3.2", "3.3"):
            for form in ((), ("--zip",), ("--zip", "--deflate")):
                with self.subTest(version=version, form=form):
                    name = "-".join([version, *form]) + (".zip" if form else "")
                    self.assert_reads_as_expected(self.make(name, "--version", version, *form))

    def test_every_encrypted_variant(self) -> None:
        variants = (("--version", "3.2"), ("--version", "3.3", "--device-bound"), ("--keybag-version", "3"),
                    ("--without-dpwt",), ("--device-bound", "--zip"), ("--device-bound", "--device-bound-files", "2"),
                    ("--journal-mode", "delete"), ("--seed", "other", "--placeholders", "5"),
                    ("--version", "2.4"), ("--old-keybag",), ("--manifest-form", "unpadded"),
                    ("--manifest-form", "decrypted"))
        for index, options in enumerate(variants):
            with self.subTest(options):
                self.assert_reads_as_expected(self.make(str(index), *self.encrypted(*options)))

    def test_encryption_with_versions_that_know_none(self) -> None:
        """Readers have to refuse these, so they must be right in every other respect."""
        for version in ("3.0", "3.1"):
            with self.subTest(version):
                self.assert_reads_as_expected(self.make(version, *self.encrypted("--version", version)))

    def test_traps(self) -> None:
        variants = {"plain": (), "binary": ("--version", "2.4"), "zip": ("--zip",),
                    "encrypted": self.encrypted("--device-bound")}
        for name, options in variants.items():
            with self.subTest(name):
                self.assert_reads_as_expected(self.make(name, "--hostile", "all", *options))

    def test_one_file_of_a_given_size(self) -> None:
        for options in ((), self.encrypted()):
            with self.subTest(options):
                backup = self.make(f"big {len(options)}", "--tree", "none", "--size-of-one", "3000001", *options)
                self.assert_reads_as_expected(backup)
                self.assertEqual(self.expectations(backup)["backup"]["totalSize"], 3000001)

    def test_other_trees(self) -> None:
        for name, options in {"small": ("--tree", "small"), "none": ("--tree", "none"), "more": ("--files", "300"),
                              "no info": ("--without-info",)}.items():
            with self.subTest(name):
                self.assert_reads_as_expected(self.make(name, *options))


class Rows(ToolTest):
    def test_rows_describe_themselves_rightly(self) -> None:
        for options in ((), self.encrypted()):
            with self.subTest(options):
                backup = self.make(f"rows {len(options)}", "--rows", "1500", *options)
                info = self.read(backup, "--info")
                self.assertEqual(info.stderr, "")
                expected = self.expectations(backup)["backup"]
                self.assertEqual(json.loads(info.stdout), expected)
                self.assertEqual(expected["files"] + expected["directories"], 1500)

    def test_rows_take_as_much_room_as_a_device_s(self) -> None:
        backup = self.make("rows", "--rows", "20000")
        self.assertEqual(query(backup, "PRAGMA integrity_check"), [("ok",)])
        [(count, shortest, average, longest)] = query(
            backup, "SELECT COUNT(*), MIN(LENGTH(file)), AVG(LENGTH(file)), MAX(LENGTH(file)) FROM Files")
        self.assertEqual(count, 20000)
        self.assertTrue(412 <= shortest and 500 <= average <= 560 and longest <= 1850, (shortest, average, longest))
        self.assertTrue(800 <= (backup / "Manifest.db").stat().st_size / count <= 950)


class MetadataForm(ToolTest):
    def test_manifest_plist_is_binary_and_says_what_a_device_says(self) -> None:
        backup = plain_backup()
        self.assertTrue((backup / "Manifest.plist").read_bytes().startswith(b"bplist00"))
        values = plist(backup, "Manifest.plist")
        self.assertEqual((values["SystemDomainsVersion"], values["Version"]), ("24.0", "10.0"))
        self.assertIs(values["IsEncrypted"], False)
        self.assertIn("BackupKeyBag", values)
        self.assertNotIn("ManifestKey", values)

    def test_encrypted_manifest_plist_has_a_manifest_key(self) -> None:
        values = plist(self.make("encrypted", *self.encrypted()), "Manifest.plist")
        self.assertIs(values["IsEncrypted"], True)
        self.assertEqual(len(values["ManifestKey"]), 44)

    def test_info_plist_in_both_formats(self) -> None:
        backups = [self.make(name, "--info-format", name) for name in ("xml", "binary")]
        starts = [(backup / "Info.plist").read_bytes()[:8] for backup in backups]
        self.assertEqual(starts, [b"<?xml ve", b"bplist00"])
        self.assertEqual(plist(backups[0], "Info.plist"), plist(backups[1], "Info.plist"))

    def test_info_plist_can_be_left_out(self) -> None:
        self.assertFalse((self.make("bare", "--without-info") / "Info.plist").exists())

    def test_status_plist_tells_the_version(self) -> None:
        self.assertEqual(plist(self.make("old", "--version", "2.4"), "Status.plist")["Version"], "2.4")


class KeyBagForm(ToolTest):
    def test_device_bound_classes_are_wrapped_by_the_device_too(self) -> None:
        header, *classes = keybag_blocks(self.make("bound", *self.encrypted("--device-bound")))
        self.assertEqual({tag: len(value) for tag, value in header.items()},
                         {"UUID": 16, "HMCK": 40, "WRAP": 4, "SALT": 20, "ITER": 4, "DPWT": 4, "DPIC": 4, "DPSL": 20})
        wraps = {int.from_bytes(block["CLAS"], "big"): block["WRAP"][3] for block in classes}
        self.assertEqual(wraps, {number: 3 if number in (5, 9, 10, 11) else 2 for number in range(1, 12)})
        self.assertNotEqual(list(wraps), sorted(wraps), "the blocks ought to be in no order")
        self.assertTrue(any("PBKY" in block for block in classes))

    def test_the_record_of_old_devices(self) -> None:
        backup = self.make("old", *self.encrypted("--keybag-version", "3", "--without-dpwt"))
        records = parse_records(plist(backup, "Manifest.plist")["BackupKeyBag"])
        self.assertEqual(records[:2], [("VERS", b"\0\0\0\3"), ("TYPE", b"\0\0\0\1")])
        self.assertNotIn("DPWT", keybag_blocks(backup)[0])

    def test_the_keybag_of_one_derivation(self) -> None:
        for options in (("--version", "2.4"), ("--old-keybag",)):
            with self.subTest(options):
                backup = self.make(options[-1], *self.encrypted(*options))
                self.assertEqual(set(keybag_blocks(backup)[0]), {"UUID", "HMCK", "WRAP", "SALT", "ITER"})
        self.assertNotIn("ManifestKey", plist(self.folder / "2.4", "Manifest.plist"))

    def test_iterations_default_to_a_device_s(self) -> None:
        header = keybag_blocks(self.make("plain", "--tree", "none"))[0]
        self.assertEqual([int.from_bytes(header[tag], "big") for tag in ("ITER", "DPIC")], [10_000, 10_000_000])


class DatabaseForm(ToolTest):
    def test_schema(self) -> None:
        backup = plain_backup()
        statements = [sql for sql, in query(backup, "SELECT sql FROM sqlite_master WHERE sql IS NOT NULL")]
        self.assertEqual(statements, [
            "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB)",
            "CREATE INDEX FilesDomainIdx ON Files(domain)",
            "CREATE INDEX FilesRelativePathIdx ON Files(relativePath)",
            "CREATE INDEX FilesFlagsIdx ON Files(flags)",
            "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB)"])
        wanted = {"user_version": 2, "page_size": 4096, "auto_vacuum": 2, "schema_version": 5, "application_id": 0}
        self.assertEqual({name: query(backup, f"PRAGMA {name}")[0][0] for name in wanted}, wanted)

    def test_rows_lie_in_no_order_of_names(self) -> None:
        rows = query(plain_backup(), "SELECT domain, relativePath FROM Files ORDER BY rowid")
        self.assertNotEqual(rows, sorted(rows))
        self.assertEqual(rows, [(entry["domain"], entry["path"])
                                for entry in self.expectations(plain_backup())["entries"]])

    def test_header_names_no_build_of_sqlite(self) -> None:
        header = (plain_backup() / "Manifest.db").read_bytes()[:100]
        self.assertEqual((header[18:20], header[24:28], header[92:100]),
                         (b"\2\2", b"\0\0\0\1", b"\0\0\0\1" + (3_028_000).to_bytes(4, "big")))

    def test_every_domain_has_a_root(self) -> None:
        backup = plain_backup()
        self.assertEqual(query(backup, "SELECT COUNT(DISTINCT domain) FROM Files"),
                         query(backup, "SELECT COUNT(*) FROM Files WHERE relativePath = '' AND flags = 2"))

    def test_placeholders_come_in_both_forms(self) -> None:
        rows = query(self.make("plain", "--placeholders", "2"),
                     "SELECT domain, relativePath, file FROM Files WHERE flags = 16")
        self.assertEqual(Counter(rows), Counter([(None, None, None), ("", "", b"")]))


class RecordForm(ToolTest):
    DIRECTORY = ["LastModified", "Flags", "GroupID", "$class", "LastStatusChange", "RelativePath", "Birth", "Size",
                 "InodeNumber", "Mode", "UserID", "ProtectionClass"]
    LINK = [*DIRECTORY[:3], "Target", *DIRECTORY[3:]]
    WITH_KEY = ["LastModified", "Flags", "GroupID", "$class", "LastStatusChange", "RelativePath", "Birth",
                "EncryptionKey", "Size", "Mode", "UserID", "InodeNumber", "ProtectionClass"]
    WITH_BOTH = ["LastModified", "ProtectionClass", "Flags", "GroupID", "$class", "LastStatusChange", "RelativePath",
                 "Birth", "EncryptionKey", "Size", "Mode", "UserID", "Digest", "InodeNumber"]

    def test_records_begin_alike(self) -> None:
        for archive in archives(plain_backup()):
            self.assertEqual(list(archive), ["$version", "$archiver", "$top", "$objects"])
            objects = archive["$objects"]
            self.assertEqual((objects[0], archive["$top"]["root"]), ("$null", plistlib.UID(1)))
            self.assertEqual(objects[1]["RelativePath"], plistlib.UID(2))
            self.assertEqual(objects[-1], {"$classname": "MBFile", "$classes": ["MBFile", "NSObject"]})

    def test_records_have_their_keys_in_a_device_s_order(self) -> None:
        backup = self.make("encrypted", *self.encrypted())
        orders: dict[int, set[tuple[str, ...]]] = {}
        for flags, blob in query_encrypted(self, backup, "SELECT flags, file FROM Files"):
            keys = [key for key in plistlib.loads(blob)["$objects"][1] if key != "ExtendedAttributes"]
            orders.setdefault(flags, set()).add(tuple(keys))
        self.assertEqual(orders, {1: {tuple(self.WITH_KEY), tuple(self.WITH_BOTH)}, 2: {tuple(self.DIRECTORY)},
                                  4: {tuple(self.LINK)}})

    def test_owners_and_flags_of_the_record(self) -> None:
        records = [archive["$objects"][1] for archive in archives(plain_backup())]
        self.assertEqual({record["UserID"] for record in records}, {501, 0, -2})
        self.assertEqual({record["GroupID"] for record in records}, {501, 0, -2})
        self.assertEqual(Counter(record["Flags"] for record in records)[128], 2)

    def test_keys_are_wrapped_in_mutable_data(self) -> None:
        found = 0
        for archive in archives(plain_backup(), "flags = 1"):
            objects, record = archive["$objects"], archive["$objects"][1]
            if "EncryptionKey" in record:
                wrapper = objects[record["EncryptionKey"].data]
                self.assertEqual(len(wrapper["NS.data"]), 44)
                self.assertEqual(objects[wrapper["$class"].data]["$classes"], ["NSMutableData", "NSData", "NSObject"])
                found += 1
        self.assertGreater(found, 10)

    def test_attributes_are_data_or_a_dictionary_object(self) -> None:
        kinds: Counter[type] = Counter()
        for archive in archives(plain_backup(), "domain = 'AppDomain-com.example.attributes'"):
            record = archive["$objects"][1]
            if "ExtendedAttributes" in record:
                kinds[type(archive["$objects"][record["ExtendedAttributes"].data])] += 1
        self.assertEqual(kinds, {bytes: 2, dict: 2})

    def test_digests_are_bare_data(self) -> None:
        found = [archive["$objects"][archive["$objects"][1]["Digest"].data]
                 for archive in archives(plain_backup()) if "Digest" in archive["$objects"][1]]
        self.assertGreater(len(found), 10)
        self.assertTrue(all(isinstance(digest, bytes) and len(digest) == 20 for digest in found))

    def test_blobs_are_as_long_as_a_device_s(self) -> None:
        [(shortest, longest)] = query(plain_backup(), "SELECT MIN(LENGTH(file)), MAX(LENGTH(file)) FROM Files")
        self.assertTrue(412 <= shortest and longest <= 1850, (shortest, longest))


class BinaryManifestForm(unittest.TestCase):
    def test_a_record_written_out_by_hand(self) -> None:
        entry = Entry("Dom", "a/b", FILE, 0o644, birth=0x03, modified=0x02, changed=0x01, inode=0x1122, uid=501,
                      gid=502, size=0x10, protection=4, attributes={"n": b"v!"})
        expected = (
            "0003 446f6d  0003 612f62  ffff  0002 d1d2  ffff  81a4  0000000000001122  000001f5  000001f6"
            "00000001  00000002  00000003  0000000000000010  04  01  0001 6e  0002 7621")
        self.assertEqual(mbdb.encode([Stored(entry, "", digest=b"\xd1\xd2")]),
                         b"mbdb\x05\x00" + bytes.fromhex(expected))


class Contents(ToolTest):
    def test_kinds_sizes_classes_and_times(self) -> None:
        entries = self.expectations(plain_backup())["entries"]
        self.assertEqual({entry["type"] for entry in entries}, {"file", "directory", "symlink"})
        sizes = {entry["size"] for entry in entries}
        self.assertLessEqual({0, 1, 15, 16, 17, 32767, 32768, 32769, 100000}, sizes)
        self.assertEqual({entry["protectionClass"] for entry in entries if entry["type"] == "file"}, {1, 2, 3, 4})
        classes = Counter(entry["protectionClass"] for entry in entries if entry["type"] == "directory")
        self.assertLessEqual(set(classes), {0, 1, 3, 4})
        self.assertTrue(0 < sum(classes.values()) - classes[0] < classes[0] / 5, classes)
        times = {entry["modified"] for entry in entries}
        self.assertTrue(min(times) < 0 and max(times) > 2**32 and 946_684_800 in times)

    def test_awkward_names_are_there(self) -> None:
        names = {entry["path"].rsplit("/", 1)[-1] for entry in self.expectations(plain_backup())["entries"]}
        self.assertLessEqual({"Caf\u00e9.txt", "Cafe\u0301.txt", "two\nlines.txt", "Readme.txt", "README.TXT", "-rf",
                              "trailing blank ", "back\\slash.txt", "L" * 255}, names)
        self.assertEqual(max(len(name.encode()) for name in names), 255)

    def test_forms_of_an_encrypted_manifest(self) -> None:
        lengths = {}
        for form in ("padded", "unpadded", "decrypted"):
            data = (self.make(form, *self.encrypted("--manifest-form", form)) / "Manifest.db").read_bytes()
            lengths[form] = len(data) % 4096
            self.assertEqual(data.startswith(b"SQLite format 3\0"), form == "decrypted")
        self.assertEqual(lengths, {"padded": 16, "unpadded": 0, "decrypted": 0})

    def test_stored_names_are_plain(self) -> None:
        for name, options, depth in (("flat", ("--version", "2.4"), 1), ("nested", (), 2)):
            backup = self.make(name, *options)
            stored = [entry for entry in tree_of(backup) if not entry.startswith(("Manifest", "Info", "Status"))]
            self.assertEqual({len(Path(entry).parts) for entry in stored}, {depth})
            self.assertTrue(all(len(Path(entry).name) == 40 for entry in stored))

    def test_empty_files_of_an_encrypted_backup_are_stored_as_padding(self) -> None:
        self.assertEqual(self.stored_lengths_of_empty_files(), {16})

    def test_other_writers_store_nothing_for_them(self) -> None:
        self.assertEqual(self.stored_lengths_of_empty_files("--hostile", "empty-without-padding"), {0, 16})

    def stored_lengths_of_empty_files(self, *options: str) -> set[int]:
        backup = self.make("encrypted", *self.encrypted(*options))
        stored = tree_of(backup)
        return {len(stored[f"{entry['fileID'][:2]}/{entry['fileID']}"])
                for entry in self.expectations(backup)["entries"] if entry["type"] == "file" and entry["size"] == 0}


class Traps(ToolTest):
    def test_obstructions_are_what_they_say(self) -> None:
        backup = self.make("plain", "--hostile", "all")
        kinds = {}
        for entry in self.expectations(backup)["entries"]:
            path = backup / entry["fileID"][:2] / entry["fileID"]
            if entry["hostile"] and entry["hostile"].startswith("stored-") and path.name and os.path.lexists(path):
                kinds[entry["hostile"]] = stat.S_IFMT(path.lstat().st_mode)
        self.assertEqual(kinds, {
            "stored-truncated": stat.S_IFREG, "stored-changed": stat.S_IFREG, "stored-directory": stat.S_IFDIR,
            "stored-fifo": stat.S_IFIFO, "stored-socket": stat.S_IFSOCK, "stored-symlink": stat.S_IFLNK})

    def test_nothing_is_written_outside_of_the_backup(self) -> None:
        self.make("plain", "--hostile", "all")
        self.assertEqual({path.name for path in self.folder.iterdir()},
                         {"password", "plain", "plain.expectations.json"})


class Refusals(ToolTest):
    def assert_refused(self, message: str, *options: str) -> None:
        result = run_tool("make_backup.py", self.folder / "out", *options)
        self.assertEqual((result.returncode, result.stderr), (1, f"make_backup.py: {message}\n"))
        self.assertFalse((self.folder / "out").exists())

    def test_options_that_do_not_go_together(self) -> None:
        self.assert_refused("--encrypted needs --password-file", "--encrypted")
        self.assert_refused("rows and placeholders need a database", "--version", "2.4", "--placeholders", "1")
        self.assert_refused("--hostile key-short needs an encrypted backup", "--hostile", "key-short")
        self.assert_refused("--hostile stored-fifo needs a directory", "--hostile", "stored-fifo", "--zip")
        self.assert_refused("--deflate needs --zip", "--deflate")
        self.assert_refused("--manifest-form needs an encrypted database", "--manifest-form", "unpadded")
        self.assert_refused("--rows needs at least 1", "--rows", "0")

    def test_an_existing_output(self) -> None:
        (self.folder / "there").mkdir()
        result = run_tool("make_backup.py", self.folder / "there")
        self.assertEqual((result.returncode, result.stderr),
                         (1, f"make_backup.py: {self.folder / 'there'} exists already\n"))


if __name__ == "__main__":
    unittest.main()
