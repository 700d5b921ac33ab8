"""What runs that end badly leave in the temporary directory: nothing, or what the next run removes."""

from __future__ import annotations

import os
import random
import resource
import signal
import subprocess
import time
import unittest
from pathlib import Path

from running import DEADLINE, SLOW, TemporaryTest, below, partial_files, wait_until
from tool_testing import DONE, ENCRYPTED, FAILED, WITH_PASSWORD, backup, entries_of, main, password_file

RUNS = 200
SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT)
LOCK = "owner.lock"
OLD = 1_000_000_000


class SignalsAtAnyTime(TemporaryTest):
    def test_leave_nothing(self) -> None:
        path = backup("--tree", "small", *ENCRYPTED)
        start = time.monotonic()
        self.extract(path, *WITH_PASSWORD)
        duration = time.monotonic() - start
        delays = random.Random(7)
        ended = 0
        for i in range(RUNS):
            self.output = self.folder / str(i)
            process = self.start("extract", path, *WITH_PASSWORD, "-o", self.output)
            time.sleep(delays.uniform(0, duration))
            number = SIGNALS[i % len(SIGNALS)]
            process.send_signal(number)
            process.wait(DEADLINE)
            self.assertIn(process.returncode, (-number, DONE))
            ended += process.returncode != DONE
            self.assert_no_leftovers()
            self.assertEqual(partial_files(self.output), [])
            self.end(process)
        self.assertGreater(ended, RUNS // 10)

    def test_leave_no_part_of_a_backup(self) -> None:
        path = backup("--files", "200", *ENCRYPTED)
        delays = random.Random(8)
        for i in range(RUNS // 4):
            target = self.folder / "made" / "for it" / "out"
            process = self.start("export", path, target, *WITH_PASSWORD)
            wait_until(lambda: target.parent.exists() or process.poll() is not None, "an output", pause=0.0005)
            time.sleep(delays.uniform(0, 0.02))
            number = SIGNALS[i % len(SIGNALS)]
            process.send_signal(number)
            process.wait(DEADLINE)
            self.assert_no_leftovers()
            if process.returncode == DONE:
                self.assertEqual(os.listdir(target.parent), ["out"])
                subprocess.run(["rm", "-r", target.parent.parent], check=True)
            self.assertFalse((self.folder / "made").exists(), list(below(self.folder / "made")))
            self.end(process)


class FileSizeLimit(TemporaryTest):
    def test_fails_the_file_that_is_too_large_and_no_other(self) -> None:
        path = backup("--tree", "small", "--size-of-one", "3000000")
        def limited() -> None:
            resource.setrlimit(resource.RLIMIT_FSIZE, (1_000_000, resource.RLIM_INFINITY))
        messages = self.fail_with(FAILED, "extract", path, "-o", self.output, preexec_fn=limited)
        self.assertEqual(messages[0], "kelvane: MediaDomain/Media/big.bin: The file could not be written")
        self.assertIn("File too large", messages[1])
        files = [entry for entry in entries_of(path, "file") if entry["path"] != "Media/big.bin"]
        self.assertGreater(len(files), 3)
        for entry in files:
            self.assert_extracted(entry)
        self.assertEqual(partial_files(self.output), [])
        self.assert_no_leftovers()


class KilledRuns(TemporaryTest):
    def kill(self, *arguments: str | Path) -> Path:
        """A run that is killed while its temporary area is in use; gives the area."""
        process = self.start(*arguments)
        wait_until(lambda: list(self.temporary.glob(f"*/{LOCK}")), "a temporary area", pause=0.0005)
        process.kill()
        process.wait(DEADLINE)
        [name] = os.listdir(self.temporary)
        return self.temporary / name

    def kill_while_deriving(self) -> Path:
        return self.kill("ls", backup("--tree", "small", "--encrypted", *WITH_PASSWORD, *SLOW), *WITH_PASSWORD)

    def run_another(self) -> None:
        self.succeed("ls", backup("--tree", "small"))

    def test_are_cleaned_up_after_by_the_next_one(self) -> None:
        self.kill_while_deriving()
        self.run_another()
        self.assert_no_leftovers()

    def test_are_cleaned_up_after_with_all_that_they_left(self) -> None:
        path = backup("--tree", "none", "--zip", "--size-of-one", "50000000")
        process = self.start("cat", path, "MediaDomain", "Media/big.bin")
        wait_until(lambda: len(list(below(self.temporary))) > 4, "files in the area", pause=0.0005)
        process.kill()
        process.wait(DEADLINE)
        self.assertGreater(len(list(below(self.temporary))), 4)
        self.run_another()
        self.assert_no_leftovers()

    def test_are_cleaned_up_after_where_the_next_one_is_sent(self) -> None:
        (other := self.folder / "other").mkdir()
        area = self.kill_while_deriving()
        area.rename(other / area.name)
        self.succeed("ls", backup("--tree", "small"), "--temp", other)
        self.assertEqual(os.listdir(other), [])

    def test_are_told_from_those_that_live(self) -> None:
        process = self.start_and_hold()
        wait_until(lambda: list(self.temporary.glob(f"*/{LOCK}")), "a temporary area")
        before = sorted(below(self.temporary))
        self.run_another()
        self.assertEqual(sorted(below(self.temporary)), before)
        output, messages = process.communicate(password_file.read_bytes())
        self.assertEqual((process.returncode, messages), (DONE, b""))
        self.assertNotEqual(output, b"")
        self.assert_no_leftovers()

    def test_are_cleaned_up_after_by_many_at_once(self) -> None:
        self.kill_while_deriving()
        processes = [self.start("ls", backup("--tree", "small")) for _ in range(12)]
        for process in processes:
            _, messages = process.communicate(timeout=DEADLINE)
            self.assertEqual((process.returncode, messages), (DONE, b""))
        self.assert_no_leftovers()


class UnfinishedOutputs(TemporaryTest):
    def test_of_killed_runs_are_named(self) -> None:
        path = backup("--tree", "none", "--size-of-one", "50000000")
        process = self.start("export", path, self.folder / "first")
        wait_until(lambda: list(self.folder.glob(".kelvane-*.partial/*")), "an unfinished output", pause=0.0005)
        process.kill()
        process.wait(DEADLINE)
        [left] = self.folder.glob(".kelvane-*.partial")
        messages = self.fail_with(DONE, "export", backup("--tree", "small"), self.output)
        self.assertEqual(messages[0], f"kelvane: warning: '{left}' was left unfinished by a run that was killed; "
                                      "it can be removed")
        self.assertTrue(left.exists())

    def test_of_runs_that_live_are_not(self) -> None:
        (self.folder / f".kelvane-{os.getpid()}-0.partial").touch()
        (self.folder / ".kelvane-x-0.partial").touch()
        (self.folder / ".kelvane-0-0.partial").touch()
        messages = self.fail_with(DONE, "export", backup("--tree", "small"), self.output)
        self.assertEqual(len(messages), 1, messages)


class ForeignEntries(TemporaryTest):
    """In a directory that others write to, anything may bear the name of an area."""

    def setUp(self) -> None:
        super().setUp()
        self.victim = self.folder / "victim"
        self.victim.mkdir(mode=0o700)
        (self.victim / LOCK).touch(0o600)
        (self.victim / "precious").write_text("content")

    def area(self, name: str, mode: int = 0o700, lock: bool = True) -> Path:
        path = self.temporary / name
        path.mkdir()
        path.chmod(mode)
        if lock:
            (path / LOCK).touch(0o600)
        return path

    def assert_left(self, *paths: Path) -> None:
        before = {path: path.lstat() for path in paths}
        self.succeed("ls", backup("--tree", "small"))
        for path in paths:
            self.assertEqual(path.lstat().st_ino, before[path].st_ino)
        self.assertEqual(sorted(os.listdir(self.temporary)), sorted({path.relative_to(self.temporary).parts[0] for path in paths}))
        self.assertEqual((self.victim / "precious").read_text(), "content")

    def test_that_are_links_are_left(self) -> None:
        (link := self.temporary / "kelvane-aaaaaa").symlink_to(self.victim)
        self.assert_left(link)

    def test_that_are_no_directories_are_left(self) -> None:
        os.mkfifo(fifo := self.temporary / "kelvane-aaaaaa")
        (file := self.temporary / "kelvane-bbbbbb").write_text("mine")
        self.assert_left(fifo, file)

    def test_of_other_names_are_left(self) -> None:
        self.assert_left(*(self.area(name) for name in ("kelvane-aaaaa", "kelvane-aaaaaaa", "kelvane", "aaaaaa")))

    def test_that_others_may_enter_are_left(self) -> None:
        self.assert_left(self.area("kelvane-aaaaaa", 0o755), self.area("kelvane-bbbbbb", 0o770))

    def test_whose_lock_is_something_else_are_left(self) -> None:
        linked, piped, hard, full = (self.area(f"kelvane-aaaaa{i}", lock=False) for i in range(4))
        (linked / LOCK).symlink_to(self.victim / LOCK)
        os.mkfifo(piped / LOCK)
        os.link(self.victim / "precious", hard / LOCK)
        (full / LOCK).write_text("not ours")
        self.assert_left(*(path / LOCK for path in (linked, piped, hard, full)))

    @unittest.skipIf(os.geteuid() != 0, "only the superuser can give files away")
    def test_of_other_users_are_left(self) -> None:
        path = self.area("kelvane-aaaaaa")
        os.chown(path, 65534, 65534)
        lock = self.area("kelvane-bbbbbb")
        os.chown(lock / LOCK, 65534, 65534)
        self.assert_left(path, lock)

    def test_without_a_lock_are_left_unless_they_are_old_and_empty(self) -> None:
        young = self.area("kelvane-aaaaaa", lock=False)
        old = self.area("kelvane-bbbbbb", lock=False)
        full = self.area("kelvane-cccccc", lock=False)
        (full / "content").write_text("mine")
        for path in (old, full):
            os.utime(path, (OLD, OLD))
        self.assert_left(young, full)
        self.assertFalse(old.exists())

    def test_are_not_reached_through_links_in_an_abandoned_area(self) -> None:
        path = self.area("kelvane-aaaaaa")
        (path / "link").symlink_to(self.victim)
        (path / "KVFileManager").symlink_to(self.victim)
        self.assert_left()
        self.assertEqual(sorted(os.listdir(self.victim)), [LOCK, "precious"])

    def test_do_not_keep_an_abandoned_area(self) -> None:
        path = self.area("kelvane-aaaaaa")
        for i in range(3):
            (inner := path / "KVFileManager" / str(i)).mkdir(parents=True)
            for j in range(400):
                (inner / f"{j}-{'x' * 200}").touch()
        self.assert_left()


if __name__ == "__main__":
    main()
