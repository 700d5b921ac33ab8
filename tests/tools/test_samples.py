#!/usr/bin/python3
"""Proves that the committed samples are what the generator makes today, and that they can be read."""

from __future__ import annotations

import os
import re
import subprocess
import sys
import tempfile
import unittest
import zipfile
from pathlib import Path
from typing import Any

from tool_testing import ToolTest, tree_of

SAMPLES = Path(__file__).resolve().parents[2] / "samples"
DIRECTORIES = ("encrypted-3.3", "plain-3.2", "plain-2.4")
ARCHIVE = "plain-3.1.zip"
# A clone of the repository has to stay light.
LARGEST_SAMPLE, LARGEST_TOTAL = 1_000_000, 3_000_000


def records(path: Path) -> dict[str, tuple[Any, ...]]:
    with zipfile.ZipFile(path) as archive:
        return {record.filename: (record.date_time, record.compress_type, archive.read(record))
                for record in archive.infolist()}


def size_of(path: Path) -> int:
    return sum(map(len, tree_of(path).values()))


class Reproduction(unittest.TestCase):
    made: Path

    @classmethod
    def setUpClass(cls) -> None:
        temporary = tempfile.TemporaryDirectory()
        cls.addClassCleanup(temporary.cleanup)
        cls.made = Path(temporary.name)
        subprocess.run([SAMPLES / "make.sh", cls.made], check=True, env=os.environ | {"PYTHON": sys.executable})

    def test_directories_to_the_byte(self) -> None:
        for name in DIRECTORIES:
            with self.subTest(name):
                made, kept = tree_of(self.made / name), tree_of(SAMPLES / name)
                self.assertEqual(sorted(made), sorted(kept))
                self.assertEqual([path for path in made if made[path] != kept[path]], [])

    def test_archive_by_its_records(self) -> None:
        made, kept = records(self.made / ARCHIVE), records(SAMPLES / ARCHIVE)
        self.assertEqual(list(made), list(kept))
        self.assertEqual([name for name in made if made[name] != kept[name]], [])

    def test_expectations(self) -> None:
        made = {path.name: path.read_text() for path in self.made.glob("*.expectations.json")}
        kept = {path.name: path.read_text() for path in SAMPLES.glob("*.expectations.json")}
        self.assertEqual(sorted(made), sorted(kept))
        self.assertEqual([name for name in made if made[name] != kept[name]], [])

    def test_nothing_else_is_made_or_kept(self) -> None:
        made = {path.name for path in self.made.iterdir()}
        kept = {path.name for path in SAMPLES.iterdir()}
        self.assertEqual(made | {"README.md", "make.sh", "password.txt"}, kept)


class Reading(ToolTest):
    def setUp(self) -> None:
        super().setUp()
        self.password_file = SAMPLES / "password.txt"

    def test_every_sample_reads_as_expected(self) -> None:
        for name in (*DIRECTORIES, ARCHIVE):
            with self.subTest(name):
                self.assert_reads_as_expected(SAMPLES / name)


class Housekeeping(unittest.TestCase):
    def test_samples_are_small(self) -> None:
        for name in (*DIRECTORIES, ARCHIVE):
            self.assertLess(size_of(SAMPLES / name), LARGEST_SAMPLE, name)
        self.assertLess(size_of(SAMPLES), LARGEST_TOTAL)

    def test_names_in_the_repository_are_plain(self) -> None:
        for name in tree_of(SAMPLES):
            self.assertRegex(name, r"^[A-Za-z0-9._/-]+$")

    def test_readme_shows_the_commands_that_are_run(self) -> None:
        script = (SAMPLES / "make.sh").read_text().replace("\\\n", " ").replace('"$password"', "samples/password.txt")
        readme = " ".join((SAMPLES / "README.md").read_text().replace("\\\n", " ").split())
        commands = re.findall(r"^sample (.+)$", script, re.MULTILINE)
        self.assertEqual(len(commands), 4)
        for command in commands:
            self.assertIn(f"tests/tools/make_backup.py samples/{' '.join(command.split())}", readme)

    def test_readme_tells_the_password(self) -> None:
        password = (SAMPLES / "password.txt").read_text().splitlines()[0]
        self.assertIn(f"`{password}`", (SAMPLES / "README.md").read_text())


if __name__ == "__main__":
    unittest.main()
