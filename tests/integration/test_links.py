"""Links in a backup directory: nothing is read over them unless that is asked for."""

from __future__ import annotations

import ctypes
import errno
import json
import os
import shutil
import struct
import unittest
from collections.abc import Callable
from pathlib import Path
from typing import Any

from tool_testing import DONE, FAILED, ToolTest, entries_of, main, make, run, snapshot

DOMAIN = "AppDomain-com.example.notes"
WELCOME = "Documents/Welcome.txt"
SECRET = b"what the owner of the machine keeps to himself\n"
REFUSED = ("Invalid backup: Unsafe stored file name ({}) (code 10)",
           f"It is reached over a symbolic link, which is not followed (NSPOSIXErrorDomain {errno.ELOOP})")


def without_openat2(number: int) -> Callable[[], None]:
    """What a child does before it becomes the tool: the kernel then answers the call with the error."""
    system_call, pr_set_seccomp, pr_set_no_new_privileges = 437, 22, 38
    program = b"".join(struct.pack("HBBI", *step) for step in (
        (0x20, 0, 0, 0),  # load the number of the call
        (0x15, 0, 1, system_call),
        (0x06, 0, 0, 0x00050000 | number),  # fail
        (0x06, 0, 0, 0x7FFF0000)))  # allow

    def restrict() -> None:
        libc = ctypes.CDLL(None, use_errno=True)
        buffer = ctypes.create_string_buffer(program)
        header = ctypes.create_string_buffer(struct.pack("HP", 4, ctypes.addressof(buffer)))
        if libc.prctl(pr_set_no_new_privileges, 1, 0, 0, 0) or libc.prctl(pr_set_seccomp, 2, header, 0, 0):
            os._exit(77)

    return restrict


class LinkTest(ToolTest):
    options: dict[str, Any] = {}

    def setUp(self) -> None:
        super().setUp()
        self.path = make(self.folder / "backup", "--tree", "small")
        self.entry = next(entry for entry in entries_of(self.path) if entry["path"] == WELCOME)
        identifier = self.entry["fileID"]
        self.name = f"{identifier[:2]}/{identifier}"
        self.stored = self.path / self.name
        self.secret = self.folder / "secret"
        self.secret.mkdir()

    def link_file(self) -> None:
        """A link to what only the user may read stands in the place of a stored file."""
        target = self.secret / "file"
        target.write_bytes(SECRET.ljust(self.stored.stat().st_size)[:self.stored.stat().st_size])
        target.chmod(0o600)
        self.stored.unlink()
        self.stored.symlink_to(target)

    def link_folder(self) -> None:
        shutil.move(self.stored.parent, self.secret / self.stored.parent.name)
        self.stored.parent.symlink_to(self.secret / self.stored.parent.name)

    def keep_elsewhere(self, name: str) -> None:
        shutil.move(self.path / name, self.secret / name)
        (self.path / name).symlink_to(self.secret / name)

    def run_tool(self, *arguments: str | Path) -> tuple[int, bytes, list[str]]:
        result = run(*arguments, **self.options)
        return result.returncode, result.stdout, result.stderr.decode().splitlines()

    def assert_refusal(self, lines: list[str], name: str) -> None:
        for cause in REFUSED:
            self.assertIn("  caused by: " + cause.format(name), lines)

    def verify(self, *options: str, status: int) -> list[tuple[str, str, str]]:
        """Severity and kind of each problem, and what it is about."""
        code, output, errors = self.run_tool("verify", "--json", self.path, *options)
        self.assertEqual((code, errors), (status, []), output)
        *problems, _ = map(json.loads, output.splitlines())
        return [(one["severity"], one["kind"], one.get("path", one.get("storedName"))) for one in problems]


class StoredFile(LinkTest):
    def test_is_not_extracted(self) -> None:
        self.link_file()
        status, _, lines = self.run_tool("extract", self.path, "-o", self.output)
        self.assertEqual(status, FAILED)
        self.assert_refusal(lines, self.name)
        self.assertFalse((self.output / DOMAIN / WELCOME).exists())
        total = len(entries_of(self.path))
        self.assertEqual(lines[-1], f"kelvane: {total - 1} of {total} entries extracted, 1 failed")
        self.assert_no_leftovers()

    def test_is_not_printed(self) -> None:
        self.link_file()
        status, output, lines = self.run_tool("cat", self.path, DOMAIN, WELCOME)
        self.assertEqual((status, output), (FAILED, b""))
        self.assert_refusal(lines, self.name)

    def test_is_not_exported(self) -> None:
        self.link_file()
        for number, command in enumerate((("export",), ("edit", "--mkdir", DOMAIN, "New"))):
            target = self.folder / f"out{number}"
            status, _, lines = self.run_tool(command[0], self.path, target, *command[1:])
            self.assertEqual(status, FAILED)
            self.assert_refusal(lines, self.name)
            self.assertFalse((target / self.name).exists())
            self.assertTrue((target / "Manifest.db").exists())

    def test_is_named_by_verify(self) -> None:
        self.link_file()
        self.assertEqual(self.verify(status=FAILED), [("problem", "linked-content", WELCOME),
                                                      ("warning", "irregular-file", self.name)])

    def test_within_the_backup_is_not_extracted_either(self) -> None:
        self.stored.unlink()
        self.stored.symlink_to("../Info.plist")
        self.assertEqual(self.run_tool("extract", self.path, "-o", self.output)[0], FAILED)
        self.assertFalse((self.output / DOMAIN / WELCOME).exists())

    def test_under_a_second_hard_name_is_read(self) -> None:
        os.link(self.stored, self.secret / "hard")
        self.assertEqual(self.run_tool("extract", self.path, "-o", self.output)[0], DONE)


class Folder(LinkTest):
    def setUp(self) -> None:
        super().setUp()
        self.link_folder()

    def test_is_not_entered(self) -> None:
        status, _, lines = self.run_tool("extract", self.path, "-o", self.output)
        self.assertEqual(status, FAILED)
        self.assert_refusal(lines, self.name)
        self.assertFalse((self.output / DOMAIN / WELCOME).exists())
        status, output, lines = self.run_tool("cat", self.path, DOMAIN, WELCOME)
        self.assertEqual((status, output), (FAILED, b""))
        self.assert_refusal(lines, self.name)

    def test_is_named_by_verify(self) -> None:
        found = self.verify(status=FAILED)
        self.assertIn(("problem", "linked-content", WELCOME), found)
        self.assertEqual(found[-1], ("warning", "irregular-file", self.stored.parent.name))
        self.assertEqual({kind for _, kind, _ in found}, {"linked-content", "irregular-file"})

    def test_of_a_name_that_no_entry_uses_is_a_stray(self) -> None:
        (self.path / "zz").symlink_to(self.secret)
        self.assertIn(("problem", "stray-file", "zz"), self.verify(status=FAILED))


class Metadata(LinkTest):
    COMMANDS = (("info",), ("ls", "--all"), ("verify",), ("csv",))

    def test_is_not_read(self) -> None:
        for name in ("Manifest.plist", "Info.plist", "Status.plist", "Manifest.db"):
            path = make(self.folder / f"with {name}", "--tree", "small")
            (path / name).rename(self.secret / name)
            (path / name).symlink_to(self.secret / name)
            for words in self.COMMANDS:
                status, output, lines = self.run_tool(*words, path)
                self.assertEqual((status, output), (FAILED, b""), (name, words))
                text = "\n".join(lines)
                for cause in REFUSED:
                    self.assertIn(cause.format(name), text)

    def test_of_the_binary_kind_is_not_read(self) -> None:
        path = make(self.folder / "binary", "--tree", "small", "--version", "2.4")
        (path / "Manifest.mbdb").rename(self.secret / "Manifest.mbdb")
        (path / "Manifest.mbdb").symlink_to(self.secret / "Manifest.mbdb")
        status, _, lines = self.run_tool("info", path)
        self.assertEqual(status, FAILED)
        self.assert_refusal(lines, "Manifest.mbdb")
        self.succeed("info", path, "--follow-links")


class Following(LinkTest):
    def test_gives_every_command_the_whole_backup(self) -> None:
        self.assertEqual(run("export", self.path, self.folder / "before").returncode, DONE)
        self.link_folder()
        for name in ("Manifest.plist", "Info.plist", "Status.plist", "Manifest.db"):
            self.keep_elsewhere(name)
        for words in (("info",), ("ls", "--all"), ("cat",), ("csv",)):
            rest = (DOMAIN, WELCOME) if words == ("cat",) else ()
            self.succeed(*words, self.path, *rest, "--follow-links")
        self.assertEqual(self.verify("--follow-links", status=DONE), [])
        self.assertEqual(run("extract", self.path, "-o", self.output, "--follow-links").returncode, DONE)
        self.assert_extracted(self.entry)
        self.assertEqual(run("export", self.path, self.folder / "after", "--follow-links").returncode, DONE)
        before, after = (self.contents(self.folder / name) for name in ("before", "after"))
        self.assertEqual(before, after)
        self.assertEqual(run("edit", self.path, self.folder / "edited", "--rm", DOMAIN, WELCOME,
                             "--follow-links").returncode, DONE)

    @staticmethod
    def contents(root: Path) -> dict[str, Any]:
        return {name: facts[2] for name, facts in snapshot(root).items() if name != "Manifest.db"}

    def test_is_not_needed_for_the_backup_itself(self) -> None:
        link = self.folder / "link"
        link.symlink_to(self.path)
        self.assertEqual(run("extract", link, "-o", self.output).returncode, DONE)
        self.assert_extracted(self.entry)


class WithoutTheCall(LinkTest):
    """The same where the kernel lacks openat2, and in a sandbox that refuses it."""

    def each_way(self) -> list[int]:
        self.options = {"preexec_fn": without_openat2(errno.ENOSYS)}
        if self.run_tool("--version")[0] != DONE:
            raise unittest.SkipTest("system calls cannot be filtered here")
        return [errno.ENOSYS, errno.EPERM]

    def test_what_lies_in_the_backup_is_read(self) -> None:
        for number in self.each_way():
            self.options = {"preexec_fn": without_openat2(number)}
            self.assertEqual(self.verify(status=DONE), [])

    def test_links_are_refused(self) -> None:
        ways = self.each_way()
        self.link_file()
        for number in ways:
            self.options = {"preexec_fn": without_openat2(number)}
            status, output, lines = self.run_tool("cat", self.path, DOMAIN, WELCOME)
            self.assertEqual((status, output), (FAILED, b""))
            self.assert_refusal(lines, self.name)

    def test_folders_that_are_links_are_refused(self) -> None:
        ways = self.each_way()
        self.link_folder()
        for number in ways:
            self.options = {"preexec_fn": without_openat2(number)}
            self.assert_refusal(self.run_tool("cat", self.path, DOMAIN, WELCOME)[2], self.name)


if __name__ == "__main__":
    main()
