"""Encrypted backups of old systems, and backups as other programs leave them: everything works on them."""

from __future__ import annotations

import json
import os
import plistlib
import shutil
import subprocess
from pathlib import Path

from editing import NOTES, WELCOME, EditTest
from reading_back import facts_of, read
from tool_testing import DONE, ENCRYPTED, FAILED, PASSWORD_PROBLEM, WITH_PASSWORD, backup, content_of, entries_of, \
    main, make, run, shared

OLD = {"version 2.4": ("--version", "2.4"), "old keybag": ("--old-keybag",), "without DPWT": ("--without-dpwt",)}
UNPADDED, DECRYPTED = ("--manifest-form", "unpadded"), ("--manifest-form", "decrypted")
IS_DECRYPTED = "kelvane: warning: Manifest.db of this encrypted backup is not encrypted itself, and was used as it is"


class OldTest(EditTest):
    def old(self, *options: str) -> Path:
        return backup("--tree", "small", *ENCRYPTED, *options)

    def each(self, options: dict[str, tuple[str, ...]]) -> list[Path]:
        return [self.old(*each) for each in options.values()]


class OldEncryption(OldTest):
    def test_is_described_and_listed(self) -> None:
        for path in self.each(OLD):
            described = json.loads(self.succeed("info", path, "--json", *WITH_PASSWORD))
            self.assertIs(described["encrypted"], True)
            lines = self.succeed("ls", path, "--all", "--json", *WITH_PASSWORD).splitlines()
            self.assertEqual([json.loads(line)["path"] for line in lines],
                             [entry["path"] for entry in entries_of(path)])

    def test_is_copied_out(self) -> None:
        for path in self.each(OLD):
            self.output = self.folder / path.name
            self.extract(path, *WITH_PASSWORD)
            self.assert_extracted_exactly(entries_of(path))
            text = self.succeed("cat", path, NOTES, WELCOME, *WITH_PASSWORD)
            self.assertIn(b"Welcome to your notes", text)

    def test_of_awkward_trees_comes_out_too(self) -> None:
        path = backup(*ENCRYPTED, "--version", "2.4", "--device-bound", "--zip")
        self.extract(path, *WITH_PASSWORD)
        self.assert_extracted_exactly(entries_of(path))

    def test_is_verified(self) -> None:
        for path in self.each(OLD):
            result = run("verify", path, *WITH_PASSWORD)
            self.assertEqual((result.returncode, result.stderr), (DONE, b""), result.stdout)

    def test_tells_damage(self) -> None:
        path = backup("--tree", "small", *ENCRYPTED, "--version", "2.4", "--hostile", "key-damaged", "--hostile",
                      "cipher-padding", "--hostile", "stored-missing")
        result = run("verify", path, "--json", *WITH_PASSWORD)
        kinds = {json.loads(line).get("kind") for line in result.stdout.splitlines()}
        self.assertEqual(result.returncode, FAILED)
        self.assertLessEqual({"key-locked", "undecryptable", "content-missing"}, kinds)

    def test_is_exported(self) -> None:
        for path in self.each(OLD):
            for name in (path.name, f"{path.name}.zip"):
                self.write("export", path, self.folder / name)
                self.assert_sound(self.folder / name)
                found, wanted = facts_of(self.folder / name), self.facts_before(path)
                self.assertEqual(found, wanted)

    def test_is_edited(self) -> None:
        for path in self.each(OLD):
            self.output = self.folder / f"out {path.name}"
            before = self.facts_before(path)
            after = self.edit(path, "--put", NOTES, WELCOME, self.file, "--put", NOTES, "Documents/new.txt", self.file,
                              "--rm", "HomeDomain", "Library/SMS/sms.txt")
            self.assert_changed_only(before, after, (NOTES, WELCOME), (NOTES, "Documents/new.txt"),
                                     ("HomeDomain", "Library/SMS/sms.txt"))
            for name in (WELCOME, "Documents/new.txt"):
                self.assert_content(after[NOTES, name], self.file.read_bytes())
                self.assertEqual(len(after[NOTES, name]["key"]), 44)

    def test_is_edited_in_place(self) -> None:
        for name, options in OLD.items():
            path = make(self.folder / name, "--tree", "small", *ENCRYPTED, *options)
            before = facts_of(path)
            self.fail_with(DONE, "edit", path, "--in-place", "--put", NOTES, "Documents/new.txt", self.file,
                           *WITH_PASSWORD)
            after = facts_of(path)
            self.assert_device_form(path)
            self.assert_changed_only(before, after, (NOTES, "Documents/new.txt"))
            self.assert_content(after[NOTES, "Documents/new.txt"], self.file.read_bytes())

    def test_of_binary_manifests_becomes_a_plain_one(self) -> None:
        path = self.old("--version", "2.4")
        self.fail_with(DONE, "decrypt", path, self.output, *WITH_PASSWORD)
        self.assert_device_form(self.output)
        self.assertFalse(read(self.output).encrypted)
        self.assertEqual({place: facts["sha256"] for place, facts in facts_of(self.output).items()},
                         {place: facts["sha256"] for place, facts in facts_of(path).items()})

    def test_asks_for_the_right_password(self) -> None:
        wrong = self.folder / "wrong"
        wrong.write_text("wrong")
        for path in self.each(OLD):
            messages = self.fail_with(PASSWORD_PROBLEM, "ls", path, "--password-file", wrong)
            self.assertIn("(code 21)", "\n".join(messages))
            self.fail_with(PASSWORD_PROBLEM, "ls", path)

    def test_of_the_two_systems_that_had_their_own_is_refused_by_name(self) -> None:
        path = make(self.folder / "ten", "--tree", "small", *ENCRYPTED)
        values = plistlib.loads((path / "Manifest.plist").read_bytes())
        del values["ManifestKey"]
        values["Lockdown"]["ProductVersion"] = "10.1"
        (path / "Manifest.plist").write_bytes(plistlib.dumps(values))
        wanted = ["kelvane: Encrypted backups are not supported: Backups that iOS 10.1 encrypted are not supported:"
                  " iOS 10.0 and 10.1 did it in a way of their own (code 15)"]
        self.assertEqual(self.fail_with(FAILED, "ls", path), wanted)
        self.assertEqual(self.fail_with(FAILED, "ls", path, *WITH_PASSWORD), wanted)


class OddManifest(OldTest):
    def test_that_lies_decrypted_is_used_with_a_warning(self) -> None:
        path = self.old(*DECRYPTED)
        result = run("ls", path, "--all", *WITH_PASSWORD)
        self.assertEqual((result.returncode, result.stderr.decode().splitlines()), (DONE, [IS_DECRYPTED]))
        self.output.mkdir()
        messages = self.extract(path, "--force", *WITH_PASSWORD)
        self.assertEqual(messages[0], IS_DECRYPTED)
        self.assert_extracted_exactly(entries_of(path))

    def test_without_padding_is_read(self) -> None:
        path = self.old(*UNPADDED)
        self.extract(path, *WITH_PASSWORD)
        self.assert_extracted_exactly(entries_of(path))
        self.assertIn(b"encrypted without padding", run("ls", path, "-v", *WITH_PASSWORD).stderr)

    def test_is_told_of_by_verify(self) -> None:
        for options, kind in ((DECRYPTED, "manifest-decrypted"), (UNPADDED, "manifest-unpadded")):
            result = run("verify", self.old(*options), "--json", *WITH_PASSWORD)
            found, summary = map(json.loads, result.stdout.splitlines())
            self.assertEqual((result.returncode, found["kind"], found["storedName"], summary["problems"]),
                             (DONE, kind, "Manifest.db", 0))

    def test_is_dumped(self) -> None:
        usual = self.succeed("csv", self.old(), *WITH_PASSWORD)
        for options in (UNPADDED, DECRYPTED):
            result = run("csv", self.old(*options), *WITH_PASSWORD)
            self.assertEqual((result.returncode, result.stdout), (DONE, usual))

    def test_that_is_changed_becomes_as_devices_write_it(self) -> None:
        for options in (UNPADDED, DECRYPTED):
            output = self.folder / f"edited {options[-1]}"
            result = run("edit", self.old(*options), output, "--rm", NOTES, WELCOME, *WITH_PASSWORD)
            self.assertEqual(result.returncode, DONE, result.stderr)
            self.assert_device_form(output)

    def test_is_exported_encrypted(self) -> None:
        for options in (UNPADDED, DECRYPTED):
            path, output = self.old(*options), self.folder / options[-1]
            self.assertEqual(run("export", path, output, *WITH_PASSWORD).returncode, DONE)
            self.assertEqual({place: facts["sha256"] for place, facts in facts_of(output).items()},
                             {place: facts["sha256"] for place, facts in facts_of(path).items()})


class InAFolder(OldTest):
    def setUp(self) -> None:
        super().setUp()
        self.above = self.folder / "above"
        self.above.mkdir()
        self.backup = make(self.above / "my backup", "--tree", "small")

    def zipped(self) -> Path:
        (self.above / ".DS_Store").write_bytes(b"x")
        path = self.folder / "archive.zip"
        subprocess.run(["zip", "-q", "-r", str(path), ".", "-x", "*.json"], cwd=self.above, check=True)
        return path

    def test_is_opened(self) -> None:
        for path in (self.above, self.zipped()):
            self.output = self.folder / f"out of {path.name}"
            self.extract(path)
            self.assert_extracted_exactly(entries_of(self.backup))

    def test_is_said_with_v(self) -> None:
        for path in (self.above, self.zipped()):
            self.assertEqual(run("info", path).stderr, b"")
            self.assertIn(f"The backup lies in the folder 'my backup' of '{path}'".encode(),
                          run("info", path, "-v").stderr)

    def test_is_verified_and_exported(self) -> None:
        for path in (self.above, self.zipped()):
            output = self.folder / f"export of {path.name}"
            self.assertEqual(run("export", path, output).returncode, DONE)
            self.assert_sound(output)
            found = json.loads(self.succeed("verify", path, "--json"))
            self.assertEqual(found["problems"], 0)
            self.assertEqual(found["sourceFiles"], len(list(filter(Path.is_file, self.backup.rglob("*")))))

    def test_is_not_chosen_among_several(self) -> None:
        shutil.copytree(self.backup, self.above / "other")
        self.assertEqual(self.fail_with(FAILED, "ls", self.above), [
            f"kelvane: Invalid backup: More than one backup lies in {self.above}: my backup, other (code 10)"])

    def test_leaves_room_beside_it(self) -> None:
        self.write("export", self.backup, self.folder / "wanted")
        self.assertEqual(run("export", self.above, self.above / "beside").returncode, DONE)
        self.assertEqual(facts_of(self.above / "beside"), facts_of(self.folder / "wanted"))

    def test_is_never_written_into(self) -> None:
        folder = next(item for item in self.backup.iterdir() if item.is_dir())
        os.rename(folder, self.folder / "elsewhere")
        os.symlink(self.folder / "elsewhere", folder)
        for target in (self.backup / "new", folder.parent / "new" / "deep"):
            for name, words in (("export", (target,)), ("extract", ("-o", target))):
                self.assertEqual(self.fail_with(FAILED, name, self.above, *words),
                                 [f"kelvane: '{target}' would lie inside the backup"])


if __name__ == "__main__":
    main()
