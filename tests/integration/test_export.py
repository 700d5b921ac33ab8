"""`export`: the whole backup written anew, with nothing lost and nothing left over."""

from __future__ import annotations

import os
import resource
import signal
import subprocess
import time
import zipfile
from pathlib import Path
from typing import Any

from reading_back import PLISTS, ResultTest, facts_of, raw, read
from terminal import Terminal
from tool_testing import DONE, ENCRYPTED, FAILED, PASSWORD_PROBLEM, USAGE, WITH_PASSWORD, backup, command, entries_of, \
    main, make, run, snapshot

from backup_maker import hostile  # found through tool_testing

NOTES = "AppDomain-com.example.notes"
WELCOME = "Documents/Welcome.txt"
CIPHER = ("--device-bound", *ENCRYPTED)
DEADLINE = 30


class ExportTest(ResultTest):
    def export(self, source: Path, *options: str | Path, status: int = DONE, **how: Any) -> list[str]:
        return self.fail_with(status, "export", source, self.output, *options, **how)

    def zip_output(self) -> None:
        self.output = self.output.with_suffix(".zip")

    def assert_vanished(self) -> None:
        """Neither the output is there nor anything on the way to it."""
        self.assertFalse(os.path.lexists(self.output))
        self.assertEqual([name for name in os.listdir(self.output.parent) if name.endswith(".partial")], [])
        self.assert_no_leftovers()


class Whole(ExportTest):
    def check(self, source: Path, target: Path) -> None:
        messages = self.write("export", source, target)
        files, before = raw(target), raw(source)
        size = target.stat().st_size if target.is_file() else sum(map(len, files.values()))
        kind = "zip" if target.is_file() else "directory"
        self.assertEqual(len(messages), 1)
        self.assertRegex(messages[0], rf"^kelvane: {len(files)} files, [0-9.]+ .?B \({size} bytes\), written to the"
                         rf" {kind} '{target}'$")
        self.assert_sound(target)
        self.assert_same_entries(facts_of(target), facts_of(source, as_written=True))
        self.assertEqual(read(target).placeholders, read(source).placeholders)
        self.assert_same_metadata(source, target)
        for name, content in files.items():
            if "/" in name or len(name) == 40:
                self.assertEqual(content, before[name], name)

    def check_all_ways(self, *options: str) -> None:
        for zipped in ((), ("--zip", "--deflate")):
            for target in ("directory", "archive.zip"):
                with self.subTest(options=options, zipped=zipped, target=target):
                    self.check(backup(*options, *zipped), self.folder / f"{len(zipped)} {target}")

    def test_binary_manifest(self) -> None:
        self.check_all_ways("--version", "2.4")

    def test_first_database(self) -> None:
        self.check_all_ways("--version", "3.0", "--placeholders", "3")

    def test_second_database(self) -> None:
        self.check_all_ways("--version", "3.1")

    def test_third_database(self) -> None:
        self.check_all_ways("--version", "3.2", "--placeholders", "2")

    def test_fourth_database(self) -> None:
        self.check_all_ways("--version", "3.3")

    def test_encrypted_third_database(self) -> None:
        self.check_all_ways("--version", "3.2", *CIPHER)

    def test_encrypted_fourth_database(self) -> None:
        self.check_all_ways("--version", "3.3", "--placeholders", "3", *CIPHER)

    def test_backup_without_info(self) -> None:
        self.check(backup("--tree", "small", "--without-info"), self.output)

    def test_backup_without_entries(self) -> None:
        self.check(backup("--tree", "none"), self.output)

    def test_many_small_files(self) -> None:
        self.check(backup("--files", "3000"), self.output)

    def test_large_file(self) -> None:
        source = backup("--tree", "none", "--size-of-one", "20000001")
        self.check(source, self.output)
        self.check(source, self.folder / "large.zip")


class Again(ExportTest):
    """The second export is the first one over, byte for byte."""

    def check(self, *options: str) -> None:
        source = backup(*options)
        self.write("export", source, one := self.folder / "one")
        self.write("export", one, two := self.folder / "two")
        self.assertEqual(raw(two), raw(one))
        self.write("export", one, first := self.folder / "first.zip")
        self.write("export", first, second := self.folder / "second.zip")
        self.assertEqual(list(raw(second).items()), list(raw(first).items()))

    def test_of_a_binary_manifest(self) -> None:
        self.check("--version", "2.4")

    def test_of_a_database(self) -> None:
        self.check("--version", "3.2", "--placeholders", "3")

    def test_of_an_encrypted_backup(self) -> None:
        self.check("--version", "3.3", *CIPHER)


class Form(ExportTest):
    def test_is_a_zip_when_the_name_ends_so(self) -> None:
        self.zip_output()
        self.export(backup("--tree", "small"))
        self.assertTrue(zipfile.is_zipfile(self.output))

    def test_is_a_zip_when_asked_for(self) -> None:
        self.export(backup("--tree", "small"), "--zip")
        self.assertTrue(zipfile.is_zipfile(self.output))

    def test_is_a_directory_else(self) -> None:
        self.output = self.folder / "named.zip.d"
        self.export(backup("--tree", "small"))
        self.assertTrue(self.output.is_dir())

    def test_may_be_asked_for_with_a_slash(self) -> None:
        self.fail_with(DONE, "export", backup("--tree", "small"), f"{self.output}/")
        self.assertTrue(self.output.is_dir())

    def test_of_a_name_in_the_current_directory(self) -> None:
        self.fail_with(DONE, "export", backup("--tree", "small"), "out", cwd=self.folder)
        self.assertTrue((self.folder / "out" / "Manifest.db").is_file())

    def test_keeps_the_password(self) -> None:
        self.export(backup("--tree", "small", *CIPHER), *WITH_PASSWORD)
        self.assertIn("Backup is encrypted and no password specified",
                      self.fail_with(PASSWORD_PROBLEM, "ls", self.output)[-1])
        self.succeed("ls", self.output, *WITH_PASSWORD)


class Target(ExportTest):
    def assert_untouched(self, *options: str) -> None:
        before = self.around()
        self.assertEqual(self.export(backup("--tree", "small"), *options, status=FAILED),
                         [f"kelvane: '{self.output}' exists already"])
        self.assertEqual(self.around(), before)

    def around(self) -> dict[str, tuple[Any, ...]]:
        found = snapshot(self.folder)
        found.pop("temporary")  # its time changes with every run
        return found

    def test_that_exists_is_kept(self) -> None:
        kinds = {"directory": Path.mkdir, "file": Path.touch, "fifo": os.mkfifo,
                 "link": lambda path: path.symlink_to("nothing")}
        for kind, make_target in kinds.items():
            for options in ((), ("--zip",)):
                with self.subTest(kind=kind, options=options):
                    self.output = self.folder / f"{kind}{len(options)}"
                    make_target(self.output)
                    self.assert_untouched(*options)

    def test_gets_the_directories_above_it(self) -> None:
        self.output = self.folder / "a" / "b" / "c"
        self.export(backup("--tree", "small"))
        self.assert_sound(self.output)

    def test_below_a_file_cannot_be_made(self) -> None:
        (self.folder / "file").touch()
        for name in ("file/out", "file/a/out", "file/out.zip"):
            self.output = self.folder / name
            messages = self.export(backup("--tree", "small"), status=FAILED)
            self.assertIn(str(self.folder / "file"), messages[0])

    def test_inside_the_backup_is_refused(self) -> None:
        source = make(self.folder / "backup", "--tree", "small")
        before = snapshot(source)
        (self.folder / "link").symlink_to(source)
        for target in (source / "out", source / "a" / "b", source / "out.zip", self.folder / "link" / "out",
                       self.folder / "temporary" / ".." / "backup" / "out"):
            with self.subTest(target):
                self.assertEqual(self.fail_with(FAILED, "export", source, target),
                                 [f"kelvane: '{target}' would lie inside the backup"])
        self.assertEqual(snapshot(source), before)

    def test_beside_the_backup_is_not_inside(self) -> None:
        source = make(self.folder / "backup", "--tree", "small")
        self.fail_with(DONE, "export", source, self.folder / "backup2")

    def test_needs_a_name(self) -> None:
        self.fail_with(USAGE, "export", backup("--tree", "small"), "")
        self.fail_with(USAGE, "export", backup("--tree", "small"))

    def test_is_looked_at_before_the_password_is_used(self) -> None:
        self.output.touch()
        self.assertEqual(self.export(backup("--tree", "small", *ENCRYPTED), status=FAILED),
                         [f"kelvane: '{self.output}' exists already"])


class Source(ExportTest):
    def test_is_not_changed(self) -> None:
        for options in ((), ("--zip",)):
            name = "backup.zip" if options else "backup"
            source = make(self.folder / name, "--tree", "small", *options)
            before = snapshot(source) if source.is_dir() else source.read_bytes()
            self.fail_with(DONE, "export", source, self.folder / f"out {name}")
            self.assertEqual(snapshot(source) if source.is_dir() else source.read_bytes(), before)


    def test_with_changes_that_nobody_reads_is_told_of(self) -> None:
        for version, warned in (("3.2", True), ("2.4", False)):
            source = make(self.folder / version, "--tree", "small", "--version", version)
            (source / "Manifest.db-wal").write_bytes(bytes(100))
            for operation in ("export", "edit"):
                messages = self.fail_with(DONE, operation, source, self.folder / f"{operation} {version}")
                warning = "kelvane: warning: Manifest.db-wal holds 100 bytes of changes to the manifest, which are" \
                    " not read"
                self.assertEqual(messages[0] == warning, warned)


class Damage(ExportTest):
    """A file that cannot be had is named, and everything else is there."""

    def check(self, variant: str, lines: list[str], *options: str) -> None:
        source = backup("--tree", "small", "--hostile", variant, *options)
        password = WITH_PASSWORD if "--encrypted" in options else ()
        for kind in ("directory", "zip"):
            with self.subTest(variant=variant, kind=kind):
                self.output = self.folder / f"{variant}.{kind}"
                messages = self.export(source, *password, status=FAILED)
                place = f"{hostile.DOMAIN}/Documents/{variant}.txt"
                self.assertEqual(messages[0].partition(": Error loading")[0], f"kelvane: {place}")
                self.assertIn(f"could not be loaded for writing to {kind} (code 8)", messages[0])
                self.assertEqual([line for line in messages[1:-1] if not line.startswith("  caused by: ")], [])
                for line in lines:
                    self.assertTrue(any(line in message for message in messages[1:-1]), (line, messages))
                self.assertTrue(messages[-1].endswith("; 1 file skipped"), messages)
                self.assert_rest(source)

    def assert_rest(self, source: Path) -> None:
        [missing] = [entry for entry in entries_of(source) if entry["damaged"]]
        wanted = {entry["fileID"] for entry in entries_of(source, "file")} - {missing["fileID"]}
        found = {os.path.basename(name) for name in raw(self.output)} - {*PLISTS, "Manifest.db", "Manifest.mbdb"}
        self.assertEqual(found, wanted)
        self.assertEqual(len(read(self.output).entries), len(entries_of(source)))
        problems = run("verify", self.output, *self.password_for(self.output)).stdout.decode()
        self.assertIn(f"{missing['path']}: its stored content is missing", problems)

    def test_that_is_missing(self) -> None:
        self.check("stored-missing", ["File does not exist at path", "(code 16)"])

    def test_that_is_missing_from_a_binary_manifest(self) -> None:
        self.check("stored-missing", ["File does not exist at path"], "--version", "2.4")

    def test_that_is_missing_from_a_zip(self) -> None:
        self.check("stored-missing", ["Could not locate file record in zip", "(ZK.ZipErrorDomain"], "--zip")

    def test_that_is_missing_from_an_encrypted_backup(self) -> None:
        self.check("stored-missing", ["File does not exist at path"], *CIPHER)

    def test_that_is_a_fifo(self) -> None:
        self.check("stored-fifo", ["Failed to hash file"])

    def test_that_is_a_directory(self) -> None:
        self.check("stored-directory", ["Failed to hash file"])

    def test_of_keys_and_ciphers_is_copied_as_it_is(self) -> None:
        for variant in hostile.CIPHER_DAMAGES:
            source = backup("--tree", "small", "--hostile", variant, *CIPHER)
            self.output = self.folder / variant
            self.export(source, *WITH_PASSWORD)
            one, other = raw(source), raw(self.output)
            self.assertEqual(set(one), set(other))
            self.assertTrue(all(one[name] == other[name] for name in one if "/" in name))

    def test_by_unsafe_names_is_not_written(self) -> None:
        source = backup("--tree", "small", "--hostile", "file-id-dotdot", "--hostile", "file-id-slash")
        unsafe = [entry for entry in entries_of(source) if entry["damaged"]]
        for name in ("out", "out.zip"):
            self.output = self.folder / name
            before = set(os.listdir(self.folder))
            messages = self.export(source, status=FAILED)
            self.assertTrue(messages[-1].endswith(f"; {len(unsafe)} files skipped"), messages[-1])
            for entry in unsafe:
                self.assertTrue(any(f"{entry['domain']}/{entry['path']}: " in line for line in messages), entry)
            self.assertEqual(set(os.listdir(self.folder)) - before, {name})
            self.assertEqual({os.path.basename(stored) for stored in raw(self.output)},
                             {entry["fileID"] for entry in entries_of(source, "file") if not entry["damaged"]}
                             | {*PLISTS, "Manifest.db"})

    def test_of_every_kind_at_once(self) -> None:
        source = backup("--tree", "small", "--hostile", "all", *CIPHER)
        messages = self.export(source, *WITH_PASSWORD, status=FAILED)
        self.assertRegex(messages[-1], "; [0-9]+ files skipped$")
        self.assertEqual(len(read(self.output).entries), len(entries_of(source)))


def limit_file_size(limit: int) -> Any:
    def limit_now() -> None:
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
    return limit_now


class FullDisk(ExportTest):
    def test_skips_what_does_not_fit(self) -> None:
        source = backup("--tree", "small", "--size-of-one", "3000000")
        messages = self.export(source, status=FAILED, preexec_fn=limit_file_size(1_000_000))
        self.assertIn("MediaDomain/Media/big.bin: ", messages[0])
        self.assertIn("could not be written (code 14)", messages[0])
        self.assertTrue(any("File too large" in line for line in messages), messages)
        self.assertTrue(messages[-1].endswith("; 1 file skipped"), messages)
        self.assertEqual(len(raw(self.output)), len(raw(source)) - 1)

    def test_leaves_nothing_that_is_no_backup(self) -> None:
        # The list of entries is the largest file of all.
        source = backup("--version", "2.4", "--files", "600")
        limit = (source / "Manifest.mbdb").stat().st_size - 1
        for name in ("out", "out.zip"):
            self.output = self.folder / "new" / name
            messages = self.export(source, status=FAILED, preexec_fn=limit_file_size(limit))
            self.assertEqual(messages[-1], f"kelvane: Nothing was written to '{self.output}': without its manifest and"
                             " metadata it would be no backup")
            self.assertTrue(any("Manifest.mbdb" in line or "archive could not be completed" in line
                                for line in messages), messages)
            self.assertTrue(any("File too large" in line for line in messages), messages)
            self.assertFalse((self.folder / "new").exists())
            self.assert_no_leftovers()


class Interrupted(ExportTest):
    def start(self, source: Path, *options: str | Path) -> subprocess.Popen[bytes]:
        process = subprocess.Popen(command("export", source, self.output, *options), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(lambda: (process.kill(), process.communicate()) if process.poll() is None else None)
        return process

    def partial(self) -> Path | None:
        parent = self.output.parent
        names = [name for name in os.listdir(parent) if name.endswith(".partial")] if parent.exists() else []
        return parent / names[0] if names else None

    def wait_for_partial(self, process: subprocess.Popen[bytes]) -> None:
        end = time.monotonic() + DEADLINE
        while process.poll() is None and time.monotonic() < end:
            partial = self.partial()
            if partial is not None and (partial.is_file() or len(os.listdir(partial)) > 3):
                return
            time.sleep(0.0005)
        raise AssertionError("nothing is being written")

    def check(self, source: Path, number: signal.Signals) -> None:
        process = self.start(source)
        self.wait_for_partial(process)
        # The name that was asked for is not taken by half a backup.
        self.assertFalse(os.path.lexists(self.output))
        process.send_signal(number)
        output, messages = process.communicate(timeout=DEADLINE)
        self.assertEqual((process.returncode, output, messages), (-number, b"", b""))

    def test_leaves_nothing_of_a_directory(self) -> None:
        source = backup("--files", "3000")
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                self.check(source, number)
                self.assert_vanished()

    def test_leaves_nothing_of_a_zip(self) -> None:
        self.zip_output()
        source = backup("--files", "3000")
        for number in (signal.SIGINT, signal.SIGTERM):
            self.check(source, number)
            self.assert_vanished()

    def test_leaves_nothing_of_the_directories_above(self) -> None:
        self.output = self.folder / "a" / "b" / "out"
        self.check(backup("--files", "3000"), signal.SIGINT)
        self.assertFalse((self.folder / "a").exists())
        self.assert_no_leftovers()

    def test_leaves_no_half_backup_when_killed(self) -> None:
        process = self.start(backup("--files", "3000"))
        self.wait_for_partial(process)
        process.kill()
        process.communicate()
        self.assertFalse(os.path.lexists(self.output))


class Progress(ExportTest):
    def test_shows_on_a_terminal(self) -> None:
        source = backup("--files", "3000")
        for name in ("out", "out.zip"):
            with Terminal(command("export", source, self.folder / name)) as terminal:
                self.assertEqual(terminal.finish(), DONE)
            self.assertIn(b"[", terminal.shown)
            self.assertRegex(terminal.shown, rb"\] [0-9.]+ .?B of [0-9.]+ .?B, ")
            last = terminal.shown.replace(b"\r\n", b"\n").rstrip(b"\n").split(b"\r")[-1]
            self.assertTrue(last.startswith(b"\x1b[Kkelvane: "), last)


if __name__ == "__main__":
    main()
