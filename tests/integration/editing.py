"""Verbs for tests of `edit`."""

from __future__ import annotations

import hashlib
import os
from pathlib import Path
from typing import Any

from reading_back import Place, ResultTest, facts_of
from tool_testing import ENCRYPTED, FAILED, backup

NOTES = "AppDomain-com.example.notes"
SIZES = "AppDomain-com.example.sizes"
WELCOME, LATEST, SHOPPING = "Documents/Welcome.txt", "Documents/Latest", "Documents/Shopping list.txt"
CIPHER = ("--device-bound", *ENCRYPTED)
FORMS = (("--version", "2.4"), ("--version", "3.0"), ("--version", "3.1", "--zip"), ("--version", "3.2"),
         ("--version", "3.3"), ("--version", "3.2", *CIPHER), ("--version", "3.3", "--zip", *CIPHER))
Facts = dict[Place, dict[str, Any]]


class EditTest(ResultTest):
    def setUp(self) -> None:
        super().setUp()
        self.file = self.folder / "new.txt"
        self.file.write_bytes(b"what is new\n" * 5000)

    def edit(self, source: Path, *operations: str | Path) -> Facts:
        """Edits the backup, which must succeed and give a sound one; gives what the result holds."""
        self.messages = self.write("edit", source, self.output, *operations)
        self.assert_sound(self.output)
        self.assert_same_metadata(source, self.output)
        return facts_of(self.output)

    def each_form(self) -> list[Path]:
        return [backup("--tree", "small", *options) for options in FORMS]

    def edit_each_form(self, *operations: str | Path) -> list[tuple[Facts, Facts]]:
        """Before and after, of a backup of every version, plain and encrypted."""
        results = []
        for source in self.each_form():
            self.output = self.folder / f"out {source.name}"
            results.append((self.facts_before(source), self.edit(source, *operations)))
        return results

    def assert_changed_only(self, before: Facts, after: Facts, *places: Place) -> None:
        for place in set(before) | set(after):
            if place not in places:
                self.assertEqual(after.get(place), before.get(place), place)

    def assert_content(self, facts: dict[str, Any], content: bytes) -> None:
        self.assertEqual(facts["sha256"], hashlib.sha256(content).hexdigest())

    def refuse(self, source: Path, *operations: str | Path, status: int = FAILED) -> list[str]:
        """Runs an edit that must fail with nothing written."""
        messages = self.fail_with(status, "edit", source, self.output, *operations, *self.password_for(source))
        self.assertFalse(os.path.lexists(self.output))
        self.assert_no_leftovers()
        return messages
