"""`edit --in-place`: the backup itself is changed, wholly or not at all, whatever happens meanwhile."""

from __future__ import annotations

import concurrent.futures
import errno
import fcntl
import os
import shutil
import signal
import sqlite3
import subprocess
import sys
import unittest
from pathlib import Path
from typing import Any

from editing import CIPHER, LATEST, NOTES, SHOPPING, WELCOME
from failing_runs import preloaded
from reading_back import Place, ResultTest, facts_of, raw, read
from tool_testing import (
    DONE, ENCRYPTED, FAILED, TIMEOUT, USAGE, WITH_PASSWORD, backup, command, main, make, run, snapshot,
)  # fmt: skip

from backup_reader.account import account  # found through tool_testing

JOURNAL = ".kelvane-journal"
FORMS = (("--version", "2.4"), ("--version", "2.4", *ENCRYPTED), ("--version", "3.2", "--placeholders", "2"),
         ("--version", "3.3", *CIPHER))
# What differs each time that an entry is made or its content is encrypted.
VOLATILE = ("birth", "modified", "changed", "key", "digest")


def folders(path: Path) -> set[str]:
    return {str(item.relative_to(path)) for item in path.rglob("*") if item.is_dir()}


class InPlaceTest(ResultTest):
    def setUp(self) -> None:
        super().setUp()
        self.file = self.folder / "new.txt"
        self.file.write_bytes(b"what is new\n" * 500)
        self.operations = ("--put", NOTES, WELCOME, self.file, "--put", NOTES, "new/a.txt", self.file, "--rm", NOTES,
                           SHOPPING, "--link", NOTES, LATEST, "elsewhere", "--mkdir", NOTES, "x/y")
        self.changed = {(NOTES, path) for path in (WELCOME, "new", "new/a.txt", SHOPPING, LATEST, "x", "x/y")}

    def own(self, *options: str, name: str = "backup") -> Path:
        """A copy of a backup that the test may change."""
        source = backup("--tree", "small", *options)
        shutil.copytree(source, copy := self.folder / name, symlinks=True)
        return copy

    def edit(self, path: Path, *operations: str | Path, status: int = DONE) -> list[str]:
        return self.fail_with(status, "edit", path, "--in-place", *operations, *self.password_for(path))

    def steady(self, path: Path) -> dict[Place, dict[str, Any]]:
        return {place: {name: fact for name, fact in facts.items() if place not in self.changed or name not in VOLATILE}
                for place, facts in facts_of(path).items()}


class Changed(InPlaceTest):
    def test_is_what_an_edit_writes_elsewhere(self) -> None:
        for options in FORMS:
            with self.subTest(options):
                source = self.own(*options, name=f"own {hash(options)}")
                self.write("edit", source, other := self.folder / f"other {hash(options)}", *self.operations)
                messages = self.edit(source, *self.operations)
                self.assertRegex(messages[-1], r"^kelvane: 3 files written, .* and 1 file removed in ")
                self.assertEqual(self.steady(source), self.steady(other))
                self.assertEqual(raw(source).keys(), raw(other).keys())
                self.assertEqual(list(account(read(source, strict=True))), [])
                self.succeed("verify", source, "--json", *self.password_for(source))
                self.assert_no_leftovers()

    def test_leaves_all_other_files_alone(self) -> None:
        source = self.own()
        before = snapshot(source)
        self.edit(source, "--put", NOTES, WELCOME, self.file)
        after = snapshot(source)
        stored = [entry.file_id for entry in read(source).entries if (entry.domain, entry.path) == (NOTES, WELCOME)]
        different = {name for name in before.keys() | after.keys() if before.get(name) != after.get(name)}
        self.assertEqual(different, {".", stored[0][:2], f"{stored[0][:2]}/{stored[0]}", "Manifest.db"})

    def test_of_nothing_touches_nothing(self) -> None:
        source = self.own(*CIPHER)
        before = snapshot(source)
        self.edit(source)
        self.assertEqual({name: facts for name, facts in snapshot(source).items() if name != "."},
                         {name: facts for name, facts in before.items() if name != "."})

    def test_may_be_changed_again(self) -> None:
        source = self.own(*CIPHER)
        for content in (b"one", b"two", b""):
            self.file.write_bytes(content)
            self.edit(source, "--put", NOTES, WELCOME, self.file)
            self.assertEqual(self.succeed("cat", source, NOTES, WELCOME, *WITH_PASSWORD), content)
        self.assertEqual(list(account(read(source, strict=True))), [])

    def test_keeps_files_that_nobody_names(self) -> None:
        source = self.own()
        (source / "notes.txt").write_text("mine")
        self.edit(source, *self.operations)
        self.assertEqual((source / "notes.txt").read_text(), "mine")

    def test_never_removes_the_manifest_for_a_forged_entry(self) -> None:
        for options, name in ((("--version", "3.2"), "Manifest.db"), (("--version", "3.3"), "Status.plist")):
            source = self.own(*options, name=f"forged {name}")
            connection = sqlite3.connect(source / "Manifest.db")
            connection.execute("UPDATE Files SET fileID = ? WHERE domain = ? AND relativePath = ?", (name, NOTES, WELCOME))
            connection.commit()
            connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
            connection.close()
            self.edit(source, "--rm", NOTES, WELCOME)
            self.assertIn(name, raw(source))
            self.succeed("ls", source)

    def test_keeps_the_mode_of_the_backup(self) -> None:
        source = self.own()
        os.chmod(source / "Manifest.db", 0o640)
        self.edit(source, *self.operations)
        stored = {entry.path: entry.file_id for entry in read(source).entries if entry.domain == NOTES}
        for name in (WELCOME, "new/a.txt"):
            path = source / stored[name][:2] / stored[name]
            self.assertEqual(path.stat().st_mode & 0o777, 0o640)
        self.assertEqual((source / "Manifest.db").stat().st_mode & 0o777, 0o640)


class Refused(InPlaceTest):
    def assert_refused(self, source: Path, reason: str, *more: str) -> None:
        before = raw(source)
        messages = self.edit(source, *self.operations, *more, status=FAILED)
        self.assertTrue(any(reason in line for line in messages), messages)
        self.assertEqual(raw(source), before)
        self.assert_no_leftovers()

    def test_for_a_zip(self) -> None:
        source = self.folder / "own.zip"
        shutil.copy(backup("--tree", "small", "--zip"), source)
        self.assert_refused(source, "is no directory, and cannot be changed in place")

    def test_where_links_are_followed(self) -> None:
        self.assert_refused(self.own(), "Only a backup that was opened from a directory", "--follow-links")

    def test_with_changes_that_were_not_read(self) -> None:
        source = self.own()
        (source / "Manifest.db-wal").write_bytes(b"changes")
        self.assert_refused(source, "Manifest.db-wal holds changes to the manifest that were not read")

    def test_with_a_change_by_sqlite_that_was_not_finished(self) -> None:
        source = self.own()
        (source / "Manifest.db-journal").write_bytes(b"old pages")
        self.assert_refused(source, "Manifest.db-journal holds changes to the manifest that were not read")

    def test_while_another_process_writes(self) -> None:
        source = self.own()
        descriptor = os.open(source, os.O_RDONLY)
        self.addCleanup(os.close, descriptor)
        fcntl.flock(descriptor, fcntl.LOCK_EX)
        self.assert_refused(source, "The backup could not be changed in place (open: Resource temporarily unavailable)")

    def test_with_a_directory_in_the_place_of_a_stored_file(self) -> None:
        source = self.own()
        stored = next(entry.file_id for entry in read(source).entries if (entry.domain, entry.path) == (NOTES, SHOPPING))
        path = source / stored[:2] / stored
        path.unlink()
        path.mkdir()
        self.assert_refused(source, "A directory has the name of a stored file")

    def test_beside_an_output(self) -> None:
        source = self.own()
        for options in (("--zip",), ("--keep-unlisted",), ("--form=legacy",)):
            self.edit(source, *options, status=USAGE)
        self.fail_with(USAGE, "edit", source, self.output, "--in-place")
        self.fail_with(USAGE, "edit", source)

    def test_when_an_operation_fails(self) -> None:
        self.assert_refused(self.own(), "has nothing at 'none'", "--rm", NOTES, "none")


class Recovered(InPlaceTest):
    def plan(self, source: Path, text: bytes) -> None:
        (source / JOURNAL).mkdir()
        (source / JOURNAL / "plan").write_bytes(text)

    def test_without_a_change_there_is_nothing_to_do(self) -> None:
        source = self.own()
        self.assertEqual(self.fail_with(DONE, "recover", source),
                         ["kelvane: there is no change to be completed or taken back"])

    def test_takes_back_what_was_not_decided(self) -> None:
        source = self.own()
        before = raw(source)
        (source / JOURNAL).mkdir()
        (source / JOURNAL / "new-0").write_bytes(b"content")
        self.assertEqual(self.fail_with(DONE, "recover", source),
                         ["kelvane: a change that was not decided has been taken back"])
        self.assertEqual(raw(source), before)

    def test_clears_away_what_was_completed(self) -> None:
        source = self.own()
        (source / JOURNAL).mkdir()
        (source / JOURNAL / "done").write_bytes(b"the plan")
        before = raw(source)
        self.assertEqual(self.fail_with(DONE, "recover", source),
                         ["kelvane: a change that was not brought to its end has been completed"])
        self.assertEqual(raw(source), {name: content for name, content in before.items() if JOURNAL not in name})

    def test_of_what_is_no_directory_is_an_error(self) -> None:
        self.fail_with(FAILED, "recover", self.folder / "none")
        self.fail_with(FAILED, "recover", backup("--tree", "small", "--zip"))

    def test_refuses_a_damaged_plan(self) -> None:
        source = self.own()
        self.plan(source, b"kelvane changes 1\nremove 00\nend 00\n")
        before = raw(source)
        for arguments in (("recover", source), ("edit", source, "--in-place")):
            messages = self.fail_with(FAILED, *arguments)
            self.assertIn("The plan of the change is damaged", messages[-1])
        self.assertEqual(raw(source), before)

    def test_comes_first_in_the_next_edit(self) -> None:
        source = self.own()
        (source / JOURNAL).mkdir()
        (source / JOURNAL / "new-0").write_bytes(b"content")
        messages = self.edit(source, *self.operations)
        self.assertEqual(messages[0], "kelvane: a change that was not decided has been taken back")
        self.assertFalse((source / JOURNAL).exists())

    def test_is_asked_for_by_verify(self) -> None:
        source = self.own()
        (source / JOURNAL).mkdir()
        result = run("verify", source)
        self.assertEqual(result.returncode, FAILED)
        self.assertIn(b"a change of the backup was not brought to its end; see 'kelvane recover'", result.stdout)


@unittest.skipUnless("FAULT_SHIM" in os.environ, "there is no way to preload here")
class Interrupted(InPlaceTest):
    """At every operation on the backup the process is killed, or the operation fails."""

    def start(self, path: Path, log: Path | None = None, **fault: str) -> subprocess.CompletedProcess[bytes]:
        environment = {**os.environ, "LD_PRELOAD": preloaded(os.environ["FAULT_SHIM"]), "FAULT_ROOT": str(path), "LC_ALL": "C", **fault}
        if log is not None:
            environment["FAULT_LOG"] = str(log)
        arguments = ("edit", path, "--in-place", *self.operations, *self.password_for(path))
        return subprocess.run(command(*arguments), env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                              check=False, timeout=TIMEOUT)

    def prepare(self, *options: str) -> int:
        """What the backup is before and after, and how many operations there are between."""
        self.source = self.own(*options, name="source")
        self.before, self.folders = raw(self.source), folders(self.source)
        after = self.own(*options, name="after")
        (log := self.folder / "log").unlink(missing_ok=True)
        result = self.start(after, log, FAULT_KILL="1")
        self.assertEqual(result.returncode, DONE, result.stderr)
        self.after = self.steady(after)
        self.names = raw(after).keys()
        return len(log.read_text(errors="replace").splitlines())

    def judge(self, at: int, **fault: str) -> str:
        """Runs the edit with the fault in a copy of the backup; tells which of the two is there after recovery."""
        path = self.folder / f"run {at} {'-'.join(fault.values())}"
        shutil.copytree(self.source, path, symlinks=True)
        result = self.start(path, FAULT_AT=str(at), **fault)
        killed = "FAULT_KILL" in fault
        # The number of operations may differ by one or two from run to run, so that the last are never reached.
        self.assertIn(result.returncode, (DONE, -signal.SIGKILL if killed else FAILED), result.stderr)
        if JOURNAL in os.listdir(path):
            self.assertIn(run("recover", path).returncode, (DONE,))
        files, found = raw(path), folders(path)
        shutil.rmtree(path)
        if files == self.before:
            self.assertEqual(found, self.folders)
            self.assertNotEqual(result.returncode, DONE)
            return "old"
        shutil.rmtree(path, ignore_errors=True)
        return self.judge_new(files, path)

    def judge_new(self, files: dict[str, bytes], path: Path) -> str:
        for name, content in files.items():
            (path / name).parent.mkdir(parents=True, exist_ok=True)
            (path / name).write_bytes(content)
        self.assertEqual(files.keys(), self.names)
        self.assertEqual(self.steady(path), self.after)
        self.assertEqual(list(account(read(path, strict=True))), [])
        shutil.rmtree(path)
        return "new"

    def try_all(self, *options: str, **fault: str) -> None:
        count = self.prepare(*options)
        stride = int(os.environ.get("KELVANE_FAULT_STRIDE", "1"))
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            places = range(1, count + 1, stride)
            outcomes = list(pool.map(lambda at: self.judge(at, **fault), places))
        print(f"{options} {fault}: {count} operations, {outcomes.count('old')} old, {outcomes.count('new')} new",
              file=sys.stderr)
        self.assertEqual(set(outcomes), {"old", "new"})
        if "FAULT_KILL" in fault:
            # What was decided stays decided.
            self.assertEqual(outcomes, sorted(outcomes, reverse=True))

    def test_by_a_kill(self) -> None:
        for options in FORMS:
            with self.subTest(options):
                self.try_all(*options, FAULT_KILL="1")
            for name in ("source", "after"):
                shutil.rmtree(self.folder / name)

    def test_by_a_full_disk(self) -> None:
        self.try_all("--version", "3.3", *CIPHER, FAULT_ERRNO=str(errno.ENOSPC), FAULT_STICKY="1")

    def test_by_a_failing_disk(self) -> None:
        self.try_all("--version", "2.4", FAULT_ERRNO=str(errno.EIO))


if __name__ == "__main__":
    main()
