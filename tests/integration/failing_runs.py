"""What the tests share that let the tool fail at one place after the other, and judge what it leaves behind."""

from __future__ import annotations

import contextlib
import functools
import hashlib
import os
import subprocess
import unittest
import zipfile
from dataclasses import dataclass, field
from pathlib import Path
from typing import Protocol

from tool_testing import DONE, FAILED

# Of metadata that cannot be written anew, which takes nothing away from the backup.
COPIED = "was copied as it is"


@dataclass
class Job:
    """A command that writes to an output, which {} stands for."""

    arguments: tuple[str, ...]
    output: str | None = None
    # Files whose content is not the same in every run.
    changing: tuple[str, ...] = ()
    reference: dict[str, str] = field(default_factory=dict)
    standard_output: bytes = b""


class Run(Protocol):
    """One run of a job."""

    what: str
    result: subprocess.CompletedProcess[bytes]
    leftovers: list[str]
    output: dict[str, str]


def content_below(path: Path, changing: tuple[str, ...] = ()) -> dict[str, str]:
    """Digests of the files below a directory, of the records of a zip, or of the one file."""
    if path.is_dir():
        return content_of_directory(path, changing)
    if path.suffix == ".zip" and path.exists():
        return content_of_zip(path, changing)
    return {path.name: digest(path.read_bytes())} if path.exists() else {}


def content_of_directory(path: Path, changing: tuple[str, ...]) -> dict[str, str]:
    found = {}
    for folder, directories, files in os.walk(path):
        for name in directories:
            with contextlib.suppress(OSError):
                os.chmod(os.path.join(folder, name), 0o700)
        for name in files:
            file = Path(folder) / name
            key = str(file.relative_to(path))
            found[key] = "" if name in changing or file.is_symlink() else digest(file.read_bytes())
    return found


def content_of_zip(path: Path, changing: tuple[str, ...]) -> dict[str, str]:
    try:
        with zipfile.ZipFile(path) as archive:
            return {name: "" if name in changing else digest(archive.read(name)) for name in archive.namelist()}
    except zipfile.BadZipFile as bad:
        return {"(the archive)": str(bad)}


def digest(content: bytes) -> str:
    return hashlib.sha256(content).hexdigest()


def metadata_of(*backups: Path) -> set[tuple[str, str]]:
    """The metadata files of backups with their digests: as such they may be carried over."""
    return {pair for backup in backups for pair in content_below(backup).items() if pair[0].endswith(".plist")}


@functools.cache
def preloaded(library: str) -> str:
    """The library, behind the sanitizer's runtime where the tool has one: that must come first."""
    libraries = subprocess.run(["ldd", os.environ["KELVANE_TOOL"]], capture_output=True, text=True, check=True).stdout
    found = [line.split()[2] for line in libraries.splitlines() if "libasan" in line]
    return " ".join([*found, library])


def judge(test: unittest.TestCase, job: Job, run: Run, metadata: set[tuple[str, str]]) -> str:
    """Whatever failed: no crash, nothing left behind, no file that is partial or missing. Returns the messages."""
    status, messages = run.result.returncode, run.result.stderr.decode(errors="replace")
    test.assertIn(status, (DONE, FAILED), f"{run.what}: {messages}")
    test.assertEqual(run.leftovers, [], run.what)
    output = dict(run.output)
    if COPIED in messages:
        output |= {name: job.reference[name] for name, content in output.items() if (name, content) in metadata}
    for name, content in output.items():
        test.assertEqual(content, job.reference.get(name), f"{run.what}: {name} is partial; {messages}")
    if status == DONE:
        test.assertEqual(output, job.reference, f"{run.what}: something is missing; {messages}")
        test.assertEqual(run.result.stdout, job.standard_output, run.what)
    return messages
