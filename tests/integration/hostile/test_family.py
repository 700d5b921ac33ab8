"""One family of hostile backups: every command on every case, as root and as an ordinary user.

    test_family.py KELVANE FAMILY [unittest arguments]

Nothing outside the output is made, changed or removed; nothing that lies outside the backup gets into the output; there
is no crash, no hang, no use of memory without bounds; what fails is told. KELVANE_SANITIZED says that the tool was built
with sanitizers, which need more memory and time: some commands do then, as one user. KELVANE_ALL_HOSTILE, when set, runs
all of them, on the heavy cases too.
"""

from __future__ import annotations

import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import unittest
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any

sys.path[:0] = [str(Path(__file__).resolve().parents[1]), str(Path(__file__).resolve().parents[2] / "tools")]
from hostile_backups.families import FAMILIES  # noqa: E402
from hostile_backups.model import Case, Place, SECRET  # noqa: E402

DONE, FAILED, PASSWORD_PROBLEM = 0, 1, 3
COMMANDS = ("info", "ls", "extract", "verify", "export", "edit", "csv")
# On a heavy case, unless everything is asked for.
HEAVY_COMMANDS = ("info", "extract")
# With sanitizers, whose runs take five times as long: these pass through all that the others do.
SANITIZED_COMMANDS = ("extract", "verify", "edit", "csv")
SANITIZED = "KELVANE_SANITIZED" in os.environ
EVERYTHING = "KELVANE_ALL_HOSTILE" in os.environ
MEMORY = 512 << 20
# Processor time: it does not depend on what else the machine does.
SECONDS = 100 if SANITIZED else 20
# For what waits instead, for the other end of a FIFO.
TIMEOUT = 5 * SECONDS
# How deep the output may be nested: what tools that walk trees bear.
LEVELS = 1024
NOBODY = 65534
RAW_CONTROLS = re.compile("[\x00-\x09\x0b-\x1f\x7f-\x9f]")
CRASHES = ("terminate called", "Sanitizer", "runtime error:", "Assertion", "std::", "CFRelease", "CFRetain")
# Files up to here are compared by content as well.
SMALL = 1 << 20
# What is looked at of the tool's output.
SHOWN = 8 << 20


@dataclass(frozen=True)
class User:
    name: str
    identifier: int | None

    def options(self) -> dict[str, Any]:
        if self.identifier is None:
            return {}
        return {"user": self.identifier, "group": self.identifier, "extra_groups": []}


def users() -> list[User]:
    if os.geteuid() != 0:
        return [User("ordinary", None)]
    return [User("root", None), User("ordinary", NOBODY)]


def limits() -> list[str]:
    """The command that sets them, which is quicker than a copy of this process that would do so."""
    words = ["prlimit", f"--cpu={SECONDS}:{SECONDS + 5}", "--core=0:0"]
    if not SANITIZED:  # whose shadow memory alone is larger
        words.append(f"--data={MEMORY}:{MEMORY}")
    return words


def walk(root: Path) -> Iterator[os.DirEntry[str]]:
    """Everything below a directory; in a loop, for there may be thousands of levels."""
    waiting = [str(root)]
    while waiting:
        with os.scandir(waiting.pop()) as entries:
            for entry in entries:
                yield entry
                if entry.is_dir(follow_symlinks=False):
                    waiting.append(entry.path)


def facts(path: str) -> tuple[Any, ...]:
    status = os.lstat(path)
    content: Any = None
    if stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    elif stat.S_ISREG(status.st_mode) and status.st_size <= SMALL:
        with open(path, "rb") as file:
            content = file.read()
    return status.st_ino, status.st_mode, status.st_uid, status.st_size, status.st_mtime_ns, status.st_ctime_ns, content


def remove(path: Path) -> None:
    """Also what is nested too deeply for Python to remove, or may not be looked into."""
    try:
        shutil.rmtree(path)
    except (OSError, RecursionError):
        subprocess.run(["rm", "-rf", "--", str(path)], check=True)


class World:
    """A case and everything around it, in a directory of its own."""

    def __init__(self, root: Path, case: Case) -> None:
        self.root = root
        # A path that no user is kept from.
        root.chmod(0o755)
        self.outside = root / "outside"
        self.outside.mkdir()
        (self.outside / "secret").write_bytes(SECRET)
        for name in ("passwd", "escape.txt"):
            (root / name).write_text(f"bait {name}")
        self.backup = root / ("backup.zip" if case.zipped else "backup")
        self.new = root / "new file"
        self.new.write_text("new content\n")
        self.password = root / "password"
        self.password.write_text("password\n")
        case.make(Place(self.backup, self.outside))
        self.temporary, self.output = root / "temporary", root / "output"
        self.temporary.mkdir()
        self.owner: User | None = None
        self.before: dict[str, Any] = {}

    def prepare(self, user: User) -> None:
        """A fresh output, and for an ordinary user ownership of everything but the secret's directory."""
        self.output.mkdir()
        (self.output / "bait").write_text("bait")
        if self.owner != user:
            self.owner = user
            for path in (self.temporary, self.backup):
                if user.identifier is not None and path.exists() and not path.is_symlink():
                    os.chown(path, user.identifier, user.identifier)
            self.before = self.snapshot()
        if user.identifier is not None:
            os.chown(self.output, user.identifier, user.identifier)

    def snapshot(self) -> dict[str, Any]:
        """All but what is made below the output, where the bait alone stays."""
        found: dict[str, Any] = {}
        for path in self.root.iterdir():
            if path in (self.output, self.temporary):
                continue
            found[str(path)] = facts(str(path))
            if path.is_dir() and not path.is_symlink():
                found |= {entry.path: facts(entry.path) for entry in walk(path)}
        bait = self.output / "bait"
        return found | {"bait": bait.read_text(), "root": sorted(os.listdir(self.root))}


def arguments(command: str, world: World, case: Case, user: User) -> list[str]:
    # Both kinds of target, each with one of the users.
    suffix = ".zip" if user.identifier is not None else ""
    out = str(world.output / "result")
    words = {
        "info": [], "ls": ["--all", "-l"], "extract": ["-o", out], "verify": [], "export": [out + suffix],
        "edit": [out + suffix, "--put", "HomeDomain", "Library/new.txt", str(world.new), "--mkdir", "HomeDomain",
                 "Library/New", "--link", "HomeDomain", "Library/link", "new.txt"],
        "csv": [],
    }[command]
    password = ["--password-file", str(world.password)] if case.password else []
    return [command, str(world.backup), *words, *password]


@dataclass(frozen=True)
class Result:
    status: int
    printed: bytes
    messages: str


class Tool:
    """The tool where another user reaches it too: a copy, for it may have been built in a private directory."""

    def __init__(self, path: Path, folder: Path) -> None:
        folder.chmod(0o755)
        self.path = folder / path.name
        shutil.copy(path, self.path)
        listed = subprocess.run(["ldd", str(path)], capture_output=True, text=True, check=True).stdout
        for line in listed.splitlines():
            words = line.split()
            if words and words[0].startswith("libKelvane"):
                shutil.copy(words[2], folder / words[0])
        self.environment = os.environ | {"LD_LIBRARY_PATH": str(folder), "LC_ALL": "C.UTF-8"}

    def run(self, words: list[str], world: World, user: User) -> Result:
        environment = self.environment | {"TMPDIR": str(world.temporary)}
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as errors:
            with subprocess.Popen([*limits(), str(self.path), *words], env=environment, cwd=world.root, stdin=subprocess.DEVNULL,
                                  stdout=out, stderr=errors, start_new_session=True, **user.options()) as process:
                try:
                    status = process.wait(TIMEOUT)
                except subprocess.TimeoutExpired:
                    process.kill()
                    raise
            out.seek(0)
            errors.seek(0)
            return Result(status, out.read(SHOWN), errors.read(SHOWN).decode("utf-8", "surrogateescape"))


def commands_for(case: Case) -> tuple[str, ...]:
    if EVERYTHING:
        return COMMANDS
    if case.heavy:
        return HEAVY_COMMANDS
    return SANITIZED_COMMANDS if SANITIZED else COMMANDS


class Family(unittest.TestCase):
    """One test a case of the family."""

    tool: Tool
    family: str

    def check_case(self, name: str) -> None:
        case = FAMILIES[self.family][name]
        if case.heavy and SANITIZED:
            self.skipTest("under sanitizers it takes longer than its limit of time")
        if case.needs_root and os.geteuid() != 0:
            self.skipTest("only root can make it")
        root = Path(tempfile.mkdtemp(prefix="kelvane-hostile-"))
        self.addCleanup(remove, root)
        world = World(root, case)
        for user in users() if EVERYTHING or not (case.heavy or SANITIZED) else users()[-1:]:
            if user.identifier is not None and not self.can_reach(root, user):
                self.skipTest(f"{root} cannot be reached by another user")
            for command in commands_for(case):
                world.prepare(user)
                with self.subTest(f"{self.family}/{name}: {command} as {user.name}"):
                    self.check_command(command, world, case, user)
                remove(world.output)

    @staticmethod
    def can_reach(root: Path, user: User) -> bool:
        return subprocess.run(["test", "-x", str(root)], check=False, **user.options()).returncode == 0

    def check_command(self, command: str, world: World, case: Case, user: User) -> None:
        try:
            result = self.tool.run(arguments(command, world, case, user), world, user)
        finally:
            leftovers = os.listdir(world.temporary)
            for name in leftovers:
                remove(world.temporary / name)
        self.assertEqual(leftovers, [], "left in the temporary directory")
        self.assertEqual(world.snapshot(), world.before)
        self.check_result(command, result, case)
        self.check_output(world, result.printed, command)

    def check_result(self, command: str, result: Result, case: Case) -> None:
        status, messages = result.status, result.messages
        if status < 0:
            self.fail(f"ended by {signal.Signals(-status).name}: {messages[-2000:]}")
        for crash in CRASHES:
            self.assertNotIn(crash, messages)
        self.assertIn(status, (DONE, FAILED, PASSWORD_PROBLEM), messages[:2000])
        controls = RAW_CONTROLS.search(messages)
        self.assertIsNone(controls, repr(messages[:2000]))
        if status != DONE:
            lines = messages.splitlines()
            # `verify` prints what it finds as its result.
            self.assertTrue((lines or command == "verify") and all(line.startswith(("kelvane: ", "  ")) for line in lines), messages[:2000])
            self.assertNotIn(lines, (["kelvane: Unknown Error"], ["kelvane: "]))
        if command in case.status:
            wanted = case.status[command]
            self.assertIn(status, wanted if isinstance(wanted, tuple) else (wanted,), messages[:2000])
            if status == FAILED and case.message:
                told = messages + (result.printed.decode(errors="replace") if command == "verify" else "")
                self.assertTrue(any(text in told for text in case.message), told[:2000])

    def check_output(self, world: World, printed: bytes, command: str) -> None:
        """The secret is nowhere, and there is nothing but the result."""
        self.assertNotIn(SECRET, printed)
        there = {entry.name for entry in os.scandir(world.output)} - {"bait"}
        self.assertLessEqual(there, {"result", "result.zip"} if command in ("extract", "export", "edit") else set())
        for entry in walk(world.output):
            self.assertLess(entry.path.count("/"), LEVELS + len(world.output.parts) + 2, "nested too deeply")
            status = entry.stat(follow_symlinks=False)
            if stat.S_ISREG(status.st_mode) and status.st_size <= SMALL:
                with open(entry.path, "rb") as file:
                    self.assertNotIn(SECRET, file.read(), entry.path)
            self.assertTrue(stat.S_IFMT(status.st_mode) in (stat.S_IFREG, stat.S_IFDIR, stat.S_IFLNK), entry.path)
            self.assertEqual(status.st_mode & (stat.S_ISUID | stat.S_ISGID), 0, entry.path)


def main() -> None:
    if len(sys.argv) < 3 or sys.argv[2] not in FAMILIES:
        sys.exit(f"usage: {sys.argv[0]} KELVANE {'|'.join(FAMILIES)} [unittest arguments]")
    path, Family.family = Path(sys.argv.pop(1)).resolve(), sys.argv.pop(1)
    for name in FAMILIES[Family.family]:
        setattr(Family, f"test_{name}", lambda self, name=name: self.check_case(name))
    with tempfile.TemporaryDirectory() as folder:
        Family.tool = Tool(path, Path(folder))
        unittest.main(exit=True)


if __name__ == "__main__":
    main()
