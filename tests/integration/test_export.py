"""`export`: the whole backup written anew, with nothing lost."""

from __future__ import annotations

import os
import plistlib
import zipfile
from pathlib import Path
from typing import Any

from exporting import CIPHER, ExportTest
from reading_back import account, facts_of, raw, read
from terminal import Terminal
from tool_testing import DONE, ENCRYPTED, FAILED, PASSWORD_PROBLEM, USAGE, WITH_PASSWORD, backup, command, \
    entries_of, main, make, run, snapshot


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
        self.assert_same_entries(facts_of(target), self.facts_before(source))
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

    def test_backup_without_entries(self) -> None:
        self.check(backup("--tree", "none"), self.output)

    def test_many_small_files(self) -> None:
        self.check(backup("--files", "3000"), self.output)

    def test_large_file(self) -> None:
        source = backup("--tree", "none", "--size-of-one", "20000001")
        self.check(source, self.output)
        self.check(source, self.folder / "large.zip")


class WholeInLegacyForm(Whole):
    legacy = True

    def test_is_not_what_devices_write(self) -> None:
        for name, options in (("plain", ()), ("encrypted", CIPHER)):
            self.write("export", backup("--tree", "small", *options), target := self.folder / name)
            faults = "\n".join(account(read(target, strict=True)))
            for reason in ("the root is {'root': {'CF$UID': 1}}", "auto_vacuum is 0", "FilesFlagsIdx is made by"):
                self.assertIn(reason, faults)

    def test_backup_without_info(self) -> None:
        self.check(backup("--tree", "small", "--without-info"), self.output)


class Untouched(ExportTest):
    """What a device wrote comes out as it went in."""

    def check(self, *options: str) -> None:
        source = backup(*options)
        target = self.folder / f"out {source.name}"
        self.write("export", source, target)
        self.accepted("diff", "-r", source, target)
        self.write("export", source, zipped := self.folder / f"{source.name}.zip")
        self.assertEqual(raw(zipped), raw(source))
        self.write("export", zipped, again := self.folder / f"again {source.name}")
        self.assertEqual(raw(again), raw(source))

    def test_binary_manifest(self) -> None:
        self.check("--version", "2.4")

    def test_databases(self) -> None:
        for version in ("3.0", "3.1", "3.2", "3.3"):
            with self.subTest(version):
                self.check("--version", version, "--placeholders", "3")

    def test_encrypted(self) -> None:
        self.check("--version", "3.3", "--placeholders", "3", *CIPHER)

    def test_edit_of_nothing(self) -> None:
        source = backup(*CIPHER)
        self.write("edit", source, self.output)
        self.accepted("diff", "-r", source, self.output)

    def test_without_info(self) -> None:
        source = backup("--tree", "small", "--without-info")
        self.write("export", source, self.output)
        self.accepted("diff", "-r", source, self.output)

    def test_binary_info_and_xml_status(self) -> None:
        source = make(self.folder / "source", "--tree", "small")
        for name, form in (("Info.plist", plistlib.FMT_BINARY), ("Status.plist", plistlib.FMT_XML)):
            content = plistlib.loads((source / name).read_bytes())
            (source / name).write_bytes(plistlib.dumps(content, fmt=form))
        self.write("export", source, self.output)
        self.accepted("diff", "-r", source, self.output)


class Unlisted(ExportTest):
    """Files that no entry names."""

    def source(self, *options: str) -> Path:
        source = make(self.folder / "source", "--tree", "small", *options)
        for name in ("Snapshot/Manifest.db", "notes.txt", "ab/" + "ab" * 20):
            (source / name).parent.mkdir(exist_ok=True)
            (source / name).write_bytes(name.encode())
        (source / "Manifest.db-shm").write_bytes(b"shared memory")
        return source

    def test_are_left_out_and_counted(self) -> None:
        source = self.source()
        messages = self.write("export", source, self.output)
        self.assertEqual(messages[-1], "kelvane: 3 files of the backup are not named by its manifest and were left out"
                         " (see --keep-unlisted)")
        self.assertEqual(raw(source).keys() - raw(self.output).keys(),
                         {"Snapshot/Manifest.db", "notes.txt", "ab/" + "ab" * 20, "Manifest.db-shm"})

    def test_are_taken_along_when_asked_for(self) -> None:
        source = self.source(*CIPHER)
        for target in (self.output, self.folder / "out.zip"):
            messages = self.write("export", source, target, "--keep-unlisted")
            self.assertEqual(messages[-1],
                             "kelvane: 3 files of the backup are not named by its manifest and were taken along")
            wanted = raw(source)
            wanted.pop("Manifest.db-shm")
            self.assertEqual(raw(target), wanted)

    def test_are_none_whose_entries_were_removed(self) -> None:
        source = self.source()
        gone = {entry["fileID"] for entry in entries_of(source, "file") if entry["domain"] == "CameraRollDomain"}
        self.write("edit", source, self.output, "--keep-unlisted", "--rm", "CameraRollDomain", "")
        self.assertFalse(gone & {os.path.basename(name) for name in raw(self.output)})
        self.assertIn("notes.txt", raw(self.output))


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

    def test_inside_the_backup_by_a_relative_name_is_refused(self) -> None:
        source = make(self.folder / "backup", "--tree", "small")
        before = snapshot(source)
        for target in ("out", "a/b", "out.zip"):
            with self.subTest(target):
                self.assertEqual(self.fail_with(FAILED, "export", ".", target, cwd=source),
                                 [f"kelvane: '{target}' would lie inside the backup"])
        self.assertEqual(snapshot(source), before)

    def test_names_files_without_a_file_id(self) -> None:
        source = make(self.folder / "backup", "--tree", "small", "--hostile", "file-id-empty")
        messages = self.export(source, status=FAILED)
        self.assertTrue(any("could not be written" in line for line in messages), messages)
        self.assertIn("1 file skipped", messages[-1])

    def test_beside_the_backup_is_not_inside(self) -> None:
        source = make(self.folder / "backup", "--tree", "small")
        self.fail_with(DONE, "export", source, self.folder / "backup2")

    def test_is_not_the_root_of_all(self) -> None:
        self.assertEqual(self.fail_with(FAILED, "export", backup("--tree", "small"), "/"),
                         ["kelvane: '/' exists already"])

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


class Metadata(ExportTest):
    """What the library cannot read, or cannot write anew, is not replaced by nothing."""

    NO_LIST = b"no property list \xff\x00"

    def check(self, command: str, *options: str) -> None:
        source = make(self.folder / "source", "--tree", "small", *options)
        for name in ("Info.plist", "Manifest.plist"):
            (source / name).write_bytes(self.NO_LIST)
        messages = self.fail_with(DONE, command, source, self.output)
        for name in ("Info.plist", "Manifest.plist"):
            self.assertEqual(raw(self.output)[name], self.NO_LIST)
            [warning] = [line for line in messages if line.startswith("kelvane: warning: ") and name in line]
            self.assertIn(f"File {name} could not be read and was copied as it is (code 20)", warning)
        self.succeed("ls", self.output)

    def test_that_cannot_be_read_is_copied_to_a_directory(self) -> None:
        self.check("export")

    def test_that_cannot_be_read_is_copied_to_a_zip(self) -> None:
        self.zip_output()
        self.check("export", "--version", "2.4")

    def test_that_cannot_be_read_survives_an_edit(self) -> None:
        self.check("edit")

    def test_that_cannot_be_read_is_told_of_by_info(self) -> None:
        source = make(self.folder / "source", "--tree", "small")
        (source / "Info.plist").write_bytes(b"")
        result = run("info", source)
        self.assertEqual(result.returncode, DONE)
        self.assertIn(b"warning: Backup metadata is missing or invalid: The file is empty (Info.plist)", result.stderr)


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
