"""Verbs for tests of `export`."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

from reading_back import ResultTest
from tool_testing import DONE, ENCRYPTED

CIPHER = ("--device-bound", *ENCRYPTED)


class ExportTest(ResultTest):
    def export(self, source: Path, *options: str | Path, status: int = DONE, **how: Any) -> list[str]:
        return self.fail_with(status, "export", source, self.output, *options, **how)

    def zip_output(self) -> None:
        self.output = self.output.with_suffix(".zip")

    def assert_vanished(self) -> None:
        """Neither the output is there nor anything on the way to it."""
        self.assertFalse(os.path.lexists(self.output))
        self.assertEqual([name for name in os.listdir(self.output.parent) if name.endswith(".partial")], [])
        self.assert_no_leftovers()
