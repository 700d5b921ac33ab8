"""What the end-to-end tests of the tool share: running it, backups for it, and trees of files to compare.

Each test_*.py is a program: `/usr/bin/python3 -B test_NAME.py KELVANE [unittest arguments]`.
"""

from __future__ import annotations

import contextlib
import functools
import hashlib
import json
import os
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest
from collections.abc import Iterator
from pathlib import Path
from typing import Any
from unittest import mock

from terminal import NO_TERMINAL

ROOT = Path(__file__).resolve().parents[2]
SAMPLES = ROOT / "samples"
sys.path.insert(0, str(ROOT / "tests" / "tools"))
import make_backup  # noqa: E402

PASSWORD = "p\u00e4ssword with blanks"
# A device's counts take seconds.
QUICK = ("--iterations", "10", "--dp-iterations", "20")
DONE, FAILED, USAGE, PASSWORD_PROBLEM = 0, 1, 2, 3
# Of a test program; what CMakeLists.txt tells CTest.
SKIPPED = 77
# A hanging tool fails its test instead of holding everything up.
TIMEOUT = 60

SHARED = tempfile.TemporaryDirectory()
shared = Path(SHARED.name)
# As other users see it, for what is run as one of them.
shared.chmod(0o755)
password_file = shared / "password"
password_file.write_text(PASSWORD + "\nnot the password\n", encoding="utf-8")
WITH_PASSWORD = ("--password-file", str(password_file))
ENCRYPTED = ("--encrypted", *WITH_PASSWORD, *QUICK)


def tool_path() -> str:
    return os.environ["KELVANE_TOOL"]


def main() -> None:
    """Takes the tool's path from the command line and runs the tests of the program.

    When some could not be tried, and none failed, the exit status says so, for CTest shows nothing else.
    """
    if len(sys.argv) < 2:
        sys.exit(f"usage: {sys.argv[0]} KELVANE [unittest arguments]")
    os.environ["KELVANE_TOOL"] = os.path.abspath(sys.argv.pop(1))
    result = unittest.main(exit=False).result
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(SKIPPED if any(reason.startswith(NO_TERMINAL) for _, reason in result.skipped) else 0)


@functools.cache
def backup(*options: str) -> Path:
    """A backup that the generator makes with the options; one for all tests of a program, so not to be changed."""
    name = hashlib.sha256(repr(options).encode()).hexdigest()[:12]
    return make(shared / (name + (".zip" if "--zip" in options else "")), *options)


def make(path: Path, *options: str) -> Path:
    with mock.patch.object(sys, "argv", ["make_backup.py", str(path), *options]):
        status = make_backup.main()
    if status:
        raise RuntimeError(f"make_backup.py {options} failed")
    return path


def expectations(path: Path) -> dict[str, Any]:
    file = path.with_name(path.name.removesuffix(".zip") + ".expectations.json")
    return json.loads(file.read_text(encoding="ascii"))


def entries_of(path: Path, kind: str | None = None) -> list[dict[str, Any]]:
    return [entry for entry in expectations(path)["entries"] if kind in (None, entry["type"])]


def command(*arguments: str | Path) -> list[str]:
    return [tool_path(), *map(str, arguments)]


def run(*arguments: str | Path, **options: Any) -> subprocess.CompletedProcess[bytes]:
    """Runs the tool without a terminal and without standard input, unless the options say otherwise."""
    if "input" not in options:
        options.setdefault("stdin", subprocess.DEVNULL)
    options.setdefault("stdout", subprocess.PIPE)
    options.setdefault("stderr", subprocess.PIPE)
    # No controlling terminal: the tests may run in somebody's shell.
    options.setdefault("start_new_session", True)
    return subprocess.run(command(*arguments), check=False, timeout=TIMEOUT, **options)


def content_of(path: Path) -> str:
    return hashlib.sha256(path.read_bytes()).hexdigest()


def snapshot(root: Path) -> dict[str, tuple[Any, ...]]:
    """What lies below a directory, itself included: type and mode, time, and content or target."""
    found = {".": describe(root)}
    for folder, directories, files in os.walk(root):
        for name in (*directories, *files):
            path = Path(folder) / name
            found[str(path.relative_to(root))] = describe(path)
    return found


def describe(path: Path) -> tuple[Any, ...]:
    status = path.lstat()
    content: Any = None
    if stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    elif stat.S_ISREG(status.st_mode):
        content = content_of(path)
    return status.st_mode, status.st_mtime_ns, content


class ToolTest(unittest.TestCase):
    """A test with a directory of its own and verbs for running the tool."""

    maxDiff = 2000

    def setUp(self) -> None:
        self.folder = Path(tempfile.mkdtemp())
        self.addCleanup(remove_tree, self.folder)
        # A place for temporary files of the test's own, so that leftovers show.
        self.temporary = self.folder / "temporary"
        self.temporary.mkdir()
        patch = mock.patch.dict(os.environ, {"TMPDIR": str(self.temporary)})
        patch.start()
        self.addCleanup(patch.stop)
        self.output = self.folder / "output"

    def succeed(self, *arguments: str | Path, **options: Any) -> bytes:
        """Runs the tool, which must succeed without a word on standard error; gives its output."""
        result = run(*arguments, **options)
        self.assertEqual((result.returncode, result.stderr), (DONE, b""))
        return result.stdout

    def fail_with(self, status: int, *arguments: str | Path, **options: Any) -> list[str]:
        """Runs the tool, which must end with the status and say nothing on standard output; gives its messages."""
        result = run(*arguments, **options)
        self.assertEqual((result.returncode, result.stdout), (status, b""), result.stderr)
        return result.stderr.decode().splitlines()

    def extract(self, *arguments: str | Path, status: int = DONE) -> list[str]:
        return self.fail_with(status, "extract", *arguments, "-o", self.output)

    def extracted(self, entry: dict[str, Any]) -> Path:
        return self.output / entry["domain"] / entry["path"]

    def assert_extracted(self, entry: dict[str, Any]) -> None:
        path, wanted = self.extracted(entry), entry["mode"]
        status = path.lstat()
        self.assertEqual(stat.S_IFMT(status.st_mode), stat.S_IFMT(wanted), entry)
        self.assertEqual(status.st_mtime_ns, entry["modified"] * 10**9, entry)
        if entry["type"] == "symlink":
            self.assertEqual(os.readlink(path), entry["target"])
            return
        self.assertEqual(stat.S_IMODE(status.st_mode), wanted & 0o777, entry)
        if entry["type"] == "file":
            self.assertEqual(content_of(path), entry["sha256"], entry)

    def assert_extracted_exactly(self, entries: list[dict[str, Any]]) -> None:
        """These entries came out and nothing else did, but for the directories that they need."""
        for entry in entries:
            self.assert_extracted(entry)
        wanted = {os.path.join(entry["domain"], entry["path"]).rstrip("/") for entry in entries}
        wanted |= {parent for name in list(wanted) for parent in parents(name)}
        self.assertEqual(set(snapshot(self.output)), wanted | {"."})

    def assert_no_leftovers(self) -> None:
        # A sanitizer that is interrupted while it starts leaves a file of its own.
        self.assertEqual([name for name in os.listdir(self.temporary) if not name.startswith("tsan.")], [])


def parents(name: str) -> Iterator[str]:
    while name := os.path.dirname(name):
        yield name


def remove_tree(path: Path) -> None:
    """Also when directories in it may not be read or changed."""
    for folder, directories, _ in os.walk(path):
        for name in directories:
            directory = Path(folder) / name
            if not directory.is_symlink():
                with contextlib.suppress(OSError):
                    directory.chmod(0o700)
    shutil.rmtree(path)
