"""The temporary directory: private, and gone however the tool ends; and what signals leave behind."""

from __future__ import annotations

import contextlib
import os
import signal
import stat
from pathlib import Path
from subprocess import Popen

from running import DEADLINE, SLOW, TemporaryTest, below, partial_files, wait_until
from tool_testing import ENCRYPTED, FAILED, PASSWORD_PROBLEM, WITH_PASSWORD, backup, entries_of, main, make

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGXCPU)


class Place(TemporaryTest):
    def assert_private_directory_in(self, parent: Path) -> None:
        wait_until(lambda: os.listdir(parent), "a temporary directory")
        [name] = os.listdir(parent)
        status = (parent / name).stat()
        self.assertTrue(stat.S_ISDIR(status.st_mode))
        self.assertEqual(stat.S_IMODE(status.st_mode), 0o700)
        self.assertEqual(status.st_uid, os.geteuid())

    def test_is_in_the_environments_directory(self) -> None:
        process = self.start_and_hold()
        self.assert_private_directory_in(self.temporary)
        process.communicate(b"wrong\n")
        self.assertEqual(process.returncode, PASSWORD_PROBLEM)
        self.assert_no_leftovers()

    def test_is_in_the_directory_that_is_named(self) -> None:
        (other := self.folder / "other").mkdir()
        process = self.start_and_hold("--temp", other)
        self.assert_private_directory_in(other)
        self.assert_no_leftovers()
        process.communicate(b"wrong\n")
        self.assertEqual(os.listdir(other), [])

    def test_may_be_relative(self) -> None:
        (self.folder / "a" / "b").mkdir(parents=True)
        path = backup("--tree", "small", *ENCRYPTED, "--zip")
        self.succeed("ls", path, *WITH_PASSWORD, "--temp", "./a/../a/b", cwd=self.folder)
        self.assertEqual(os.listdir(self.folder / "a" / "b"), [])

    def test_is_used_whatever_its_name(self) -> None:
        (other := self.folder / "n\u00e4me with\nodd \"characters\"").mkdir()
        self.succeed("ls", backup("--tree", "small", *ENCRYPTED), *WITH_PASSWORD, "--temp", other)
        self.assertEqual(os.listdir(other), [])

    def test_must_exist(self) -> None:
        for arguments, environment in ((("--temp", self.folder / "no"), {}), ((), {"TMPDIR": str(self.folder / "no")})):
            messages = self.fail_with(FAILED, "ls", backup("--tree", "small"), *arguments,
                                      env=os.environ | environment)
            self.assertEqual(messages[0], f"kelvane: No temporary directory could be made in '{self.folder}/no'")
        self.assertFalse((self.folder / "no").exists())

    def test_keeps_everything_private(self) -> None:
        # Stopped in the middle of a large file, with the database and an unpacked file in place.
        path = backup("--tree", "none", "--size-of-one", "30000000", "--zip", *ENCRYPTED)
        os.umask(0)
        self.addCleanup(os.umask, 0o022)
        process = self.start("extract", path, *WITH_PASSWORD, "-o", self.output)
        wait_until(lambda: partial_files(self.output), "a file that is being written", pause=0.0005)
        process.send_signal(signal.SIGSTOP)
        found = list(below(self.temporary))
        self.assertGreater(len(found), 3)
        for item in found:
            wanted = 0o700 if item.is_dir() else 0o600
            self.assertEqual(stat.S_IMODE(item.stat().st_mode), wanted, item)


class Leftovers(TemporaryTest):
    def test_are_none_after_success(self) -> None:
        for options in ((), ("--zip",), ENCRYPTED, (*ENCRYPTED, "--zip"), ("--version", "2.4", "--zip")):
            path = backup("--tree", "small", *options)
            password = WITH_PASSWORD if "--encrypted" in options else ()
            self.succeed("ls", path, *password)
            self.output = self.folder / path.name
            self.extract(path, *password)
            self.assert_no_leftovers()

    def test_are_none_after_failure(self) -> None:
        path = backup("--tree", "small", "--zip", "--hostile", "stored-missing")
        self.extract(path, status=FAILED)
        self.assert_no_leftovers()
        self.fail_with(FAILED, "ls", path, "no such domain")
        self.assert_no_leftovers()
        self.fail_with(FAILED, "ls", "/no/such/backup")
        self.assert_no_leftovers()

    def test_of_a_zip_go_with_each_file(self) -> None:
        path = backup("--zip", "--files", "500")
        sizes = [entry["size"] for entry in entries_of(path, "file")]
        largest = max(sizes)
        self.assertGreater(sum(sizes), 10 * largest)
        process = self.start("extract", path, "-o", self.output)
        most = 0
        while process.poll() is None:
            # The database is larger than any file, and stays.
            found = [size for size in map(size_of, below(self.temporary)) if size <= largest]
            most = max(most, sum(found))
        self.assertEqual(process.returncode, 0)
        # Directories have sizes too.
        self.assertLess(most, 2 * largest)


def size_of(path: Path) -> int:
    """0 for what is gone already."""
    with contextlib.suppress(FileNotFoundError):
        return path.stat().st_size
    return 0


class Interrupted(TemporaryTest):
    def assert_ends_by(self, number: signal.Signals, process: Popen[bytes]) -> None:
        process.send_signal(number)
        # Nobody reads what it writes, so it cannot come to its end first.
        process.wait(DEADLINE)
        output, messages = process.communicate()
        self.assertEqual((process.returncode, output, messages), (-number, b"", b""))
        self.assert_no_leftovers()

    def backup_with_a_large_file(self) -> Path:
        """Long enough to read for a signal to come in between; a sparse file takes no time to make."""
        path = make(self.folder / "large", "--tree", "none", "--size-of-one", "1")
        identifier = entries_of(path, "file")[0]["fileID"]
        os.truncate(path / identifier[:2] / identifier, 250_000_000)
        return path

    def wait_for_partial_file(self) -> None:
        wait_until(lambda: partial_files(self.output), "a file that is being written", pause=0.0005)

    def test_while_keys_are_derived(self) -> None:
        path = backup("--tree", "small", "--encrypted", *WITH_PASSWORD, *SLOW)
        for number in SIGNALS:
            with self.subTest(number):
                process = self.start("extract", path, *WITH_PASSWORD, "-o", self.output)
                wait_until(lambda: os.listdir(self.temporary), "a temporary directory")
                self.assert_ends_by(number, process)
                self.assertFalse(self.output.exists())

    def test_while_a_file_is_written(self) -> None:
        path = self.backup_with_a_large_file()
        for number in SIGNALS:
            with self.subTest(number):
                self.output = self.folder / number.name
                process = self.start("extract", path, "-o", self.output)
                self.wait_for_partial_file()
                process.send_signal(signal.SIGSTOP)
                self.assertEqual([stat.S_IMODE(item.stat().st_mode) for item in partial_files(self.output)], [0o600])
                process.send_signal(number)
                process.send_signal(signal.SIGCONT)
                process.wait(DEADLINE)
                self.assertEqual(process.returncode, -number)
                self.assertEqual([item for item in below(self.output) if not item.is_dir()], [])
                self.assert_no_leftovers()

    def test_while_a_zip_is_unpacked(self) -> None:
        path = backup("--tree", "none", "--zip", "--size-of-one", "50000000")
        process = self.start("cat", path, "MediaDomain", "Media/big.bin")
        wait_until(lambda: sum(map(size_of, below(self.temporary))) > 1000000, "a file that is being unpacked", pause=0.0005)
        self.assert_ends_by(signal.SIGTERM, process)

    def test_while_it_waits_for_the_reader(self) -> None:
        path = backup("--tree", "none", "--size-of-one", "3000000")
        process = self.start("cat", path, "MediaDomain", "Media/big.bin")
        assert process.stdout
        process.stdout.read(1)
        process.send_signal(signal.SIGINT)
        process.wait(DEADLINE)
        self.assertEqual(process.returncode, -signal.SIGINT)
        self.assert_no_leftovers()

    def test_not_by_signals_that_are_ignored(self) -> None:
        path = backup("--tree", "none", "--size-of-one", "3000000")
        process = self.start("cat", path, "MediaDomain", "Media/big.bin", preexec_fn=lambda: [
            signal.signal(number, signal.SIG_IGN) for number in (signal.SIGHUP, signal.SIGINT)])
        assert process.stdout
        process.stdout.read(1)
        for number in (signal.SIGHUP, signal.SIGINT):
            process.send_signal(number)
        output, _ = process.communicate(timeout=DEADLINE)
        self.assertEqual((process.returncode, len(output)), (0, 2999999))
        self.assert_no_leftovers()

    def test_and_repeated(self) -> None:
        path = backup("--tree", "small", "--encrypted", *WITH_PASSWORD, *SLOW)
        process = self.start("ls", path, *WITH_PASSWORD)
        wait_until(lambda: os.listdir(self.temporary), "a temporary directory")
        process.send_signal(signal.SIGSTOP)
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGTERM):
            process.send_signal(number)
        process.send_signal(signal.SIGCONT)
        process.wait(DEADLINE)
        self.assertIn(process.returncode, (-signal.SIGTERM, -signal.SIGINT))
        self.assert_no_leftovers()

    def test_keeps_what_was_replaced_until_then(self) -> None:
        path = self.backup_with_a_large_file()
        target = self.output / "MediaDomain" / "Media" / "big.bin"
        target.parent.mkdir(parents=True)
        target.write_text("mine")
        process = self.start("extract", path, "-o", self.output, "--force")
        self.wait_for_partial_file()
        self.assert_ends_by(signal.SIGINT, process)
        self.assertEqual([item.name for item in below(self.output) if item.is_file()], ["big.bin"])
        self.assertEqual(target.read_text(), "mine")


if __name__ == "__main__":
    main()
