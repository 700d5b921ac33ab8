"""Runs of the tool that tests look at, stop and kill while they are under way."""

from __future__ import annotations

import contextlib
import os
import resource
import subprocess
import time
from collections.abc import Callable, Iterable
from pathlib import Path
from typing import Any

from tool_testing import ENCRYPTED, ToolTest, backup, command

DEADLINE = 30
# Seconds of key derivation: a signal has to come in the middle of it.
SLOW = ("--iterations", "10", "--dp-iterations", "3000000")

# SIGQUIT ends a process with an image of its memory, which is large and of no use here.
resource.setrlimit(resource.RLIMIT_CORE, (0, resource.getrlimit(resource.RLIMIT_CORE)[1]))


def wait_until(condition: Callable[[], object], what: str, pause: float = 0.005) -> None:
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"not within {DEADLINE} s: {what}")
        time.sleep(pause)


def below(root: Path) -> Iterable[Path]:
    for folder, directories, files in os.walk(root):
        yield from (Path(folder) / name for name in (*directories, *files))


def partial_files(root: Path) -> list[Path]:
    return [item for item in below(root) if item.name.endswith(".partial")]


class TemporaryTest(ToolTest):
    def start(self, *arguments: str | Path, **options: Any) -> subprocess.Popen[bytes]:
        options.setdefault("stdin", subprocess.DEVNULL)
        process = subprocess.Popen(command(*arguments), stdout=subprocess.PIPE, stderr=subprocess.PIPE, bufsize=0,
                                   **options)
        self.addCleanup(self.end, process)
        return process

    def end(self, process: subprocess.Popen[bytes]) -> None:
        if process.poll() is None:
            process.kill()
        process.communicate()

    def start_and_hold(self, *arguments: str | Path) -> subprocess.Popen[bytes]:
        """A run that waits for its password, so that its directory can be looked at."""
        process = self.start("ls", backup("--tree", "small", *ENCRYPTED), "--password-file", "-", *arguments,
                             stdin=subprocess.PIPE)
        return process
