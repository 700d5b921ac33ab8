"""Where the password comes from, and what happens without the right one."""

from __future__ import annotations

import contextlib
import json
import os
import plistlib
import signal
import subprocess
from pathlib import Path

from terminal import Terminal
from tool_testing import DONE, ENCRYPTED, FAILED, PASSWORD, PASSWORD_PROBLEM, ToolTest, WITH_PASSWORD, backup, \
    command, entries_of, main, make, password_file, run

REQUIRED = "kelvane: Backup is encrypted and no password specified (code 19)"
NOT_ENCRYPTED = "kelvane: A password was specified but backup is not encrypted. (code 23)"
PROMPT = rb"Backup password: "
# A second or so, in which the process can be looked at.
SLOW = ("--iterations", "10", "--dp-iterations", "1000000")


def encrypted(*options: str) -> Path:
    return backup("--tree", "small", *ENCRYPTED, *options)


class FromAFile(ToolTest):
    def write(self, content: bytes) -> str:
        path = self.folder / "password"
        path.write_bytes(content)
        return str(path)

    def assert_opens(self, *options: str, **more: object) -> None:
        self.assertEqual(json.loads(self.succeed("info", encrypted(), "--json", *options, **more))["encrypted"], True)

    def assert_wrong(self, content: bytes) -> None:
        messages = self.fail_with(PASSWORD_PROBLEM, "info", encrypted(), "--password-file", self.write(content))
        self.assertRegex(messages[0], r"^kelvane: An error occurred preventing the encrypted backup from being"
                                      r" unlocked: Failed to unlock a key \(class \d+\) \(code 22\)$")
        self.assertEqual(messages[1], "  caused by: Backup is encrypted and the specified password appears to be"
                                      " incorrect: Key unwrap failed (code 21)")

    def test_is_its_first_line(self) -> None:
        self.assert_opens("--password-file", str(password_file))

    def test_may_lack_the_line_end(self) -> None:
        self.assert_opens("--password-file", self.write(PASSWORD.encode()))

    def test_may_end_the_line_as_windows_does(self) -> None:
        self.assert_opens("--password-file", self.write(PASSWORD.encode() + b"\r\nmore"))

    def test_may_be_given_with_an_equals_sign(self) -> None:
        self.assert_opens(f"--password-file={password_file}")

    def test_may_be_standard_input(self) -> None:
        self.assert_opens("--password-file", "-", input=PASSWORD.encode() + b"\nmore")
        self.assert_opens("--password-file=-", input=PASSWORD.encode())

    def test_takes_no_more_than_the_line_from_standard_input(self) -> None:
        reading, writing = os.pipe()
        os.write(writing, PASSWORD.encode() + b"\nthe rest")
        os.close(writing)
        with os.fdopen(reading, "rb") as stream:
            self.assert_opens("--password-file", "-", stdin=stream)
            self.assertEqual(stream.read(), b"the rest")

    def test_may_be_a_pipe(self) -> None:
        reading, writing = os.pipe()
        os.write(writing, PASSWORD.encode())
        os.close(writing)
        self.assert_opens("--password-file", f"/dev/fd/{reading}", pass_fds=(reading,))
        os.close(reading)

    def test_that_is_wrong(self) -> None:
        self.assert_wrong(b"wrong\n")
        self.assert_wrong(PASSWORD.encode() + b" \n")
        self.assert_wrong(b" \n")
        self.assert_no_leftovers()

    def test_that_is_empty_is_missing(self) -> None:
        for content in (b"", b"\n", b"\n" + PASSWORD.encode()):
            with self.subTest(content):
                self.assertEqual(self.fail_with(PASSWORD_PROBLEM, "info", encrypted(), "--password-file",
                                                self.write(content)), [REQUIRED])

    def test_that_is_no_text(self) -> None:
        self.assertEqual(self.fail_with(PASSWORD_PROBLEM, "info", encrypted(), "--password-file",
                                        self.write(b"\xff\xfe\n")), ["kelvane: The password is not UTF-8 text"])

    def test_that_is_endless(self) -> None:
        self.assertEqual(self.fail_with(PASSWORD_PROBLEM, "info", encrypted(), "--password-file", "/dev/zero"),
                         ["kelvane: The password is too long"])

    def test_that_is_missing_or_a_directory(self) -> None:
        missing = self.folder / "missing"
        self.assertEqual(self.fail_with(FAILED, "info", encrypted(), "--password-file", missing), [
            f"kelvane: The password file '{missing}' could not be opened",
            "  caused by: No such file or directory (NSPOSIXErrorDomain 2)"])
        self.assertEqual(self.fail_with(FAILED, "info", encrypted(), "--password-file", self.folder)[0],
                         "kelvane: The password could not be read")

    def test_given_for_a_plain_backup(self) -> None:
        for options in ((), ("--version", "2.4"), ("--zip",)):
            with self.subTest(options):
                self.assertEqual(self.fail_with(PASSWORD_PROBLEM, "info", backup("--tree", "small", *options),
                                                *WITH_PASSWORD), [NOT_ENCRYPTED])

    def test_that_is_empty_opens_a_plain_backup(self) -> None:
        self.succeed("info", backup("--tree", "small"), "--password-file", self.write(b"\n"))

    def test_is_checked_before_the_version_is_refused(self) -> None:
        for version in ("3.0", "3.1"):
            path = encrypted("--version", version)
            self.assertEqual(self.fail_with(FAILED, "info", path, *WITH_PASSWORD), [
                "kelvane: Encrypted backups are not supported: Encrypted backups are not supported for manifest"
                f" version '{version}' (code 15)"])
            self.fail_with(PASSWORD_PROBLEM, "info", path, "--password-file", self.write(b"wrong"))

    def test_that_is_wrong_makes_no_directory(self) -> None:
        self.extract(encrypted(), "--password-file", self.write(b"wrong"), status=PASSWORD_PROBLEM)
        self.assertFalse(self.output.exists())

    def test_that_lacks_for_one_file_is_an_ordinary_failure(self) -> None:
        path = encrypted("--device-bound", "--device-bound-files", "1")
        locked = next(entry for entry in entries_of(path) if entry["damaged"])
        messages = self.fail_with(FAILED, "cat", path, locked["domain"], locked["path"], *WITH_PASSWORD)
        self.assertRegex(messages[-1], r"^  caused by: .*: Missing key class \d+ \(code \d+\)$")


class WithoutATerminal(ToolTest):
    def test_is_missing(self) -> None:
        for path in (encrypted(), encrypted("--zip")):
            self.assertEqual(self.fail_with(PASSWORD_PROBLEM, "info", path), [
                "kelvane: there is no terminal to ask for the password; see --password-file", REQUIRED])

    def test_is_not_taken_from_standard_input_unasked(self) -> None:
        self.fail_with(PASSWORD_PROBLEM, "info", encrypted(), input=PASSWORD.encode() + b"\n")

    def test_is_no_argument_or_variable(self) -> None:
        text = self.succeed("--help") + b"".join(
            self.succeed(name, "--help") for name in ("info", "ls", "cat", "extract"))
        self.assertNotRegex(text, rb"--password(?!-file)")
        result = run("info", encrypted(), env=os.environ | {
            name: PASSWORD for name in ("PASSWORD", "KELVANE_PASSWORD", "BACKUP_PASSWORD")})
        self.assertEqual(result.returncode, PASSWORD_PROBLEM)


class OnATerminal(ToolTest):
    def ask(self, path: Path | None = None) -> Terminal:
        # Only the controlling terminal: standard input may be something else.
        terminal = Terminal(command("ls", path or encrypted(), "--json"), streams=(2,))
        self.addCleanup(terminal.__exit__)
        terminal.wait_for(PROMPT)
        terminal.wait_without_echo()
        return terminal

    def test_is_asked_without_echo(self) -> None:
        terminal = self.ask()
        terminal.type(PASSWORD.encode() + b"\n")
        self.assertEqual(terminal.finish(), DONE)
        self.assertEqual(terminal.shown, b"Backup password: \r\n")
        self.assertTrue(terminal.echoes())

    def test_is_asked_once_and_may_be_wrong(self) -> None:
        terminal = self.ask()
        terminal.type(b"not the right one\n")
        self.assertEqual(terminal.finish(), PASSWORD_PROBLEM)
        self.assertEqual(terminal.shown.count(b"Backup password: "), 1)
        self.assertIn(b"appears to be incorrect: Key unwrap failed (code 21)\r\n", terminal.shown)
        self.assertNotIn(b"not the right one", terminal.shown)
        self.assertTrue(terminal.echoes())

    def test_that_is_not_given(self) -> None:
        for typed in (b"\n", b"\x04"):
            with self.subTest(typed):
                terminal = self.ask()
                terminal.type(typed)
                self.assertEqual(terminal.finish(), PASSWORD_PROBLEM)
                self.assertIn(REQUIRED.encode(), terminal.shown)

    def test_is_not_asked_for_a_plain_backup(self) -> None:
        with Terminal(command("ls", backup("--tree", "small"))) as terminal:
            self.assertEqual(terminal.finish(), DONE)
            self.assertNotIn(b"assword", terminal.shown)

    def test_echoes_again_after_a_signal(self) -> None:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                terminal = self.ask()
                terminal.process.send_signal(number)
                self.assertEqual(terminal.finish(), -number)
                self.assertTrue(terminal.echoes())
                self.assert_no_leftovers()

    def test_echoes_again_after_control_c(self) -> None:
        terminal = self.ask()
        terminal.type(b"half a pass\x03")
        self.assertEqual(terminal.finish(), -signal.SIGINT)
        self.assertTrue(terminal.echoes())
        self.assert_no_leftovers()

    def test_does_not_show_in_the_process_list(self) -> None:
        terminal = self.ask(backup("--tree", "small", "--encrypted", *WITH_PASSWORD, *SLOW))
        terminal.type(PASSWORD.encode() + b"\n")
        process, seen = Path(f"/proc/{terminal.process.pid}"), b""
        for _ in range(20):
            terminal.read(0.01)
            for name in ("cmdline", "environ"):
                with contextlib.suppress(OSError):  # it has ended
                    seen += (process / name).read_bytes()
        self.assertIn(b"kelvane\0ls\0", seen)
        self.assertIn(b"TMPDIR=", seen)
        self.assertNotIn(PASSWORD.encode(), seen)
        self.assertEqual(terminal.finish(), DONE)


class Slow(ToolTest):
    """A key derivation that takes minutes."""

    NOTICE = "kelvane: The password is being checked: 999,999,998 iterations, this takes minutes"

    def source(self) -> Path:
        path = make(self.folder / "slow", "--tree", "small", *ENCRYPTED)
        plist = plistlib.loads((path / "Manifest.plist").read_bytes())
        bag = plist["BackupKeyBag"]
        for tag, count in ((b"DPIC", 999_999_000), (b"ITER", 998)):
            place = bag.index(tag) + 8
            bag = bag[:place] + count.to_bytes(4, "big") + bag[place + 4:]
        plist["BackupKeyBag"] = bag
        (path / "Manifest.plist").write_bytes(plistlib.dumps(plist))
        return path

    def test_is_told_of_and_ends_by_a_signal(self) -> None:
        with subprocess.Popen(command("info", self.source(), *WITH_PASSWORD), stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True) as process:
            assert process.stderr
            self.assertEqual(process.stderr.readline().rstrip("\n"), self.NOTICE)
            process.send_signal(signal.SIGINT)
            self.assertEqual(process.communicate(), ("", ""))
            self.assertEqual(process.returncode, -signal.SIGINT)
        self.assert_no_leftovers()

    def test_shows_its_progress_on_a_terminal(self) -> None:
        with Terminal(command("info", self.source(), *WITH_PASSWORD)) as terminal:
            terminal.wait_for(self.NOTICE.encode() + rb"\r\n\r\d+ %, [\d:]+( s)? left\x1b\[K")
            terminal.type(b"\x03")
            self.assertEqual(terminal.finish(), -signal.SIGINT)
        self.assert_no_leftovers()

    def test_of_an_ordinary_backup_is_silent(self) -> None:
        self.assertEqual(run("info", encrypted(*SLOW), *WITH_PASSWORD).stderr, b"")


if __name__ == "__main__":
    main()
