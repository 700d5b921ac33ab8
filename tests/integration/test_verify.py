"""`verify`: nothing to say about what is whole, and the right thing about every kind of damage."""

from __future__ import annotations

import hashlib
import json
import os
import plistlib
import shutil
import sqlite3
import zipfile
from collections.abc import Callable
from pathlib import Path
from plistlib import UID
from typing import Any

from tool_testing import DONE, ENCRYPTED, FAILED, PASSWORD_PROBLEM, SAMPLES, ToolTest, WITH_PASSWORD, backup, \
    entries_of, main, make, run

NOTES = "AppDomain-com.example.notes"
WELCOME = "Documents/Welcome.txt"
HOSTILE = "AppDomain-com.example.hostile"
CIPHER = ("--device-bound", *ENCRYPTED)
Report = tuple[list[dict[str, Any]], dict[str, Any]]


class VerifyTest(ToolTest):
    def verify(self, *arguments: str | Path, status: int = FAILED) -> Report:
        """The problems and the summary that the tool gives."""
        result = run("verify", "--json", *arguments)
        self.assertEqual((result.returncode, result.stderr), (status, b""), result.stdout)
        *problems, summary = map(json.loads, result.stdout.splitlines())
        self.assertEqual(summary["severity"], "summary")
        for severity in ("problem", "warning"):
            self.assertEqual(summary[severity + "s"], sum(one["severity"] == severity for one in problems))
        return problems, summary

    def assert_clean(self, path: Path, *arguments: str | Path) -> None:
        problems, summary = self.verify(path, *arguments, status=DONE)
        self.assertEqual(problems, [])
        self.assertEqual(summary["entries"], len(entries_of(path)))
        self.assertEqual(summary["files"], len(entries_of(path, "file")))
        self.assertEqual(summary["sourceFiles"], summary["files"] + 4)

    def only_problem(self, *arguments: str | Path) -> dict[str, Any]:
        problems, _ = self.verify(*arguments)
        self.assertEqual(len(problems), 1, problems)
        self.assertEqual(problems[0]["severity"], "problem")
        return problems[0]

    def copy(self, *options: str) -> Path:
        """A backup of the test's own."""
        return make(self.folder / "backup", "--tree", "small", *options)

    def entry(self, path: Path, name: str = WELCOME) -> dict[str, Any]:
        return next(entry for entry in entries_of(path) if entry["path"] == name)

    def stored(self, path: Path, name: str = WELCOME) -> Path:
        identifier = self.entry(path, name)["fileID"]
        nested = path / identifier[:2] / identifier
        return nested if nested.parent.is_dir() else path / identifier

    def edit(self, path: Path, change: Callable[[sqlite3.Connection], None]) -> None:
        connection = sqlite3.connect(path / "Manifest.db")
        with connection:
            change(connection)
        connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        connection.close()

    def edit_record(self, path: Path, change: Callable[[dict[str, Any]], None], name: str = WELCOME) -> None:
        def edit(connection: sqlite3.Connection) -> None:
            [blob] = connection.execute("SELECT file FROM Files WHERE relativePath = ?", (name,)).fetchone()
            record = plistlib.loads(blob)
            change(record["$objects"][record["$top"]["root"].data])
            connection.execute("UPDATE Files SET file = ? WHERE relativePath = ?",
                               (plistlib.dumps(record, fmt=plistlib.FMT_BINARY, sort_keys=False), name))
        self.edit(path, edit)


class Clean(VerifyTest):
    def test_backups_of_every_version(self) -> None:
        for version in ("2.4", "3.0", "3.1", "3.2", "3.3"):
            with self.subTest(version):
                self.assert_clean(backup("--version", version))
                self.assert_clean(backup("--version", version, "--zip"))

    def test_encrypted_backups(self) -> None:
        for version in ("3.2", "3.3"):
            with self.subTest(version):
                self.assert_clean(backup("--version", version, *CIPHER), *WITH_PASSWORD)
                self.assert_clean(backup("--version", version, *CIPHER, "--zip"), *WITH_PASSWORD)

    def test_samples(self) -> None:
        for name in ("plain-2.4", "plain-3.2", "plain-3.1.zip"):
            self.assert_clean(SAMPLES / name)
        self.assert_clean(SAMPLES / "encrypted-3.3", "--password-file", SAMPLES / "password.txt")

    def test_backups_leave_nothing_behind(self) -> None:
        self.assert_clean(backup("--zip", "--deflate"))
        self.assert_no_leftovers()

    def test_is_what_people_read(self) -> None:
        path = backup("--tree", "small")
        count, files = len(entries_of(path)), len(entries_of(path, "file"))
        self.assertEqual(self.succeed("verify", path).decode(),
                         f"{count} entries, {files} files checked: 0 problems\n")

    def test_needs_the_password(self) -> None:
        path = backup("--tree", "small", *ENCRYPTED)
        messages = self.fail_with(PASSWORD_PROBLEM, "verify", path)
        self.assertIn("kelvane: Backup is encrypted and no password specified", messages[-1])


class Content(VerifyTest):
    def hostile(self, variant: str, *options: str) -> dict[str, Any]:
        password = WITH_PASSWORD if "--encrypted" in options else ()
        problem = self.only_problem(backup("--tree", "small", "--hostile", variant, *options), *password)
        self.assertEqual((problem["domain"], problem["path"]), (HOSTILE, f"Documents/{variant}.txt"))
        self.assertEqual(len(problem["fileID"]), 40)
        return problem

    def test_that_is_missing(self) -> None:
        for options in ((), ("--zip",), CIPHER, (*CIPHER, "--zip"), ("--version", "2.4")):
            with self.subTest(options):
                problem = self.hostile("stored-missing", *options)
                self.assertEqual((problem["kind"], problem["message"]),
                                 ("content-missing", "its stored content is missing"))
                self.assertTrue(problem["causes"][0].startswith("Error loading external representation"), problem)
                self.assertGreaterEqual(len(problem["causes"]), 2)

    def test_that_is_too_short(self) -> None:
        problem = self.hostile("stored-truncated")
        self.assertEqual((problem["kind"], problem["message"], problem["causes"]),
                         ("size", "it has 32 bytes, the manifest says 71", []))

    def test_with_another_digest(self) -> None:
        for variant, options in (("digest-wrong", ()), ("digest-wrong", CIPHER), ("stored-changed", ())):
            with self.subTest(variant):
                problems, _ = self.verify(backup("--tree", "small", "--hostile", variant, *options),
                                          *(WITH_PASSWORD if options else ()))
                self.assertEqual([one["kind"] for one in problems], ["digest"])
                self.assertEqual(problems[0]["message"], "its SHA-1 is not the one in the manifest")

    def test_that_is_a_directory_a_fifo_or_a_socket(self) -> None:
        for variant in ("stored-directory", "stored-fifo", "stored-socket"):
            with self.subTest(variant):
                path = backup("--tree", "small", "--hostile", variant)
                problems, summary = self.verify(path)
                self.assertEqual([one["kind"] for one in problems if one["severity"] == "problem"],
                                 ["content-unreadable"])
                # A directory is no file, so none is met in its place.
                self.assertEqual(summary["warnings"], 0 if variant == "stored-directory" else 1)

    def test_that_is_a_link(self) -> None:
        path = self.copy()
        stored = self.stored(path)
        elsewhere = self.folder / "elsewhere"
        stored.rename(elsewhere)
        stored.symlink_to(elsewhere)
        [problem, warning], _ = self.verify(path)
        self.assertEqual((problem["severity"], problem["kind"], problem["path"]), ("problem", "linked-content", WELCOME))
        self.assertEqual((warning["severity"], warning["kind"], warning["storedName"]),
                         ("warning", "irregular-file", str(stored.relative_to(path))))
        self.assert_clean(path, "--follow-links")

    def test_whose_key_is_missing(self) -> None:
        problem = self.hostile("key-missing", *CIPHER)
        self.assertEqual((problem["kind"], problem["causes"]), ("key-missing", []))

    def test_whose_key_is_not_unwrapped(self) -> None:
        for variant in ("key-short", "key-damaged", "device-bound"):
            with self.subTest(variant):
                problem = self.hostile(variant, *CIPHER)
                self.assertEqual((problem["kind"], problem["message"]), ("key-locked", "its key cannot be unwrapped"))
                self.assertTrue(problem["causes"][0].endswith("Failed to unlock file key for entry (code 22)"), problem)

    def test_that_does_not_decrypt(self) -> None:
        for variant in ("cipher-ragged", "cipher-padding"):
            with self.subTest(variant):
                problem = self.hostile(variant, *CIPHER)
                self.assertEqual((problem["kind"], problem["message"]),
                                 ("undecryptable", "its stored content does not decrypt"))
                self.assertIn("(code 18)", problem["causes"][0])

    def test_whose_size_fits_the_plaintext_or_the_stored_bytes(self) -> None:
        path = self.copy(*ENCRYPTED)
        stored, size = self.stored(path).stat().st_size, self.entry(path)["size"]
        self.assertNotEqual(stored, size)
        self.assert_clean(path, *WITH_PASSWORD)
        # The database is encrypted, so sizes are changed in a plain copy of the same tree.
        path = make(self.folder / "plain", "--tree", "small")
        self.edit_record(path, lambda record: record.update(Size=size + 1))
        problem = self.only_problem(path)
        self.assertEqual((problem["kind"], problem["message"]),
                         ("size", f"it has {size} bytes, the manifest says {size + 1}"))

    def test_with_a_negative_size(self) -> None:
        path = self.copy()
        self.edit_record(path, lambda record: record.update(Size=-1))
        self.assertEqual(self.only_problem(path)["kind"], "size")

    def test_with_a_changed_byte_and_a_digest(self) -> None:
        path = self.copy("--version", "2.4", "--seed", "3")
        entry = next(entry for entry in entries_of(path, "file") if entry["digest"] and entry["size"])
        stored = path / entry["fileID"]
        stored.write_bytes(bytes([stored.read_bytes()[0] ^ 1]) + stored.read_bytes()[1:])
        self.assertEqual(self.only_problem(path)["kind"], "digest")

    def test_in_a_damaged_record_of_a_zip(self) -> None:
        path = make(self.folder / "backup.zip", "--tree", "small", "--zip")
        identifier = self.entry(path)["fileID"]
        with zipfile.ZipFile(path) as archive:
            offset = archive.getinfo(f"{identifier[:2]}/{identifier}").header_offset
        with open(path, "r+b") as file:
            file.seek(offset + 30 + 43)
            file.write(b"\xff")
        problem = self.only_problem(path)
        self.assertEqual((problem["kind"], problem["path"]), ("content-unreadable", WELCOME))

    def test_that_cannot_be_read_fails_alone(self) -> None:
        path = self.copy()
        self.stored(path).unlink()
        self.stored(path, "Documents/Shopping list.txt").unlink()
        problems, summary = self.verify(path)
        self.assertEqual({one["path"] for one in problems}, {WELCOME, "Documents/Shopping list.txt"})
        self.assertEqual(summary["files"], len(entries_of(path, "file")))


class Entries(VerifyTest):
    def test_of_one_file_id(self) -> None:
        # A table without the key that keeps file IDs apart.
        path = self.copy()
        identifier = self.entry(path)["fileID"]

        def repeat(connection: sqlite3.Connection) -> None:
            connection.execute("CREATE TABLE Other (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER,"
                               " file BLOB)")
            connection.execute("INSERT INTO Other SELECT * FROM Files")
            connection.execute("INSERT INTO Other SELECT * FROM Files WHERE fileID = ?", (identifier,))
            connection.execute("DROP TABLE Files")
            connection.execute("ALTER TABLE Other RENAME TO Files")
        self.edit(path, repeat)
        problem = self.only_problem(path)
        self.assertEqual((problem["kind"], problem["path"], problem["fileID"]), ("file-id-shared", WELCOME, identifier))
        self.assertEqual(problem["message"], f"its file ID is also that of {NOTES}/{WELCOME}")

    def test_of_one_path_in_a_binary_manifest(self) -> None:
        path = self.copy("--version", "2.4")
        manifest = path / "Manifest.mbdb"
        data = manifest.read_bytes()
        start = data.index(WELCOME.encode()) - 4 - len(NOTES)
        end = data.index(b"\x00" + bytes([len(NOTES)]) + NOTES.encode(), start + 2)
        manifest.write_bytes(data + data[start:end])
        self.assertEqual(self.only_problem(path)["kind"], "file-id-shared")

    def test_whose_record_has_attributes_nested_deeply_can_be_written(self) -> None:
        path = self.copy()
        self.edit_attributes(path, lambda add, attributes: attributes, depth=110)
        self.assert_clean(path)
        self.assertEqual(run("export", path, self.folder / "exported").returncode, DONE)
        self.assertEqual(self.verify(self.folder / "exported", status=DONE)[0], [])

    def test_whose_record_cannot_be_written_are_named(self) -> None:
        """References of ours take more bytes than those of the property list's own kind."""
        path = self.copy()
        limit = 64 << 20

        def enlarge(add: Callable[[Any], UID], attributes: dict[str, Any]) -> None:
            attributes["NS.keys"] = [add(f"name {i}") for i in range(30000)]
            attributes["NS.objects"] = [add(bytes(limit - (1 << 20)))] + [add(b"value")] * 29999
        self.edit_attributes(path, enlarge)
        problem = self.only_problem(path)
        self.assertEqual((problem["kind"], problem["path"]), ("unwritable", WELCOME))

    def edit_attributes(self, path: Path, change: Callable[[Callable[[Any], UID], dict[str, Any]], Any],
                        depth: int = 1) -> None:
        """Gives a row's record dictionaries as attributes, of which change fills the innermost."""
        def edit(connection: sqlite3.Connection) -> None:
            [blob] = connection.execute("SELECT file FROM Files WHERE relativePath = ?", (WELCOME,)).fetchone()
            archive = plistlib.loads(blob)
            objects = archive["$objects"]

            def add(value: Any) -> UID:
                objects.append(value)
                return UID(len(objects) - 1)
            kind = add({"$classname": "NSDictionary", "$classes": ["NSDictionary", "NSObject"]})
            name = add("com.example.name")
            attributes: dict[str, Any] = {"$class": kind, "NS.keys": [name], "NS.objects": [name]}
            innermost, inner = attributes, add(attributes)
            for _ in range(1, depth):
                inner = add({"$class": kind, "NS.keys": [name], "NS.objects": [inner]})
            objects[archive["$top"]["root"].data]["ExtendedAttributes"] = inner
            change(add, innermost)
            blob = plistlib.dumps(archive, fmt=plistlib.FMT_BINARY, sort_keys=False)
            self.assertLessEqual(len(blob), 64 << 20)
            connection.execute("UPDATE Files SET file = ? WHERE relativePath = ?", (blob, WELCOME))
        self.edit(path, edit)

    def test_whose_file_id_is_not_theirs(self) -> None:
        path = self.copy()
        identifier, other = self.entry(path)["fileID"], "0" * 40
        self.edit(path, lambda connection: connection.execute("UPDATE Files SET fileID = ? WHERE fileID = ?",
                                                              (other, identifier)))
        (path / "00").mkdir(exist_ok=True)
        self.stored(path).rename(path / "00" / other)
        problem = self.only_problem(path)
        self.assertEqual((problem["kind"], problem["path"]), ("file-id-foreign", WELCOME))
        self.assertEqual(problem["message"],
                         f"its file ID is '{other}', that of its domain and path is {identifier}")

    def test_whose_file_id_is_no_file_name(self) -> None:
        path = backup("--tree", "small", "--hostile", "file-id-dotdot")
        problems, _ = self.verify(path)
        wanted = sum(entry["damaged"] for entry in entries_of(path))
        kinds = [one["kind"] for one in problems]
        self.assertEqual((kinds.count("file-id-foreign"), kinds.count("unsafe-name")), (wanted, wanted))

    def test_of_directories_and_links_count_too(self) -> None:
        path = self.copy()
        self.edit(path, lambda connection: connection.execute(
            "UPDATE Files SET fileID = 'ff' || substr(fileID, 3) WHERE flags != 1 AND fileID NOT LIKE 'ff%'"))
        problems, _ = self.verify(path)
        self.assertEqual({one["kind"] for one in problems}, {"file-id-foreign"})
        self.assertEqual(len(problems), sum(entry["type"] != "file" and not entry["fileID"].startswith("ff")
                                            for entry in entries_of(path)))

    def test_that_are_nothing_known(self) -> None:
        path = self.copy()
        self.edit_record(path, lambda record: record.update(Mode=0o010644))
        problem = self.only_problem(path)
        self.assertEqual((problem["kind"], problem["message"]),
                         ("unknown-type", "its mode 010644 makes it no file, directory or link"))


class Files(VerifyTest):
    def test_that_no_entry_names(self) -> None:
        path = self.copy()
        identifier = self.entry(path)["fileID"]
        strays = ["stray", f"{identifier[:2]}/stray", f"00/{'0' * 40}", identifier, f"ff/{identifier}",
                  "a/b/c/deep", "DS_Store", "Snapshots/a", "3d/two\nlines", "3d/back\\slash"]
        for name in strays:
            (path / name).parent.mkdir(parents=True, exist_ok=True)
            (path / name).write_text("mine")
        problems, _ = self.verify(path)
        self.assertEqual([one["storedName"] for one in problems], sorted(strays))
        self.assertEqual({(one["kind"], one["message"]) for one in problems}, {("stray-file", "no entry names it")})

    def test_that_other_programs_leave_are_remarks(self) -> None:
        path = self.copy()
        names = [".DS_Store", "3d/.DS_Store", "._Manifest.plist", "Thumbs.db", "3d/thumbs.db", "desktop.ini",
                 "__MACOSX/a/b"]
        for name in [*names, "Snapshot/3d/x"]:
            (path / name).parent.mkdir(parents=True, exist_ok=True)
            (path / name).write_text("theirs")
        found, summary = self.verify(path, status=DONE)
        self.assertEqual((summary["problems"], summary["remarks"]), (0, len(names) + 1))
        kinds = {one["storedName"]: one["kind"] for one in found}
        self.assertEqual(kinds, dict.fromkeys(names, "foreign-file") | {"Snapshot/3d/x": "snapshot-file"})
        self.assertEqual({one["severity"] for one in found}, {"remark"})
        lines = run("verify", path).stdout.decode().splitlines()
        self.assertIn("remark: file .DS_Store: a file manager or an archiver left it", lines)
        self.assertTrue(lines[-1].endswith("checked: 0 problems, 8 remarks"), lines[-1])

    def test_of_a_backup_that_was_cut_off(self) -> None:
        path = self.copy()
        values = plistlib.loads((path / "Status.plist").read_bytes())
        (path / "Status.plist").write_bytes(plistlib.dumps(values | {"SnapshotState": "uploading"}))
        [found], summary = self.verify(path, status=DONE)
        self.assertEqual((found["severity"], found["kind"], found["storedName"], found["message"]), (
            "warning", "unfinished", "Status.plist",
            "the backup was cut off: its SnapshotState is 'uploading', not 'finished'"))
        result = run("info", path)
        self.assertEqual(result.stderr.decode().splitlines(),
                         ["kelvane: warning: the backup was cut off: its SnapshotState is 'uploading', not 'finished'"])
        self.assertIn(b"Snapshot state:     uploading\n", result.stdout)

    def test_that_no_entry_of_a_binary_manifest_names(self) -> None:
        path = self.copy("--version", "2.4")
        identifier = self.entry(path)["fileID"]
        (path / identifier[:2]).mkdir()
        shutil.copy(path / identifier, path / identifier[:2] / identifier)
        self.assertEqual(self.only_problem(path)["storedName"], f"{identifier[:2]}/{identifier}")

    def test_that_no_entry_of_an_archive_names(self) -> None:
        path = make(self.folder / "backup.zip", "--tree", "small", "--zip")
        with zipfile.ZipFile(path, "a") as archive:
            archive.writestr("00/stray", "mine")
            archive.writestr("empty directory/", "")
        self.assertEqual(self.only_problem(path)["storedName"], "00/stray")

    def test_that_an_archive_holds_twice(self) -> None:
        path = make(self.folder / "backup.zip", "--tree", "small", "--zip")
        identifier = self.entry(path)["fileID"]
        name = f"{identifier[:2]}/{identifier}"
        with self.assertWarns(UserWarning), zipfile.ZipFile(path, "a") as archive:
            archive.writestr(name, "another")
            archive.writestr("Info.plist", "another")
        problems, _ = self.verify(path)
        self.assertEqual([(one["kind"], one["storedName"]) for one in problems],
                         [("repeated-record", name), ("repeated-record", "Info.plist")])

    def test_that_are_links_are_not_followed(self) -> None:
        path = self.copy()
        (path / "out").symlink_to("/")
        self.assertEqual(self.only_problem(path)["storedName"], "out")

    def test_whose_names_are_no_text(self) -> None:
        path = self.copy()
        (Path(os.fsdecode(os.fsencode(path) + b"/n\xe4me"))).write_text("mine")
        self.assertEqual(self.only_problem(path)["storedName"], "n\u00e4me")

    def test_of_placeholders_have_no_entry(self) -> None:
        path = self.copy("--placeholders", "2")
        [identifier] = sqlite3.connect(path / "Manifest.db").execute(
            "SELECT fileID FROM Files WHERE flags = 16 LIMIT 1").fetchone()
        (path / identifier[:2]).mkdir(exist_ok=True)
        (path / identifier[:2] / identifier).write_text("mine")
        for name in ("Manifest.db-wal", "Manifest.db-shm"):
            (path / name).unlink(missing_ok=True)
        self.assertEqual(self.only_problem(path)["storedName"], f"{identifier[:2]}/{identifier}")


class Metadata(VerifyTest):
    """It opens as if it were empty, so that nothing else tells of it."""

    def check(self, name: str, content: bytes, cause: str, *options: str) -> None:
        path = self.copy(*options)
        (path / name).write_bytes(content)
        problem = self.only_problem(path)
        self.assertEqual((problem["kind"], problem["storedName"]), ("metadata-unreadable", name))
        self.assertIn(cause, problem["causes"][0])
        self.assertTrue(run("verify", path).stdout.startswith(b"file " + name.encode() + b": what it holds"))

    def test_that_is_no_property_list(self) -> None:
        self.check("Info.plist", b"no property list", "The file is no property list that can be read (Info.plist)")

    def test_that_is_empty(self) -> None:
        self.check("Manifest.plist", b"", "The file is empty (Manifest.plist)", "--version", "2.4")

    def test_that_is_no_dictionary(self) -> None:
        self.check("Info.plist", plistlib.dumps(["a"]), "The root of the property list is no dictionary (Info.plist)")


class Log(VerifyTest):
    def assert_warning(self, path: Path, kind: str, message: str) -> None:
        [warning], summary = self.verify(path, status=DONE)
        self.assertEqual((warning["severity"], warning["kind"], warning["message"]), ("warning", kind, message))
        self.assertEqual((summary["problems"], summary["warnings"]), (0, 1))

    def test_beside_the_database_is_a_warning(self) -> None:
        path = self.copy()
        (path / "Manifest.db-wal").write_bytes(bytes(100))
        (path / "Manifest.db-shm").write_bytes(bytes(32768))
        self.assert_warning(path, "write-ahead-log",
                            "it holds 100 bytes of changes to the manifest, which nobody reads")

    def test_in_an_archive_is_a_warning(self) -> None:
        path = make(self.folder / "backup.zip", "--tree", "small", "--zip")
        with zipfile.ZipFile(path, "a") as archive:
            archive.writestr("Manifest.db-wal", bytes(100))
        self.assert_warning(path, "write-ahead-log",
                            "it holds 100 bytes of changes to the manifest, which nobody reads")

    def test_of_an_unfinished_transaction_is_a_warning(self) -> None:
        path = self.copy()
        (path / "Manifest.db-journal").write_bytes(bytes(512))
        self.assert_warning(path, "rollback-journal",
                            "it holds 512 bytes of a change to the manifest that was not finished")

    def test_that_is_empty_is_nothing(self) -> None:
        path = self.copy()
        (path / "Manifest.db-wal").touch()
        problems, _ = self.verify(path, status=DONE)
        self.assertEqual(problems, [])

    def test_beside_a_binary_manifest_is_a_stray(self) -> None:
        path = self.copy("--version", "2.4")
        (path / "Manifest.db-wal").write_bytes(bytes(100))
        self.assertEqual(self.only_problem(path)["kind"], "stray-file")

    def test_is_told_to_people(self) -> None:
        path = self.copy()
        (path / "Manifest.db-wal").write_bytes(bytes(100))
        lines = self.succeed("verify", path).decode().splitlines()
        self.assertEqual(lines[0], "warning: file Manifest.db-wal: it holds 100 bytes of changes to the manifest,"
                         " which nobody reads")
        self.assertTrue(lines[1].endswith(" checked: 0 problems, 1 warning"))


class Output(VerifyTest):
    def test_names_the_causes(self) -> None:
        path = self.copy()
        stored = self.stored(path)
        stored.unlink()
        result = run("verify", path)
        lines = result.stdout.decode().splitlines()
        self.assertEqual((result.returncode, result.stderr), (FAILED, b""))
        self.assertEqual(lines[0], f"{NOTES}/{WELCOME}: its stored content is missing")
        self.assertEqual([line.startswith("  caused by: ") for line in lines], [False, True, True, False])
        self.assertIn(str(stored), lines[2])
        self.assertTrue(lines[3].endswith(" checked: 1 problem"), lines)

    def test_is_one_line_a_name(self) -> None:
        path = self.copy()
        (path / "two\nlines\x1b[31m").touch()
        result = run("verify", path)
        self.assertEqual(result.stdout.decode().splitlines()[0],
                         "file two\\nlines\\e[31m: no entry names it")

    def test_says_everything_about_a_hostile_backup(self) -> None:
        path = backup("--tree", "small", "--hostile", "all", *CIPHER)
        problems, _ = self.verify(path, *WITH_PASSWORD)
        named = {(one.get("domain"), one.get("path")) for one in problems}
        for entry in entries_of(path):
            if entry["damaged"]:
                self.assertIn((entry["domain"], entry["path"]), named)
        digests = {hashlib.sha1(f"{entry['domain']}-{entry['path']}".encode()).hexdigest()
                   for entry in entries_of(path)}
        foreign = [entry for entry in entries_of(path) if entry["fileID"] not in digests]
        self.assertEqual(sum(one["kind"] == "file-id-foreign" for one in problems), len(foreign))


if __name__ == "__main__":
    main()
