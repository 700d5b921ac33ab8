"""`extract`: what it writes where, and what it leaves alone."""

from __future__ import annotations

import hashlib
import os
import plistlib
import sqlite3
import subprocess
from pathlib import Path
from typing import Any

from tool_testing import DONE, FAILED, TIMEOUT, ToolTest, backup, command, entries_of, main, make, run, snapshot

NOTES = "AppDomain-com.example.notes"
WELCOME = "Documents/Welcome.txt"


def small() -> Path:
    return backup("--tree", "small")


def total(path: Path) -> int:
    return len(entries_of(path))


def chosen(domain: str, path: str = "") -> list[dict[str, Any]]:
    return [entry for entry in entries_of(small()) if entry["domain"] == domain and
            (not path or entry["path"] == path or entry["path"].startswith(path + "/"))]


class Selection(ToolTest):
    def test_of_a_domain(self) -> None:
        entries = chosen(NOTES)
        self.assertEqual(self.extract(small(), NOTES), [f"kelvane: {len(entries)} of {len(entries)} entries extracted"])
        self.assert_extracted_exactly(entries)

    def test_of_a_directory(self) -> None:
        self.extract(small(), NOTES, "Documents")
        self.assert_extracted_exactly(chosen(NOTES, "Documents"))

    def test_of_a_directory_with_a_slash(self) -> None:
        self.extract(small(), NOTES, "Documents/")
        self.assert_extracted_exactly(chosen(NOTES, "Documents"))

    def test_of_a_file(self) -> None:
        self.assertEqual(self.extract(small(), NOTES, WELCOME), ["kelvane: 1 of 1 entries extracted"])
        self.assert_extracted_exactly(chosen(NOTES, WELCOME))

    def test_of_a_link(self) -> None:
        self.extract(small(), NOTES, "Documents/Gone")
        self.assert_extracted_exactly(chosen(NOTES, "Documents/Gone"))

    def test_of_nothing_makes_no_directory(self) -> None:
        self.assertEqual(self.extract(small(), NOTES, "Documents/Welcome", status=FAILED),
                         [f"kelvane: The domain '{NOTES}' has nothing at 'Documents/Welcome'"])
        self.assertEqual(self.extract(small(), "NoDomain", status=FAILED),
                         ["kelvane: The backup has no domain 'NoDomain'"])
        self.assertFalse(self.output.exists())

    def test_of_an_empty_domain_is_not_of_everything(self) -> None:
        self.assertEqual(self.extract(small(), "", status=FAILED),
                         ["kelvane: The backup has no domain ''"])
        self.assertFalse(self.output.exists())


class Destination(ToolTest):
    def fill(self, name: str, content: str = "mine") -> Path:
        path = self.output / NOTES / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(content)
        return path

    def test_is_made_with_those_above_it(self) -> None:
        self.output = self.folder / "a" / "b" / "c"
        self.extract(small())
        self.assert_extracted_exactly(entries_of(small()))

    def test_may_be_reached_through_a_link(self) -> None:
        (self.folder / "real").mkdir()
        self.output.symlink_to("real")
        self.extract(small(), NOTES, WELCOME)
        self.assertTrue((self.folder / "real" / NOTES / WELCOME).is_file())

    def test_that_is_a_file_is_an_error(self) -> None:
        self.output.write_text("mine")
        self.assertEqual(self.extract(small(), status=FAILED), [
            f"kelvane: The target directory '{self.output}' could not be opened",
            "  caused by: Not a directory (NSPOSIXErrorDomain 20)"])
        self.assertEqual(self.output.read_text(), "mine")

    def test_keeps_what_else_is_in_it(self) -> None:
        path = self.fill("Documents/another.txt")
        self.extract(small())
        self.assertEqual(path.read_text(), "mine")
        for entry in entries_of(small()):
            self.assert_extracted(entry)

    def assert_one_failed(self, messages: list[str], *lines: str) -> None:
        count = total(small())
        self.assertEqual(messages, [f"kelvane: {NOTES}/{WELCOME}: {lines[0]}", *lines[1:],
                                    f"kelvane: {count - 1} of {count} entries extracted, 1 failed"])
        for entry in entries_of(small()):
            if (entry["domain"], entry["path"]) != (NOTES, WELCOME):
                self.assert_extracted(entry)

    def test_keeps_a_file_that_exists(self) -> None:
        path = self.fill(WELCOME)
        self.assert_one_failed(self.extract(small(), status=FAILED), "It exists already (--force replaces it)",
                               "  caused by: File exists"
                               " (NSPOSIXErrorDomain 17)")
        self.assertEqual(path.read_text(), "mine")

    def test_replaces_a_file_that_exists_when_forced(self) -> None:
        path = self.fill(WELCOME)
        path.chmod(0o400)
        hard_link = self.folder / "hard link"
        os.link(path, hard_link)
        self.extract(small(), "--force")
        self.assert_extracted_exactly(entries_of(small()))
        self.assertEqual(hard_link.read_text(), "mine")

    def test_can_be_extracted_to_again_when_forced(self) -> None:
        self.extract(small())
        before = snapshot(self.output)
        self.extract(small(), "--force")
        self.assertEqual(snapshot(self.output), before)

    def test_keeps_a_link_in_the_place_of_a_file(self) -> None:
        (outside := self.folder / "outside").write_text("mine")
        link = self.output / NOTES / WELCOME
        link.parent.mkdir(parents=True)
        link.symlink_to(outside)
        self.assert_one_failed(self.extract(small(), status=FAILED), "It exists already (--force replaces it)",
                               "  caused by: File exists"
                               " (NSPOSIXErrorDomain 17)")
        self.assertEqual((os.readlink(link), outside.read_text()), (str(outside), "mine"))

    def test_replaces_a_link_and_not_what_it_points_to_when_forced(self) -> None:
        (outside := self.folder / "outside").write_text("mine")
        link = self.output / NOTES / WELCOME
        link.parent.mkdir(parents=True)
        link.symlink_to(outside)
        self.extract(small(), "--force")
        self.assert_extracted_exactly(entries_of(small()))
        self.assertEqual(outside.read_text(), "mine")

    def test_does_not_follow_a_link_in_the_place_of_a_directory(self) -> None:
        for force in ((), ("--force",)):
            with self.subTest(force):
                (outside := self.folder / f"outside{force}").mkdir()
                self.output = self.folder / f"output{force}"
                (self.output / NOTES).mkdir(parents=True)
                (self.output / NOTES / "Documents").symlink_to(outside)
                messages = self.extract(small(), NOTES, "Documents", *force, status=FAILED)
                failing, count = [line for line in messages if line.startswith("kelvane: ")], \
                    len(chosen(NOTES, "Documents"))
                for line in failing[:-1]:
                    self.assertIn(": Something that is no directory is in the way", line)
                self.assertEqual(failing[-1], f"kelvane: 0 of {count} entries extracted, {count} failed")
                self.assertEqual(os.listdir(outside), [])

    def test_keeps_a_directory_in_the_place_of_a_file(self) -> None:
        for force in ((), ("--force",)):
            with self.subTest(force):
                self.output = self.folder / f"output{force}"
                (self.output / NOTES / WELCOME).mkdir(parents=True)
                self.assert_one_failed(self.extract(small(), *force, status=FAILED), "A directory is in the way",
                                       "  caused by: Is a directory"
                                       " (NSPOSIXErrorDomain 21)")

    def test_is_not_left_with_a_fifo_that_somebody_put_there(self) -> None:
        path = self.output / NOTES / WELCOME
        path.parent.mkdir(parents=True)
        os.mkfifo(path)
        self.extract(small(), status=FAILED)
        self.extract(small(), NOTES, WELCOME, "--force")
        self.assert_extracted(chosen(NOTES, WELCOME)[0])

    def test_may_hold_names_like_those_of_unfinished_files(self) -> None:
        # The tool's next names, whatever process ID it gets.
        folder = self.output / NOTES / "Documents"
        folder.mkdir(parents=True)
        script = 'for n in 0 1 2; do : > "$1/.kelvane-$$-$n.partial"; done; shift; exec "$@"'
        tool = command("extract", small(), NOTES, "Documents", "-o", self.output)
        result = subprocess.run(["sh", "-c", script, "sh", str(folder), *tool], capture_output=True, check=False,
                                timeout=TIMEOUT)
        self.assertEqual(result.returncode, DONE, result.stderr)
        self.assertEqual(len([name for name in os.listdir(folder) if name.endswith(".partial")]), 3)


class Content(ToolTest):
    def changed(self, *options: str) -> tuple[Path, Path]:
        """A backup of the test's own, and the stored file of the welcome text in it."""
        path = make(self.folder / "backup", "--tree", "small", *options)
        identifier = next(entry["fileID"] for entry in entries_of(path) if entry["path"] == WELCOME)
        return path, path / identifier[:2] / identifier

    def test_of_the_wrong_length_comes_out_as_it_is_and_is_reported(self) -> None:
        path, stored = self.changed("--seed", "without digest")
        self.set_digest(path, None)
        stored.write_bytes(b"short")
        recorded = next(entry["size"] for entry in entries_of(path) if entry["path"] == WELCOME)
        messages = self.extract(path, status=FAILED)
        self.assertEqual(messages, [
            f"kelvane: {NOTES}/{WELCOME}: extracted, but damaged: it has 5 bytes, the manifest says {recorded}",
            f"kelvane: {total(path)} of {total(path)} entries extracted, 1 damaged"])
        self.assertEqual((self.output / NOTES / WELCOME).read_bytes(), b"short")

    def set_digest(self, path: Path, digest: bytes | None) -> None:
        """Edits the row of the welcome text."""
        with sqlite3.connect(path / "Manifest.db") as database:
            row = database.execute("SELECT fileID, file FROM Files WHERE relativePath = ?", (WELCOME,)).fetchone()
            record = plistlib.loads(row[1])
            body = record["$objects"][record["$top"]["root"].data]
            body.pop("Digest", None)
            if digest is not None:
                record["$objects"].append(digest)
                body["Digest"] = plistlib.UID(len(record["$objects"]) - 1)
            database.execute("UPDATE Files SET file = ? WHERE fileID = ?",
                             (plistlib.dumps(record, fmt=plistlib.FMT_BINARY), row[0]))
        database.close()

    def test_with_the_wrong_digest_comes_out_and_is_reported(self) -> None:
        path, stored = self.changed()
        self.set_digest(path, bytes(20))
        messages = self.extract(path, status=FAILED)
        self.assertEqual(messages, [
            f"kelvane: {NOTES}/{WELCOME}: extracted, but damaged: its SHA-1 is not the one in the manifest",
            f"kelvane: {total(path)} of {total(path)} entries extracted, 1 damaged"])
        self.assertEqual((self.output / NOTES / WELCOME).read_bytes(), stored.read_bytes())

    def test_with_the_right_digest_may_have_another_size(self) -> None:
        path, stored = self.changed()
        stored.write_bytes(b"what the device wrote last")
        self.set_digest(path, hashlib.sha1(b"what the device wrote last").digest())
        self.extract(path)
        self.assertEqual((self.output / NOTES / WELCOME).read_bytes(), b"what the device wrote last")

    def test_is_found_by_its_row_and_not_by_its_path(self) -> None:
        # Two files swap their identifiers and their contents with them.
        path, _ = self.changed()
        with sqlite3.connect(path / "Manifest.db") as database:
            one, other = (database.execute("SELECT fileID FROM Files WHERE relativePath = ?", (name,)).fetchone()[0]
                          for name in (WELCOME, "Documents/Shopping list.txt"))
            for old, new in ((one, "swap"), (other, one), ("swap", other)):
                database.execute("UPDATE Files SET fileID = ? WHERE fileID = ?", (new, old))
        database.close()
        swapped = {WELCOME: other, "Documents/Shopping list.txt": one}
        for name, identifier in swapped.items():
            (path / identifier[:2] / identifier).write_text(f"content of {name}")
        self.extract(path, NOTES, "Documents", status=FAILED)  # neither size nor digest fit now
        for name in swapped:
            self.assertEqual((self.output / NOTES / name).read_text(), f"content of {name}")
            printed = self.cat(path, name)
            self.assertEqual(printed, f"content of {name}".encode())

    def cat(self, path: Path, name: str) -> bytes:
        result = run("cat", path, NOTES, name)
        self.assertEqual(result.returncode, FAILED)
        self.assertTrue(result.stderr.startswith(f"kelvane: {NOTES}/{name}: the content is damaged: ".encode()))
        return result.stdout

    def test_of_two_rows_for_one_name_is_not_lost_when_forced(self) -> None:
        path, _ = self.changed()
        with sqlite3.connect(path / "Manifest.db") as database:
            database.execute("INSERT INTO Files SELECT 'ff00', domain, relativePath, flags, file FROM Files"
                             " WHERE relativePath = ?", (WELCOME,))
        database.close()
        (path / "ff").mkdir(exist_ok=True)
        (path / "ff" / "ff00").write_text("the second one")
        messages = self.extract(path, "--force", status=FAILED)  # its size is another one
        self.assertIn(f"kelvane: {NOTES}/{WELCOME}: extracted as 'Welcome (2).txt', since its name is that of another"
                      " entry here", messages)
        self.assertEqual((self.output / NOTES / "Documents" / "Welcome (2).txt").read_text(), "the second one")
        for entry in entries_of(path):
            self.assert_extracted(entry)


class Directories(ToolTest):
    def test_get_their_times_and_permissions_whatever_the_order_of_the_rows(self) -> None:
        path = make(self.folder / "backup", "--tree", "small")
        with sqlite3.connect(path / "Manifest.db") as database:
            rows = database.execute("SELECT * FROM Files ORDER BY rowid DESC").fetchall()
            database.execute("DELETE FROM Files")
            database.executemany("INSERT INTO Files VALUES (?, ?, ?, ?, ?)", rows)
        database.close()
        self.extract(path)
        self.assert_extracted_exactly(entries_of(path))

    def test_that_the_manifest_lacks_are_made(self) -> None:
        path = backup("--tree", "small", "--hostile", "missing-parents")
        self.extract(path)
        self.assert_extracted_exactly(entries_of(path))


class Other(ToolTest):
    def test_kinds_of_entries_are_reported(self) -> None:
        path = make(self.folder / "backup", "--tree", "small")
        with sqlite3.connect(path / "Manifest.db") as database:
            identifier, blob = database.execute("SELECT fileID, file FROM Files WHERE relativePath = ?",
                                                (WELCOME,)).fetchone()
            record = plistlib.loads(blob)
            record["$objects"][record["$top"]["root"].data]["Mode"] = 0o010644  # a FIFO
            database.execute("UPDATE Files SET file = ? WHERE fileID = ?",
                             (plistlib.dumps(record, fmt=plistlib.FMT_BINARY), identifier))
        database.close()
        self.assertEqual(self.extract(path, status=FAILED), [
            f"kelvane: {NOTES}/{WELCOME}: This is no file, directory or link",
            f"kelvane: {total(path) - 1} of {total(path)} entries extracted, 1 failed"])
        self.assertFalse((self.output / NOTES / WELCOME).exists())
        listed = self.succeed("ls", path, NOTES, WELCOME, "--json")
        self.assertIn(b'"type":"other"', listed)


if __name__ == "__main__":
    main()
