"""Every file operation of the tool fails once, and the tool has to live with it.

The tool runs under faults/fault_shim.c, which lets the n-th operation on the backup, the temporary files or
the output fail. For every n, and for each of several errors: no crash, no hang, no leak that a sanitizer reports,
nothing left in the temporary directory, no partial file in the output, and, when the tool fails, a message that names
the cause. When it succeeds all the same, its output is the one that it has without faults.

Of operations that repeat, for one file after the other, some are taken: see telling(). KELVANE_ALL_FAULTS, when set,
tries every error at every operation instead. KELVANE_FAULT_STRIDE leaves more out, for slow builds: 3 takes every third.
"""

from __future__ import annotations

import collections
import concurrent.futures
import contextlib
import errno
import hashlib
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from failing_runs import Job, content_below, judge, metadata_of, preloaded
from tool_testing import (
    DONE, ENCRYPTED, TIMEOUT, WITH_PASSWORD, ToolTest, command, main, make, remove_tree, shared, snapshot,
)  # fmt: skip

ERRORS = (errno.ENOSPC, errno.EIO, errno.EACCES)
# What SQLite and zip archives call the same things.
OTHER_TEXTS = (
    "disk I/O error", "database disk image is malformed", "database or disk is full", "unable to open database file", "readonly database",
    "attempt to write a readonly database", "access permission denied",
)  # fmt: skip

class Run:
    """One run of a job, in a directory of its own."""

    def __init__(self, job: Job, at: int, error: int, sticky: bool) -> None:
        self.what = f"{' '.join(job.arguments[:1])} at {at}, {errno.errorcode[error]}{' for good' if sticky else ''}"
        with tempfile.TemporaryDirectory(dir=shared / "runs") as name:
            folder = Path(name)
            (folder / "tmp").mkdir()
            self.log = folder.parent / (folder.name + ".log")
            self.result = self.start(job, folder, at, error, sticky)
            self.leftovers = os.listdir(folder / "tmp")
            self.output = content_below(folder / job.output, job.changing) if job.output else {}
            self.operations: list[str] = []
            with contextlib.suppress(FileNotFoundError):
                self.operations = [kind(line) for line in self.log.read_text(errors="replace").splitlines()]
                self.log.unlink()
            for path in folder.iterdir():
                if path.is_dir():
                    remove_tree(path)

    def start(self, job: Job, folder: Path, at: int, error: int, sticky: bool) -> subprocess.CompletedProcess[bytes]:
        environment = {
            **os.environ, "LD_PRELOAD": preloaded(os.environ["FAULT_SHIM"]), "TMPDIR": str(folder / "tmp"), "FAULT_ROOT": str(shared),
            "FAULT_AT": str(at), "FAULT_ERRNO": str(error), "LC_ALL": "C",
        }  # fmt: skip
        if at == 0:
            environment["FAULT_LOG"] = str(self.log)
        if sticky:
            environment["FAULT_STICKY"] = "1"
        arguments = [argument.replace("{}", str(folder)) for argument in job.arguments]
        return subprocess.run(
            command(*arguments), env=environment, stdin=subprocess.DEVNULL, capture_output=True, check=False,
            timeout=TIMEOUT,
        )  # fmt: skip


def kind(line: str) -> str:
    """An operation of the log without what differs from run to run and from file to file."""
    return re.sub(r"^\d+ |/[0-9a-f]{2}(?=/|$)|[0-9A-Fa-f-]{16,}|kelvane-\w+|tmp\w+", "", line)


def telling(operations: list[str]) -> list[int]:
    """The numbers of the operations to fail: of those that are alike and follow upon the like, the first two and the
    last. What reads or writes one file after the other does the same for each."""
    alike: dict[tuple[str, str], list[int]] = collections.defaultdict(list)
    for number, pair in enumerate(zip(["", *operations], operations), start=1):
        alike[pair].append(number)
    return sorted({number for numbers in alike.values() for number in (*numbers[:2], numbers[-1])})


def cases_at(at: int) -> list[tuple[int, int, bool]]:
    """All ways to fail there; by default one error in turn and the full disk, which is quicker."""
    every = os.environ.get("KELVANE_ALL_FAULTS")
    errors = ERRORS if every else (ERRORS[at % len(ERRORS)],)
    full_disk = [(at, errno.ENOSPC, True)] if every or at % 3 == 0 else []
    return [*((at, error, False) for error in errors), *full_disk]


@unittest.skipUnless("FAULT_SHIM" in os.environ, "there is no way to preload here")
class Faults(ToolTest):
    backup: Path
    source: dict

    @classmethod
    def setUpClass(cls) -> None:
        (shared / "runs").mkdir(exist_ok=True)
        cls.encrypted = make(shared / "encrypted", "--tree", "small", *ENCRYPTED)
        cls.binary = make(shared / "binary", "--tree", "small", "--version", "2.4")
        cls.archive = make(shared / "archive.zip", "--tree", "small", "--zip", "--version", "3.1")
        cls.metadata = metadata_of(cls.encrypted, cls.binary, cls.archive)
        cls.before = snapshot(shared / "encrypted")
        cls.new = shared / "new"
        cls.new.write_bytes(b"new content\n" * 5000)

    def judge(self, job: Job, run: Run, error: int) -> None:
        messages = judge(self, job, run, self.metadata)
        if run.result.returncode != DONE:
            texts = (os.strerror(error), *OTHER_TEXTS)
            self.assertTrue(any(text in messages for text in texts), f"{run.what}: no cause in {messages!r}")

    def try_everything(self, *arguments: str | Path, output: str | None = None, changing: tuple[str, ...] = ()) -> None:
        job = Job(tuple(map(str, arguments)), output, changing)
        reference = Run(job, 0, errno.EIO, False)
        self.assertEqual(reference.result.returncode, DONE, reference.result.stderr)
        job.reference, job.standard_output = reference.output, reference.result.stdout
        operations = reference.operations
        self.assertGreater(len(operations), 10)
        every = range(1, len(operations) + 1) if os.environ.get("KELVANE_ALL_FAULTS") else telling(operations)
        stride = int(os.environ.get("KELVANE_FAULT_STRIDE", "1"))
        cases = [case for at in every[::stride] for case in cases_at(at)]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            for run, (_, error, _) in zip(pool.map(lambda case: Run(job, *case), cases), cases, strict=True):
                with self.subTest(run.what):
                    self.judge(job, run, error)
        print(f"{job.arguments[0]}: {len(operations)} operations, {len(cases)} runs", file=sys.stderr)

    def tearDown(self) -> None:
        self.assertEqual(snapshot(shared / "encrypted"), self.before, "the backup was changed")

    def test_opening(self) -> None:
        self.try_everything("info", self.encrypted, *WITH_PASSWORD)

    def test_opening_a_binary_manifest(self) -> None:
        self.try_everything("ls", "--all", self.binary)

    def test_opening_a_zip(self) -> None:
        self.try_everything("info", self.archive)

    def test_extracting(self) -> None:
        self.try_everything("extract", self.encrypted, *WITH_PASSWORD, "-o", "{}/out", output="out")

    def test_exporting_to_a_directory(self) -> None:
        self.try_everything("export", self.encrypted, "{}/out", *WITH_PASSWORD, output="out")

    def test_exporting_a_binary_manifest(self) -> None:
        self.try_everything("export", self.binary, "{}/out", output="out")

    def test_exporting_to_a_zip(self) -> None:
        self.try_everything("export", self.encrypted, "{}/out.zip", *WITH_PASSWORD, output="out.zip")

    def test_exporting_from_a_zip(self) -> None:
        self.try_everything("export", self.archive, "{}/out", output="out")

    def test_editing(self) -> None:
        # The new file has a fresh key each time, and the manifest records it.
        name = hashlib.sha1(b"HomeDomain-Library/New").hexdigest()
        self.try_everything(
            "edit", self.encrypted, "{}/out", *WITH_PASSWORD, "--put", "HomeDomain", "Library/New", self.new,
            output="out", changing=("Manifest.db", name),
        )  # fmt: skip


if __name__ == "__main__":
    main()
