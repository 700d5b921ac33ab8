"""The same as an ordinary user, whom permissions stop."""

from __future__ import annotations

import os
import plistlib
import sqlite3
import stat
import subprocess
from pathlib import Path
from typing import Any

from tool_testing import DONE, FAILED, TIMEOUT, ToolTest, backup, command, entries_of, main, make

NOTES = "AppDomain-com.example.notes"
ROOT = os.geteuid() == 0
NOBODY = 65534
# Root keeps its name and files, and loses what lets it pass by permissions: another user could not reach the tool where
# it was built in a private directory.
WITHOUT_PRIVILEGES = ("setpriv", "--bounding-set=-all", "--inh-caps=-all") if ROOT else ()


def set_modes(path: Path, modes: dict[str, int]) -> None:
    """Changes the modes of entries in the manifest of a backup."""
    with sqlite3.connect(path / "Manifest.db") as database:
        for name, mode in modes.items():
            identifier, blob = database.execute("SELECT fileID, file FROM Files WHERE domain = ? AND relativePath = ?",
                                                (NOTES, name)).fetchone()
            record = plistlib.loads(blob)
            body = record["$objects"][record["$top"]["root"].data]
            body["Mode"] = stat.S_IFMT(body["Mode"]) | mode
            database.execute("UPDATE Files SET file = ? WHERE fileID = ?",
                             (plistlib.dumps(record, fmt=plistlib.FMT_BINARY), identifier))
    database.close()


class Unprivileged(ToolTest):
    def setUp(self) -> None:
        super().setUp()
        self.output.mkdir()

    def run_unprivileged(self, *arguments: str | Path) -> subprocess.CompletedProcess[bytes]:
        return subprocess.run([*WITHOUT_PRIVILEGES, *command(*arguments)], stdin=subprocess.DEVNULL,
                              capture_output=True, check=False, timeout=TIMEOUT)

    def extract_unprivileged(self, *arguments: str | Path, status: int = DONE) -> list[str]:
        result = self.run_unprivileged("extract", *arguments, "-o", self.output)
        self.assertEqual((result.returncode, result.stdout), (status, b""), result.stderr)
        return result.stderr.decode().splitlines()

    def entries(self, path: Path, modes: dict[str, int]) -> list[dict[str, Any]]:
        found = entries_of(path)
        for entry in found:
            if entry["domain"] == NOTES and entry["path"] in modes:
                entry["mode"] = stat.S_IFMT(entry["mode"]) | modes[entry["path"]]
        return found

    def test_extracts_everything(self) -> None:
        path = backup()
        self.extract_unprivileged(path)
        self.assert_extracted_exactly(entries_of(path))

    def test_fills_directories_that_may_not_be_changed_afterwards(self) -> None:
        for mode in (0o555, 0o500, 0o300, 0o111, 0):
            with self.subTest(oct(mode)):
                path = make(self.folder / f"backup{mode}", "--tree", "small")
                modes = {"": mode, "Documents": mode, "Library": mode, "Library/Preferences": mode}
                set_modes(path, modes)
                self.output = self.output.parent / f"output{mode}"
                self.extract_unprivileged(path)
                self.open_up(mode)
                for entry in self.entries(path, modes):
                    if entry["domain"] != NOTES or entry["path"] not in modes:
                        self.assert_extracted(entry)

    def open_up(self, mode: int) -> None:
        """Checks the mode of the directories from the outside in, and lets the test look into them."""
        for name in ("", "Documents", "Library", "Library/Preferences"):
            directory = self.output / NOTES / name
            self.assertEqual(stat.S_IMODE(directory.stat().st_mode), mode)
            directory.chmod(0o700)

    def test_fills_read_only_directories_again_when_forced(self) -> None:
        path = make(self.folder / "backup", "--tree", "small")
        modes = {"": 0o555, "Documents": 0o500, "Library": 0o555}
        set_modes(path, modes)
        self.extract_unprivileged(path)
        self.extract_unprivileged(path, "--force")
        for entry in self.entries(path, modes):
            self.assert_extracted(entry)

    def test_reports_a_directory_that_may_not_be_written(self) -> None:
        path = backup("--tree", "small")
        obstacle = self.output / NOTES
        if ROOT:
            obstacle.mkdir()
            os.chown(obstacle, NOBODY, NOBODY)
        else:
            obstacle.symlink_to("/")  # a directory of root's, which is not even entered
        messages = self.extract_unprivileged(path, status=FAILED)
        reason = "Permission denied (NSPOSIXErrorDomain 13)" if ROOT else "Not a directory (NSPOSIXErrorDomain 20)"
        self.assertIn(f"  caused by: {reason}", messages)
        for entry in entries_of(path):
            if entry["domain"] != NOTES:
                self.assert_extracted(entry)
        self.assertEqual(os.listdir(obstacle) if ROOT else [], [])

    def test_reports_a_stored_file_that_may_not_be_read(self) -> None:
        path = make(self.folder / "backup", "--tree", "small")
        welcome = next(entry for entry in entries_of(path) if entry["path"].endswith("Welcome.txt"))
        (path / welcome["fileID"][:2] / welcome["fileID"]).chmod(0)
        messages = self.extract_unprivileged(path, status=FAILED)
        count = len(entries_of(path))
        self.assertTrue(messages[0].startswith(f"kelvane: {NOTES}/Documents/Welcome.txt: its stored content"
                                               " cannot be read"), messages)
        self.assertTrue(any("Permission denied" in message for message in messages), messages)
        self.assertEqual(messages[-1], f"kelvane: {count - 1} of {count} entries extracted, 1 failed")

    def test_reports_a_backup_that_may_not_be_read(self) -> None:
        path = make(self.folder / "backup", "--tree", "small")
        path.chmod(0)
        result = self.run_unprivileged("info", path)
        self.assertEqual((result.returncode, result.stdout), (FAILED, b""))
        self.assertTrue(result.stderr.startswith(b"kelvane: "), result.stderr)
        path.chmod(0o755)

    def test_reports_a_temporary_directory_that_may_not_be_written(self) -> None:
        (self.folder / "closed").mkdir()
        (self.folder / "closed").chmod(0o555)
        result = self.run_unprivileged("info", backup("--tree", "small"), "--temp", self.folder / "closed")
        self.assertEqual(result.returncode, FAILED)
        self.assertTrue(result.stderr.startswith(b"kelvane: No temporary directory could be made in"))


if __name__ == "__main__":
    main()
