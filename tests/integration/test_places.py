"""Outputs and temporary files stay out of the backup that is read, by whatever path it is reached."""

from __future__ import annotations

import os
import sqlite3
import subprocess
import unittest
from pathlib import Path
from typing import Any

from tool_testing import DONE, FAILED, TIMEOUT, ToolTest, command, main, make, run, snapshot

NOTES = "AppDomain-com.example.notes"
WELCOME = "Documents/Welcome.txt"


class PlaceTest(ToolTest):
    def setUp(self) -> None:
        super().setUp()
        self.path = make(self.folder / "backup", "--tree", "small")
        self.before = snapshot(self.path)

    def change(self, statement: str, *values: Any) -> None:
        with sqlite3.connect(self.path / "Manifest.db") as database:
            database.execute(statement, values)
        database.close()
        self.before = snapshot(self.path)

    def assert_untouched(self) -> None:
        self.assertEqual(snapshot(self.path), self.before)
        self.assert_no_leftovers()

    def refuse(self, *words: str | Path, target: str | Path, **options: Any) -> None:
        self.assertEqual(self.fail_with(FAILED, *words, **options),
                         [f"kelvane: '{target}' would lie inside the backup"])
        self.assert_untouched()


class Output(PlaceTest):
    def test_of_extract_is_refused_inside(self) -> None:
        (self.folder / "link").symlink_to(self.path)
        (self.folder / "to a folder").symlink_to(next(item for item in self.path.iterdir() if item.is_dir()))
        for target in (self.path, self.path / "new", self.path / "a" / "b", f"{self.path}/", self.folder / "link",
                       self.folder / "link" / "new", self.folder / "to a folder" / "new",
                       self.folder / "missing" / ".." / "backup" / "new", self.path / "Manifest.plist" / "new"):
            with self.subTest(target):
                self.refuse("extract", self.path, "-o", target, target=target)

    def test_is_refused_by_a_relative_name(self) -> None:
        for target in (".", "new", "../backup/new"):
            self.refuse("extract", ".", "-o", target, target=target, cwd=self.path)

    def test_is_refused_though_the_backup_is_reached_over_a_link(self) -> None:
        (self.folder / "link").symlink_to(self.path)
        self.refuse("extract", self.folder / "link", "-o", self.path / "new", target=self.path / "new")

    def test_of_csv_is_refused_inside(self) -> None:
        target = self.path / "rows.csv"
        self.refuse("csv", self.path, "-o", target, target=target)

    def test_of_csv_does_not_replace_what_it_reads(self) -> None:
        database = self.path / "Manifest.db"
        self.assertEqual(self.fail_with(FAILED, "csv", database, "-o", database, "--force"),
                         [f"kelvane: '{database}' is the backup itself"])
        self.assert_untouched()

    def test_beside_a_backup_is_none_inside(self) -> None:
        self.assertEqual(run("extract", self.path, "-o", self.folder / "backup 2").returncode, DONE)
        self.assertEqual(run("extract", self.path, "-o", f"{self.path}/../backup3").returncode, DONE)

    def test_beside_a_zip_is_none_inside(self) -> None:
        path = make(self.folder / "backup.zip", "--tree", "small", "--zip")
        self.assertEqual(run("extract", path, "-o", self.folder / "out").returncode, DONE)

    def test_into_the_backup_by_the_name_of_a_domain_is_refused(self) -> None:
        self.change("UPDATE Files SET domain = 'backup' WHERE domain = ?", NOTES)
        result = run("extract", self.path, "-o", self.folder, "--force")
        self.assertEqual(result.returncode, FAILED)
        self.assertIn(b"backup/Documents/Welcome.txt: The name leads into the backup itself\n", result.stderr)
        self.assert_untouched()


class Mounted(PlaceTest):
    """A directory that shows the backup, or a folder of it, at another place."""

    def run_mounted(self, what: Path, place: Path) -> subprocess.CompletedProcess[bytes]:
        place.mkdir()
        script = 'mount --bind "$1" "$2" || exit 77; shift 2; exec "$@"'
        words = command("extract", self.path, "-o", place / "new")
        result = subprocess.run(["unshare", "-m", "sh", "-c", script, "sh", str(what), str(place), *words],
                                check=False, timeout=TIMEOUT, capture_output=True)
        if result.returncode not in (DONE, FAILED):
            raise unittest.SkipTest("nothing can be mounted here")
        return result

    def test_is_seen(self) -> None:
        folder = next(item for item in self.path.iterdir() if item.is_dir())
        for number, what in enumerate((self.path, folder)):
            place = self.folder / f"place{number}"
            result = self.run_mounted(what, place)
            self.assertEqual(result.stderr.decode().splitlines(),
                             [f"kelvane: '{place}/new' would lie inside the backup"])
            self.assert_untouched()


class Temporary(PlaceTest):
    def test_files_are_refused_inside(self) -> None:
        folder = next(item for item in self.path.iterdir() if item.is_dir())
        message = "kelvane: Temporary files would lie inside the backup, in '{}'"
        for words in (("info",), ("verify",), ("csv",), ("extract", "-o", self.output)):
            for place in (self.path, folder):
                self.assertEqual(self.fail_with(FAILED, words[0], self.path, *words[1:], "--temp", place),
                                 [message.format(place)])
                self.assert_untouched()
        environment = dict(os.environ, TMPDIR=str(self.path))
        self.assertEqual(self.fail_with(FAILED, "info", self.path, env=environment), [message.format(self.path)])
        self.assert_untouched()


class Depth(PlaceTest):
    def deepen(self, levels: int) -> str:
        path = "d/" * (levels - 1) + "file"
        self.change("UPDATE Files SET relativePath = ? WHERE relativePath = ?", path, WELCOME)
        return path

    def test_beyond_the_limit_is_refused(self) -> None:
        path = self.deepen(1025)
        result = run("extract", self.path, "-o", self.output)
        self.assertEqual(result.returncode, FAILED)
        self.assertIn(f"kelvane: {NOTES}/{path}: The path is too deep (1025 levels)\n", result.stderr.decode())
        self.assertFalse((self.output / NOTES / "d").exists())
        self.assert_untouched()

    def test_of_the_limit_is_extracted(self) -> None:
        self.deepen(1024)
        # Too deep for Python to remove, or to walk.
        self.addCleanup(subprocess.run, ["rm", "-rf", self.output], check=True)
        self.assertEqual(run("extract", self.path, "-o", self.output).returncode, DONE)
        found = subprocess.run(["find", self.output / NOTES, "-name", "d"], check=True, capture_output=True)
        self.assertEqual(len(found.stdout.splitlines()), 1023)


if __name__ == "__main__":
    main()
