"""Allocations of the tool fail, and the tool has to live with it.

The tool runs under faults/memory_shim.c, which lets the n-th allocation fail, alone or with all that follow. Whatever
n is: no crash, no hang, nothing left in the temporary directory, no partial file in the output, and a message when the
tool fails. When it succeeds all the same, its output is the one that it has with enough memory.

A command makes many thousand allocations, mostly alike: by default some of them are tried, evenly spread, the first
ones all. KELVANE_ALL_FAULTS, when set, tries every one.
"""

from __future__ import annotations

import concurrent.futures
import hashlib
import os
import resource
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from failing_runs import Job, content_below, judge, metadata_of
from tool_testing import (
    DONE, ENCRYPTED, FAILED, TIMEOUT, WITH_PASSWORD, ToolTest, command, main, make, remove_tree, shared, snapshot,
)  # fmt: skip

# Of one command, by default.
SAMPLES = 60
# minizip uses what it is given here without asking whether it was given anything.
UNCHECKED = "zipOpenNewFileInZip4_64"
MEGABYTE = 1 << 20


class Run:
    """One run of a job, in a directory of its own."""

    def __init__(self, job: Job, at: int, sticky: bool) -> None:
        self.what = f"{' '.join(job.arguments[:1])} at {at}{', for good' if sticky else ''}"
        with tempfile.TemporaryDirectory(dir=shared / "runs") as name:
            folder = Path(name)
            (folder / "tmp").mkdir()
            count = folder / "count"
            environment = {
                **os.environ, "LD_PRELOAD": os.environ["MEMORY_SHIM"], "TMPDIR": str(folder / "tmp"), "LC_ALL": "C",
                "MEMORY_FAULT_AT": str(at), "MEMORY_FAULT_COUNT": str(count), "MEMORY_FAULT_EXCEPT": UNCHECKED,
            }  # fmt: skip
            if sticky:
                environment["MEMORY_FAULT_STICKY"] = "1"
            arguments = [argument.replace("{}", str(folder)) for argument in job.arguments]
            self.result = subprocess.run(
                command(*arguments), env=environment, stdin=subprocess.DEVNULL, capture_output=True, check=False,
                timeout=TIMEOUT,
            )  # fmt: skip
            self.leftovers = os.listdir(folder / "tmp")
            self.others = sorted(path.name for path in folder.iterdir() if path.name not in ("tmp", "count", job.output))
            self.output = content_below(folder / job.output, job.changing) if job.output else {}
            self.allocations = int(count.read_text()) if count.exists() else 0
            remove_tree(folder / "tmp")


def places(count: int) -> list[int]:
    """Which allocations fail: the first ones, when the tool sets itself up, and some of the others."""
    if os.environ.get("KELVANE_ALL_FAULTS"):
        return list(range(1, count + 1))
    first = SAMPLES // 4
    step = max(1, (count - first) // (SAMPLES - first))
    return [*range(1, min(first, count) + 1), *range(first + 1, count + 1, step)]


@unittest.skipUnless("MEMORY_SHIM" in os.environ, "there is no way to preload here")
class Memory(ToolTest):
    @classmethod
    def setUpClass(cls) -> None:
        (shared / "runs").mkdir(exist_ok=True)
        cls.encrypted = make(shared / "encrypted", "--tree", "small", *ENCRYPTED)
        cls.plain = make(shared / "plain", "--tree", "small")
        cls.binary = make(shared / "binary", "--tree", "small", "--version", "2.4")
        cls.archive = make(shared / "archive.zip", "--tree", "small", "--zip", "--version", "3.1")
        cls.metadata = metadata_of(cls.encrypted, cls.plain, cls.binary, cls.archive)
        cls.before = snapshot(shared / "encrypted")
        cls.new = shared / "new"
        cls.new.write_bytes(b"new content\n" * 5000)

    def judge(self, job: Job, run: Run) -> None:
        messages = judge(self, job, run, self.metadata)
        self.assertEqual(run.others, [], run.what)
        if run.result.returncode != DONE:
            # Libraries have many words for it, as "initialization error".
            self.assertTrue("kelvane: " in messages or run.result.stdout, run.what)

    def try_everything(self, *arguments: str | Path, output: str | None = None, changing: tuple[str, ...] = ()) -> None:
        job = Job(tuple(map(str, arguments)), output, changing)
        reference = Run(job, 0, False)
        self.assertEqual(reference.result.returncode, DONE, reference.result.stderr)
        job.reference, job.standard_output = reference.output, reference.result.stdout
        allocations = reference.allocations
        self.assertGreater(allocations, 100)
        cases = [(at, sticky) for at in places(allocations) for sticky in (False, True)]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            for run in pool.map(lambda case: Run(job, *case), cases):
                with self.subTest(run.what):
                    self.judge(job, run)
        print(f"{job.arguments[0]}: {allocations} allocations, {len(cases)} runs", file=sys.stderr)

    def tearDown(self) -> None:
        self.assertEqual(snapshot(shared / "encrypted"), self.before, "the backup was changed")

    def test_opening(self) -> None:
        self.try_everything("info", self.encrypted, *WITH_PASSWORD)

    def test_opening_a_binary_manifest(self) -> None:
        self.try_everything("ls", "--all", self.binary)

    def test_opening_a_zip(self) -> None:
        self.try_everything("ls", "--all", self.archive)

    def test_verifying(self) -> None:
        self.try_everything("verify", self.plain)

    def test_dumping(self) -> None:
        self.try_everything("csv", self.plain, "-o", "{}/rows.csv", output="rows.csv")

    def test_extracting(self) -> None:
        self.try_everything("extract", self.encrypted, *WITH_PASSWORD, "-o", "{}/out", output="out")

    def test_exporting_to_a_directory(self) -> None:
        self.try_everything("export", self.encrypted, "{}/out", *WITH_PASSWORD, output="out")

    def test_exporting_a_binary_manifest(self) -> None:
        self.try_everything("export", self.binary, "{}/out", output="out")

    def test_exporting_to_a_zip(self) -> None:
        self.try_everything("export", self.archive, "{}/out.zip", output="out.zip")

    def test_editing(self) -> None:
        # The new file has a fresh key each time, and the manifest records it.
        name = hashlib.sha1(b"HomeDomain-Library/New").hexdigest()
        self.try_everything(
            "edit", self.encrypted, "{}/out", *WITH_PASSWORD, "--put", "HomeDomain", "Library/New", self.new,
            output="out", changing=("Manifest.db", name),
        )  # fmt: skip


@unittest.skipUnless("MEMORY_SHIM" in os.environ, "sanitizers need more address space than there is")
class AddressSpace(ToolTest):
    """As with `ulimit -v`, which is how memory runs out for real."""

    @classmethod
    def setUpClass(cls) -> None:
        cls.binary = shared / "many"
        make(cls.binary, "--tree", "small", "--version", "2.4")
        record = b"\0\1D\0\0\xff\xff\xff\xff\xff\xff" + b"\x81\xa4" + bytes(36) + b"\4" + b"\0"
        (cls.binary / "Manifest.mbdb").write_bytes(b"mbdb\5\0" + record * 700_000)

    def test_a_manifest_for_which_there_is_no_memory_is_an_error(self) -> None:
        with tempfile.TemporaryDirectory() as temporary:
            result = subprocess.run(
                command("info", str(self.binary)), env={**os.environ, "TMPDIR": temporary}, capture_output=True, check=False,
                timeout=TIMEOUT,
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (200 * MEGABYTE, 200 * MEGABYTE)),
            )  # fmt: skip
            self.assertEqual(result.returncode, FAILED, result.stderr)
            self.assertIn(b"memory", result.stderr)
            self.assertEqual(os.listdir(temporary), [])


if __name__ == "__main__":
    main()
