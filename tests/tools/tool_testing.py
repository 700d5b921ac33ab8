"""What the tests of the generator and of the reader share."""

from __future__ import annotations

import functools
import json
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path
from typing import Any

TOOLS = Path(__file__).resolve().parent
PASSWORD = "p\u00e4ssword with blanks"
QUICK = ("--iterations", "10", "--dp-iterations", "20")
# What the expectations say beyond the reader's findings.
MAKER_ONLY_FIELDS = ("hostile", "damaged")


def run_tool(name: str, *arguments: str | Path) -> subprocess.CompletedProcess[str]:
    command = [sys.executable, "-B", str(TOOLS / name), *map(str, arguments)]
    return subprocess.run(command, capture_output=True, text=True, check=False, timeout=120)


# One ordinary backup serves all tests that only look at it.
SHARED = tempfile.TemporaryDirectory()


@functools.cache
def plain_backup() -> Path:
    output = Path(SHARED.name) / "plain"
    run_tool("make_backup.py", output).check_returncode()
    return output


class ToolTest(unittest.TestCase):
    """A test with a directory of its own and verbs for making and reading backups."""

    def setUp(self) -> None:
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.folder = Path(temporary.name)
        self.password_file = self.folder / "password"
        self.password_file.write_text(PASSWORD + "\nnot the password\n", encoding="utf-8")

    def encrypted(self, *options: str) -> tuple[str, ...]:
        return ("--encrypted", "--password-file", str(self.password_file), *QUICK, *options)

    def make(self, name: str, *options: str) -> Path:
        output = self.folder / name
        result = run_tool("make_backup.py", output, *options)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        return output

    def read(self, backup: Path, *options: str) -> subprocess.CompletedProcess[str]:
        password = ("--password-file", str(self.password_file)) if self.is_encrypted(backup) else ()
        return run_tool("read_backup.py", backup, *password, *options)

    def is_encrypted(self, backup: Path) -> bool:
        return self.expectations(backup)["backup"]["encrypted"]

    def expectations(self, backup: Path) -> dict[str, Any]:
        return load_expectations(backup)

    def assert_reads_as_expected(self, backup: Path) -> None:
        expected = self.expectations(backup)
        listing, info = self.read(backup, "--json"), self.read(backup, "--info")
        self.assertEqual(listing.stderr + info.stderr, "")
        self.assertEqual(json.loads(info.stdout), expected["backup"])
        found = [json.loads(line) for line in listing.stdout.splitlines()]
        self.assertEqual(len(found), len(expected["entries"]))
        for one, other in zip(found, expected["entries"]):
            self.assert_entry(one, other)
        damaged = any(entry["damaged"] for entry in expected["entries"])
        self.assertEqual(listing.returncode, 1 if damaged else 0)

    def assert_entry(self, found: dict[str, Any], expected: dict[str, Any]) -> None:
        wanted = {key: value for key, value in expected.items() if key not in MAKER_ONLY_FIELDS}
        if expected["damaged"]:
            wanted["sha256"] = None
        problem = found.pop("problem")
        self.assertEqual(found, wanted)
        self.assertEqual(problem is not None, expected["damaged"], f"{expected} {problem}")


def load_expectations(backup: Path) -> dict[str, Any]:
    path = backup.with_name(backup.name.removesuffix(".zip") + ".expectations.json")
    return json.loads(path.read_text(encoding="ascii"))


def tree_of(root: Path) -> dict[str, bytes]:
    """Every file below a directory, or the file itself, with its bytes."""
    if root.is_file():
        return {"": root.read_bytes()}
    found = {}
    for folder, _, names in os.walk(root):
        for name in names:
            path = Path(folder) / name
            found[str(path.relative_to(root))] = path.read_bytes()
    return found
