"""Nothing is lost where the file system takes two names of the backup for one, as those of many computers do.

The tool runs over faults/fold_shim.c, below which letters in either case, and accents in either form, mean the same.
"""

from __future__ import annotations

import hashlib
import os
import subprocess
import unicodedata
import unittest
from pathlib import Path

from failing_runs import preloaded
from tool_testing import DONE, FAILED, ToolTest, backup, entries_of, main, make, run, snapshot

SHIM = os.environ.get("FOLD_SHIM")
NAMES = "AppDomain-com.example.names"


def folded(text: str) -> str:
    return unicodedata.normalize("NFC", text).lower()


@unittest.skipUnless(SHIM, "the shim is not built here")
class TwinTest(ToolTest):
    def run_folding(self, *arguments: str | Path) -> subprocess.CompletedProcess[bytes]:
        return run(*arguments, env=os.environ | {"LD_PRELOAD": preloaded(SHIM), "FOLD_ROOT": str(self.folder)})

    def extract_folding(self, *options: str) -> list[str]:
        result = self.run_folding("extract", backup(), "-o", self.output, *options)
        self.assertEqual((result.returncode, result.stdout), (DONE, b""), result.stderr)
        return result.stderr.decode().splitlines()

    def twins(self, kind: str) -> int:
        """How many entries have a name that an earlier one has taken."""
        names = [folded(f"{entry['domain']}/{entry['path']}") for entry in entries_of(backup(), kind)]
        return len(names) - len(set(names))

    def assert_nothing_lost(self, messages: list[str]) -> None:
        contents = sorted(hashlib.sha256(path.read_bytes()).hexdigest()
                          for path in self.output.rglob("*") if path.is_file() and not path.is_symlink())
        self.assertEqual(contents, sorted(entry["sha256"] for entry in entries_of(backup(), "file")))
        total, files, directories = len(entries_of(backup())), self.twins("file"), self.twins("directory")
        self.assertEqual(messages[-1], f"kelvane: {total} of {total} entries extracted, {files} under another name, "
                                       f"{directories} merged into other directories")
        self.assertEqual(len([line for line in messages if ": extracted as '" in line]), files)


class Twins(TwinTest):
    def test_come_out_under_another_name(self) -> None:
        self.assertGreaterEqual(self.twins("file"), 5)
        self.assert_nothing_lost(self.extract_folding())

    def test_come_out_under_another_name_when_forced(self) -> None:
        self.assert_nothing_lost(self.extract_folding("--force"))

    def test_come_out_under_the_same_names_again(self) -> None:
        self.extract_folding("--force")
        before = {name: what[2] for name, what in snapshot(self.output).items()}
        self.assert_nothing_lost(self.extract_folding("--force"))
        self.assertEqual({name: what[2] for name, what in snapshot(self.output).items()}, before)

    def test_are_told_of(self) -> None:
        lines = [line for line in self.extract_folding() if "eadme" in line or "README" in line]
        self.assertEqual(len(lines), 2)
        for line, mark in zip(lines, (" (2).", " (3).")):
            self.assertTrue(line.startswith(f"kelvane: {NAMES}/Documents/"), line)
            self.assertIn(mark, line)
            self.assertTrue(line.endswith("', since its name is that of another entry here"), line)

    def test_are_none_where_names_differ(self) -> None:
        messages = self.extract(backup())
        self.assertEqual(len(messages), 1, messages)
        self.assert_extracted_exactly(entries_of(backup()))

    def test_do_not_replace_what_was_there_before(self) -> None:
        folder = self.output / NAMES / "Documents"
        folder.mkdir(parents=True)
        for number in (2, 3):
            for name in ("readme ({}).txt", "Readme ({}).txt", "README ({}).TXT"):
                (folder / name.format(number)).write_text("mine")
        before = set(os.listdir(folder))
        self.extract_folding()
        self.assertEqual({name for name in before if (folder / name).read_text() != "mine"}, set())


class Places(TwinTest):
    def test_in_the_backup_are_known_in_either_case(self) -> None:
        path = make(self.folder / "backup", "--tree", "small")
        for target in (self.folder / "BACKUP" / "x", self.folder / "Backup"):
            for name, words in (("export", (target,)), ("edit", (target, "--mkdir", "HomeDomain", "new")),
                                ("extract", ("-o", target))):
                result = self.run_folding(name, path, *words)
                self.assertEqual(result.returncode, FAILED, (name, target))
                self.assertRegex(result.stderr, b"would lie inside the backup|exists already|is the backup itself")
        self.assertEqual(sorted(os.listdir(self.folder)), ["backup", "backup.expectations.json", "temporary"])


if __name__ == "__main__":
    main()
