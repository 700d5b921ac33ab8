"""`csv`: every row of the manifest database as a line, from a backup or from the database alone."""

from __future__ import annotations

import base64
import csv
import io
import os
import plistlib
import sqlite3
import stat
import subprocess
from pathlib import Path
from typing import Any

from terminal import Terminal
from tool_testing import DONE, ENCRYPTED, FAILED, PASSWORD_PROBLEM, TIMEOUT, ToolTest, USAGE, WITH_PASSWORD, backup, \
    command, entries_of, main, make, run

HEADER = ("fileID", "domain", "relativePath", "fileTypeFlags", "relativePath2", "target", "digest", "encryptionKey",
          "mode", "inodeNumber", "userID", "groupID", "lastModified", "lastStatusChange", "birth", "size",
          "protectionClass", "extendedAttributes")
# Owners are dumped without a sign.
LARGEST_OWNER = 2**32 - 1
FLAGS = {"file": "1", "directory": "2", "symlink": "4"}


def rows_of(text: bytes) -> list[dict[str, str]]:
    reader = csv.reader(io.StringIO(text.decode(), newline=""), strict=True)
    header, *rows = reader
    assert tuple(header) == HEADER, header
    return [dict(zip(HEADER, row, strict=True)) for row in rows]


def expected_row(entry: dict[str, Any]) -> dict[str, str]:
    digest = base64.b64encode(bytes.fromhex(entry["digest"])).decode() if entry["digest"] else ""
    return {
        "fileID": entry["fileID"], "domain": entry["domain"], "relativePath": entry["path"],
        "fileTypeFlags": FLAGS[entry["type"]], "relativePath2": entry["path"], "target": entry["target"],
        "digest": digest, "mode": str(entry["mode"]), "userID": str(entry["uid"] & LARGEST_OWNER),
        "groupID": str(entry["gid"] & LARGEST_OWNER),
        "lastModified": str(entry["modified"]), "lastStatusChange": str(entry["changed"]),
        "birth": str(entry["birth"]), "size": str(entry["size"]),
        "protectionClass": str(entry["protectionClass"])}


class CSVTest(ToolTest):
    def assert_dump(self, text: bytes, path: Path) -> None:
        entries = sorted(entries_of(path), key=lambda entry: entry["fileID"])
        rows = rows_of(text)
        self.assertEqual([row["fileID"] for row in rows], [entry["fileID"] for entry in entries])
        for row, entry in zip(rows, entries):
            wanted = expected_row(entry)
            self.assertEqual({key: row[key] for key in wanted}, wanted)
            self.assertEqual(bool(row["encryptionKey"]), entry["hasKey"])


class Dump(CSVTest):
    def test_of_every_version_with_a_database(self) -> None:
        for version in ("3.0", "3.1", "3.2", "3.3"):
            with self.subTest(version):
                path = backup("--version", version)
                self.assert_dump(self.succeed("csv", path), path)

    def test_of_a_zip(self) -> None:
        path = backup("--zip", "--deflate")
        self.assert_dump(self.succeed("csv", path), path)
        self.assert_no_leftovers()

    def test_of_encrypted_backups(self) -> None:
        for options in (("--version", "3.2"), ("--version", "3.3", "--zip")):
            path = backup(*ENCRYPTED, *options)
            self.assert_dump(self.succeed("csv", path, *WITH_PASSWORD), path)
            self.assert_no_leftovers()

    def test_of_a_database_alone(self) -> None:
        path = backup()
        text = self.succeed("csv", path / "Manifest.db")
        self.assert_dump(text, path)
        self.assertEqual(text, self.succeed("csv", path))
        self.assertEqual(text, self.succeed("csv", "Manifest.db", cwd=path))

    def test_tells_of_changes_that_nobody_reads(self) -> None:
        source = make(self.folder / "backup", "--tree", "small")
        (source / "Manifest.db-wal").write_bytes(bytes(100))
        result = run("csv", source)
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (DONE, "kelvane: warning: Manifest.db-wal holds 100 bytes of changes to the manifest, which"
                                " are not read\n"))

    def test_has_no_line_end_at_its_end(self) -> None:
        text = self.succeed("csv", backup("--tree", "small"))
        self.assertTrue(text.startswith(b'"fileID","domain",'))
        self.assertTrue(text.endswith(b'"'))

    def test_of_many_rows_is_whole(self) -> None:
        # Longer than the pieces in which it is written, with characters of every length.
        path = make(self.folder / "backup", "--tree", "none", "--rows", "6000")
        with sqlite3.connect(path / "Manifest.db") as database:
            database.execute("UPDATE Files SET domain = domain || ?", ("\u00e4\U0001F600\u6f22" * 40,))
        database.close()
        text = self.succeed("csv", path)
        self.assertGreater(len(text.decode()), 1 << 20)
        self.assertNotIn("\ufffd", text.decode())
        rows = rows_of(text)
        self.assertEqual(len(rows), 6000)
        self.assertTrue(all(row["domain"].endswith("\u00e4\U0001F600\u6f22" * 40) for row in rows))

    def test_does_not_change_the_database(self) -> None:
        path = make(self.folder / "backup", "--tree", "small")
        before = (path / "Manifest.db").read_bytes()
        self.succeed("csv", path)
        self.succeed("csv", path / "Manifest.db")
        self.assertEqual((path / "Manifest.db").read_bytes(), before)
        self.assertEqual([name for name in os.listdir(path) if name.startswith("Manifest.db")], ["Manifest.db"])

    def test_ends_its_last_line_on_a_terminal(self) -> None:
        path = backup("--tree", "small")
        with Terminal(command("csv", path)) as terminal:
            status = terminal.finish()
        self.assertEqual((status, terminal.shown[-3:]), (DONE, b'"\r\n'))


class LoneSurrogates(CSVTest):
    """UTF-16 in records may hold halves of pairs, which UTF-8 cannot."""

    def setUp(self) -> None:
        super().setUp()
        self.path = make(self.folder / "backup", "--tree", "small")
        with sqlite3.connect(self.path / "Manifest.db") as database:
            self.row, blob = database.execute("SELECT fileID, file FROM Files ORDER BY fileID LIMIT 1 OFFSET 2").fetchone()
            archive = plistlib.loads(blob)
            record = archive["$objects"][1]
            archive["$objects"][record["RelativePath"].data] = "a\ue000b\ue000"
            lone = plistlib.dumps(archive, fmt=plistlib.FMT_BINARY).replace(b"\xe0\x00", b"\xd8\x00")
            database.execute("UPDATE Files SET file = ? WHERE fileID = ?", (lone, self.row))
        database.close()

    def test_are_replaced_with_a_word_and_a_failure(self) -> None:
        result = run("csv", self.path)
        self.assertEqual(result.returncode, FAILED)
        rows = {row["fileID"]: row for row in rows_of(result.stdout)}
        self.assertEqual(rows[self.row]["relativePath2"], "a\ufffdb\ufffd")
        self.assertEqual(result.stderr.decode().splitlines(), [
            "kelvane: 2 lone surrogates, which have no form in UTF-8, were written as U+FFFD; the first is in the row "
            f'"{self.row}"...'])

    def test_do_not_keep_the_file_from_being_written(self) -> None:
        result = run("csv", self.path, "-o", self.output)
        self.assertEqual(result.returncode, FAILED)
        self.assertEqual(len(rows_of(self.output.read_bytes())), len(entries_of(self.path)))

    def test_are_not_mistaken_for_the_real_character(self) -> None:
        with sqlite3.connect(self.path / "Manifest.db") as database:
            database.execute("DELETE FROM Files WHERE fileID = ?", (self.row,))
            database.execute("UPDATE Files SET domain = '\ufffd'")
        database.close()
        self.succeed("csv", self.path)


class Refused(CSVTest):
    def test_is_a_backup_without_a_database(self) -> None:
        self.assertEqual(self.fail_with(FAILED, "csv", backup("--tree", "small", "--version", "2.4")), [
            "kelvane: This backup has a binary manifest and no Manifest.db that could be dumped;"
            " see 'kelvane ls --all'"])

    def test_are_rows_without_a_record(self) -> None:
        path = backup("--tree", "small", "--placeholders", "1")
        self.assertEqual(self.fail_with(FAILED, "csv", path), [
            "kelvane: Backup manifest database is invalid: Failed to parse records from manifest database (code 11)",
            "  caused by: The backup archive did not contain a valid MBFile: Missing or invalid MBFile structure"
            " (code 24)"])

    def test_is_an_encrypted_database_alone(self) -> None:
        path = backup("--tree", "small", *ENCRYPTED) / "Manifest.db"
        self.assertEqual(self.fail_with(FAILED, "csv", path), [
            f"kelvane: '{path}' is no backup and no database; that of an encrypted backup is read with its backup"])

    def test_is_a_wrong_password(self) -> None:
        wrong = self.folder / "wrong"
        wrong.write_text("wrong\n")
        self.fail_with(PASSWORD_PROBLEM, "csv", backup("--tree", "small", *ENCRYPTED), "--password-file", wrong)
        self.assert_no_leftovers()

    def test_is_a_password_for_a_plain_database(self) -> None:
        path = backup("--tree", "small") / "Manifest.db"
        self.assertEqual(self.fail_with(PASSWORD_PROBLEM, "csv", path, *WITH_PASSWORD), [
            f"kelvane: A password was given, but '{path}' is a plain database"])

    def test_is_what_is_not_there(self) -> None:
        self.assertEqual(self.fail_with(FAILED, "csv", "/no/such/file")[0],
                         "kelvane: '/no/such/file' cannot be opened")

    def test_is_a_fifo_without_waiting(self) -> None:
        os.mkfifo(path := self.folder / "fifo")
        self.fail_with(FAILED, "csv", path)

    def test_is_a_damaged_database(self) -> None:
        path = self.folder / "Manifest.db"
        path.write_bytes((backup("--tree", "small") / "Manifest.db").read_bytes()[:5000])
        self.assertTrue(self.fail_with(FAILED, "csv", path)[0].endswith("(code 11)"))


class Output(CSVTest):
    def test_goes_to_a_private_file(self) -> None:
        path = backup("--tree", "small")
        os.umask(0)
        self.addCleanup(os.umask, 0o022)
        self.assertEqual(self.succeed("csv", path, "-o", self.output), b"")
        self.assertEqual(self.output.read_bytes(), self.succeed("csv", path))
        self.assertEqual(stat.S_IMODE(self.output.stat().st_mode), 0o600)

    def test_keeps_a_file_that_exists(self) -> None:
        path = backup("--tree", "small")
        self.output.write_text("mine")
        self.assertEqual(self.fail_with(FAILED, "csv", path, "-o", self.output), [
            f"kelvane: '{self.output}' exists already (--force replaces it)"])
        self.assertEqual(self.output.read_text(), "mine")
        self.succeed("csv", path, "-o", self.output, "--force")
        self.assertEqual(self.output.read_bytes(), self.succeed("csv", path))

    def test_replaces_a_link_and_not_what_it_leads_to(self) -> None:
        (other := self.folder / "other").write_text("mine")
        self.output.symlink_to(other)
        self.fail_with(FAILED, "csv", backup("--tree", "small"), "-o", self.output)
        self.succeed("csv", backup("--tree", "small"), "-o", self.output, "--force")
        self.assertEqual((other.read_text(), self.output.is_symlink()), ("mine", False))

    def test_does_not_replace_a_directory_or_a_device(self) -> None:
        self.output.mkdir()
        for path in (self.output, Path("/dev/null")):
            self.assertEqual(self.fail_with(FAILED, "csv", backup("--tree", "small"), "-o", path, "--force"), [
                f"kelvane: '{path}' is no file that could be replaced"])

    def test_of_a_failure_is_nothing(self) -> None:
        self.output = self.folder / "new" / "directory" / "file.csv"
        self.fail_with(FAILED, "csv", backup("--tree", "small", "--placeholders", "1"), "-o", self.output)
        self.assertFalse((self.folder / "new").exists())

    def test_needs_a_name(self) -> None:
        self.fail_with(USAGE, "csv", backup("--tree", "small"), "-o", "")

    def test_that_is_full_is_an_error(self) -> None:
        result = subprocess.run(["sh", "-c", '"$@" > /dev/full', "sh", *command("csv", backup("--tree", "small"))],
                                capture_output=True, check=False, timeout=TIMEOUT)
        self.assertEqual((result.returncode, result.stderr.decode().splitlines()[0]),
                         (FAILED, "kelvane: Standard output could not be written"))


class Attributes(CSVTest):
    def test_are_shown(self) -> None:
        path = make(self.folder / "backup", "--tree", "small")
        with sqlite3.connect(path / "Manifest.db") as database:
            identifier, blob = database.execute("SELECT fileID, file FROM Files WHERE flags = 1 LIMIT 1").fetchone()
            record = plistlib.loads(blob)
            objects = record["$objects"]
            objects += [{"NS.keys": [], "NS.objects": [], "$class": plistlib.UID(len(objects) + 1)},
                        {"$classname": "NSDictionary", "$classes": ["NSDictionary", "NSObject"]}]
            objects[record["$top"]["root"].data]["ExtendedAttributes"] = plistlib.UID(len(objects) - 2)
            database.execute("UPDATE Files SET file = ? WHERE fileID = ?",
                             (plistlib.dumps(record, fmt=plistlib.FMT_BINARY, sort_keys=False), identifier))
        database.close()
        rows = {row["fileID"]: row for row in rows_of(run("csv", path).stdout)}
        self.assertNotEqual(rows.pop(identifier)["extendedAttributes"], "")
        self.assertEqual({row["extendedAttributes"] for row in rows.values()}, {""})


if __name__ == "__main__":
    main()
