"""How the tool says what is wrong: exit statuses, the form of messages, usage and the log."""

from __future__ import annotations

import os
import plistlib
from pathlib import Path

from tool_testing import DONE, ENCRYPTED, FAILED, SAMPLES, ToolTest, USAGE, WITH_PASSWORD, backup, entries_of, main, \
    make, run

COMMANDS = ("info", "ls", "cat", "extract")
NOTES = "AppDomain-com.example.notes"
INVALID = "kelvane: Invalid backup: "


def small(*options: str) -> Path:
    return backup("--tree", "small", *options)


class Usage(ToolTest):
    def assert_wrong(self, *arguments: str | Path) -> None:
        messages = self.fail_with(USAGE, *arguments)
        self.assertTrue(messages)
        for line in messages:
            self.assertTrue(line.startswith("kelvane: "), line)

    def test_without_a_command(self) -> None:
        self.assert_wrong()

    def test_of_an_unknown_command(self) -> None:
        self.assert_wrong("frobnicate", small())

    def test_without_a_backup(self) -> None:
        for name in COMMANDS:
            with self.subTest(name):
                self.assert_wrong(name)

    def test_of_an_unknown_option(self) -> None:
        for name in COMMANDS:
            with self.subTest(name):
                self.assert_wrong(name, small(), "--frobnicate")

    def test_of_options_without_their_value(self) -> None:
        for option in ("--password-file", "--temp"):
            self.assert_wrong("info", small(), option)
        self.assert_wrong("extract", small(), "-o")

    def test_of_cat_without_domain_and_path(self) -> None:
        self.assert_wrong("cat", small())
        self.assert_wrong("cat", small(), NOTES)

    def test_of_extract_without_a_directory(self) -> None:
        self.assert_wrong("extract", small())

    def test_of_empty_file_names(self) -> None:
        for option in ("--temp", "--password-file"):
            self.assert_wrong("ls", SAMPLES / "plain-3.2", option, "")

    def test_of_everything_and_a_domain(self) -> None:
        self.assert_wrong("ls", small(), NOTES, "--all")

    def test_of_too_many_arguments(self) -> None:
        self.assert_wrong("info", small(), "more")
        self.assert_wrong("ls", small(), NOTES, "Documents", "more")

    def test_of_options_of_other_commands(self) -> None:
        self.assert_wrong("info", small(), "--force")
        self.assert_wrong("cat", small(), NOTES, "x", "--json")

    def test_of_arguments_with_control_characters(self) -> None:
        result = run("ls", small(), "a", "b", "\x1b[31mred\n")
        self.assertEqual(result.returncode, USAGE)
        self.assertNotIn(b"\x1b", result.stderr)


class Help(ToolTest):
    def test_tells_of_all_commands(self) -> None:
        text = self.succeed("--help").decode()
        for name in COMMANDS:
            self.assertRegex(text, rf"(?m)^  {name} ")
        self.assertIn("Exit status: 0 done, 1 something failed, 2 wrong usage, 3 password", text)

    def test_of_each_command_tells_of_its_options(self) -> None:
        own = {"info": ("--json",), "ls": ("-R", "-l", "--all", "--json", "DOMAIN", "PATH"), "cat": ("DOMAIN", "PATH"),
               "extract": ("-o", "--force", "DOMAIN", "PATH")}
        for name, options in own.items():
            for asked in ("--help", "-h"):
                text = self.succeed(name, asked).decode()
                for option in (*options, "BACKUP", "--password-file", "--temp", "-v"):
                    self.assertIn(option, text)

    def test_needs_no_valid_arguments(self) -> None:
        self.succeed("cat", "--help")
        self.succeed("extract", "/no/such/backup", "--help")

    def test_of_the_version(self) -> None:
        self.assertRegex(self.succeed("--version").decode(), r"^kelvane \d+\.\d+\.\d+\n$")


class Messages(ToolTest):
    def test_of_a_backup_that_does_not_exist(self) -> None:
        missing = self.folder / "missing"
        self.assertEqual(self.fail_with(FAILED, "info", missing), [
            f"kelvane: '{missing}' cannot be opened",
            "  caused by: No such file or directory (NSPOSIXErrorDomain 2)"])

    def test_of_an_empty_directory(self) -> None:
        empty = self.folder / "empty"
        empty.mkdir()
        messages = self.fail_with(FAILED, "info", empty)
        self.assertEqual(messages, [
            INVALID + "Backup metadata file missing. Are you sure this is a valid backup? (Manifest.plist) (code 10)",
            f"  caused by: File not found: File does not exist at path '{empty}/Manifest.plist' (code 16)"])

    def test_of_a_file_that_is_no_zip(self) -> None:
        path = self.folder / "file"
        for content in (b"", b"PK\x05\x06", b"no zip at all\n" * 1000):
            path.write_bytes(content)
            self.assertEqual(self.fail_with(FAILED, "info", path),
                             [f"{INVALID}Failed to open zip file ({path}) (code 10)"])

    def test_of_a_fifo_and_a_device(self) -> None:
        fifo = self.folder / "fifo"
        os.mkfifo(fifo)
        for path in (fifo, Path("/dev/null")):
            self.assertEqual(self.fail_with(FAILED, "info", path),
                             [f"{INVALID}Failed to open zip file ({path}) (code 10)"])

    def test_of_a_zip_without_info_name_the_foreign_domain(self) -> None:
        messages = self.fail_with(FAILED, "info", small("--zip", "--without-info"))
        self.assertEqual(messages[:2], [
            INVALID + "Failed to load backup metadata file (Info.plist) (code 10)",
            "  caused by: Invalid backup: Could not locate file record in zip (code 10)"])
        self.assertRegex(messages[2], r"^  caused by: .+ \([^ ()]+ -100\)$")
        self.assertNotIn("(code", messages[2])

    def test_of_an_unknown_version(self) -> None:
        path = self.copy()
        self.edit(path / "Status.plist", Version="3.4")
        self.assertEqual(self.fail_with(FAILED, "info", path), [
            "kelvane: Backup metadata references an unknown manifest version (please report to developer):"
            " Unsupported version '3.4' specified (code 12)"])

    def test_of_a_missing_version(self) -> None:
        path = self.copy()
        self.edit(path / "Status.plist", Version="")
        self.assertEqual(self.fail_with(FAILED, "info", path), [INVALID + "The manifest version is missing (code 10)"])

    def test_hold_no_control_characters_of_the_backup(self) -> None:
        path = self.copy()
        self.edit(path / "Status.plist", Version="\x1b[31m\n3.3\x07\u009b\x7f")
        messages = self.fail_with(FAILED, "info", path)
        self.assertEqual(messages, [
            "kelvane: Backup metadata references an unknown manifest version (please report to developer):"
            r" Unsupported version '\e[31m\n3.3\x07\xC2\x9B\x7F' specified (code 12)"])

    def test_of_a_damaged_database(self) -> None:
        path = self.copy()
        (path / "Manifest.db").write_bytes(b"no database at all" * 100)
        messages = self.fail_with(FAILED, "ls", path)
        self.assertRegex(messages[0], r"^kelvane: Backup manifest database is invalid: .* \(code 11\)$")
        self.assertRegex(messages[1], r"^  caused by: .* \(.*\d+\)$")

    def test_of_a_damaged_binary_manifest(self) -> None:
        path = self.copy("--version", "2.4")
        (path / "Manifest.mbdb").write_bytes(b"mbdb\x05\x00\x00")
        messages = self.fail_with(FAILED, "ls", path)
        self.assertEqual(messages[0], "kelvane: Error loading external representation of backup data: An error ocurred"
                                      " while loading manifest file (code 8)")
        self.assertTrue(messages[1].startswith("  caused by: "), messages)

    def test_of_a_keybag_that_lacks_a_field(self) -> None:
        path = self.copy(*ENCRYPTED)
        values = plistlib.loads((path / "Manifest.plist").read_bytes())
        values["BackupKeyBag"] = values["BackupKeyBag"].replace(b"DPSL", b"XPSL")
        (path / "Manifest.plist").write_bytes(plistlib.dumps(values))
        self.assertEqual(self.fail_with(FAILED, "ls", path, *WITH_PASSWORD),
                         ["kelvane: Backup KeyBag is invalid: Missing DPSL field (code 17)"])

    def test_of_an_unknown_domain_and_path(self) -> None:
        for name in ("ls", "extract"):
            more = ("-o", str(self.output)) if name == "extract" else ()
            self.assertEqual(self.fail_with(FAILED, name, small(), "No", *more),
                             ["kelvane: The backup has no domain 'No'"])
            self.assertEqual(self.fail_with(FAILED, name, small(), NOTES, "no", *more),
                             [f"kelvane: The domain '{NOTES}' has nothing at 'no'"])

    def test_of_cat(self) -> None:
        missing = "kelvane: No item exists in backup at this path: File not in backup (code 5)"
        self.assertEqual(self.fail_with(FAILED, "cat", small(), NOTES, "no"), [missing])
        self.assertEqual(self.fail_with(FAILED, "cat", small(), "no", "Documents/Welcome.txt"), [missing])
        for path in ("", "Documents", "Documents/Gone"):
            self.assertEqual(self.fail_with(FAILED, "cat", small(), NOTES, path),
                             [f"kelvane: {f'{NOTES}/{path}'.rstrip('/')}: This is not a file"])

    def test_of_a_manifest_that_cannot_be_read_names_it(self) -> None:
        path = self.copy()
        (path / "Manifest.db").unlink()
        (path / "Manifest.db").mkdir()
        self.assertEqual(self.fail_with(FAILED, "info", path), [
            "kelvane: Unknown Error: Failed to hash file - Manifest.db: Not a regular file: Is a directory (code 1)"])

    def test_of_a_missing_stored_file(self) -> None:
        path = small("--hostile", "stored-missing")
        entry = next(entry for entry in entries_of(path) if entry["damaged"])
        name = entry["fileID"][:2] + "/" + entry["fileID"]
        self.assertEqual(self.fail_with(FAILED, "cat", path, entry["domain"], entry["path"]), [
            f"kelvane: {entry['domain']}/{entry['path']}: its stored content is missing",
            f"  caused by: Error loading external representation of backup data: Failed to load file ({name}) (code 8)",
            f"  caused by: File not found: File does not exist at path '{path}/{name}' (code 16)"])

    def test_of_arguments_that_are_no_text(self) -> None:
        messages = self.fail_with(FAILED, "ls", small(), os.fsdecode(b"\xff"))
        self.assertEqual(messages, ["kelvane: The argument '\\xFF' is not UTF-8 text"])

    def copy(self, *options: str) -> Path:
        return make(self.folder / "copy", "--tree", "small", *options)

    def edit(self, path: Path, **values: str) -> None:
        path.write_bytes(plistlib.dumps(plistlib.loads(path.read_bytes()) | values, fmt=plistlib.FMT_BINARY))

    def fail_with(self, status: int, *arguments: str | Path, **options: object) -> list[str]:
        result = run(*arguments, **options)
        self.assertEqual((result.returncode, result.stdout), (status, b""), result.stderr)
        self.assert_no_leftovers()
        return result.stderr.decode(errors="surrogateescape").splitlines()


class Log(ToolTest):
    def log(self, *options: str) -> list[str]:
        sample = SAMPLES / "encrypted-3.3"
        result = run("info", sample, "--password-file", SAMPLES / "password.txt", *options)
        self.assertEqual((result.returncode, result.stdout),
                         (DONE, self.succeed("info", sample, "--password-file", SAMPLES / "password.txt")))
        return result.stderr.decode().splitlines()

    def test_is_silent_without_being_asked(self) -> None:
        self.assertEqual(self.log(), [])

    def test_shows_milestones_when_asked(self) -> None:
        lines = self.log("-v")
        self.assertTrue(any("Successfully decrypted manifest" in line for line in lines), lines)
        self.assertFalse(any("Will decrypt manifest version" in line for line in lines))

    def test_shows_all_when_asked_twice(self) -> None:
        for options in (("-vv",), ("-v", "-v"), ("--verbose", "--verbose")):
            lines = self.log(*options)
            self.assertTrue(any("Will decrypt manifest version '3.3'" in line for line in lines), lines)
            self.assertTrue(any("Successfully decrypted manifest" in line for line in lines))

    def test_lines_begin_with_the_tool(self) -> None:
        for line in self.log("-vv"):
            self.assertTrue(line.startswith("kelvane: log: "), line)

    def test_tells_no_password(self) -> None:
        password = (SAMPLES / "password.txt").read_text().splitlines()[0]
        self.assertNotIn(password, "\n".join(self.log("-vv")))

    def test_keeps_what_the_library_prints_out_of_the_output(self) -> None:
        # A row without a file ID is reported with print when entries are looked up by ID.
        path = small("--hostile", "file-id-empty")
        welcome = next(entry for entry in entries_of(path) if entry["path"].endswith("Welcome.txt"))
        arguments = ("cat", path, welcome["domain"], welcome["path"])
        self.assertEqual(len(self.succeed(*arguments)), welcome["size"])

    def test_escapes_what_the_library_prints(self) -> None:
        path = make(self.folder / "broken", "--tree", "small", "--version", "2.4")
        (path / "Manifest.mbdb").write_bytes(b"no manifest")
        plain, verbose = run("ls", path), run("ls", path, "-v")
        self.assertNotIn(b"KVManifestCreateFromManifestData", plain.stdout + plain.stderr)
        self.assertEqual(verbose.stdout, b"")
        self.assertIn(b"kelvane: log: KVManifestCreateFromManifestData: ", verbose.stderr)


if __name__ == "__main__":
    main()
