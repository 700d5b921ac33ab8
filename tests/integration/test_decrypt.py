"""`decrypt`: a plain backup of what an encrypted one holds."""

from __future__ import annotations

import plistlib
import sqlite3
from pathlib import Path

from exporting import CIPHER, ExportTest
from reading_back import PLISTS, Place, facts_of, raw, read
from tool_testing import DONE, ENCRYPTED, FAILED, PASSWORD_PROBLEM, WITH_PASSWORD, backup, main, make, run

from backup_maker import hostile  # found through tool_testing

NOTES = "AppDomain-com.example.notes"


class Decrypted(ExportTest):
    def decrypt(self, source: Path, target: Path, *options: str | Path, status: int = DONE) -> list[str]:
        return self.fail_with(status, "decrypt", source, target, *options, *WITH_PASSWORD)

    def assert_plain(self, source: Path, target: Path, left_out: tuple[Place, ...] = ()) -> None:
        """All that the source holds, sound by everything at hand, and opened without a password."""
        self.assertFalse(read(target).encrypted)
        self.assert_sound(target)
        before, after = facts_of(source), facts_of(target)
        for facts in before.values():
            digest, facts["key"] = facts["digest"], None
            facts["digest"] = None if digest is None else "of the plaintext"
        for facts in after.values():
            facts["digest"] = None if facts["digest"] is None else "of the plaintext"
        self.assert_same_entries(after, {place: facts for place, facts in before.items() if place not in left_out})

    def assert_metadata(self, source: Path, target: Path) -> None:
        one, other = raw(source), raw(target)
        for name in PLISTS[1:]:
            self.assertEqual(one[name], other[name], name)
        wanted = plistlib.loads(one["Manifest.plist"])
        wanted.pop("ManifestKey")
        wanted["IsEncrypted"] = False
        self.assertEqual(plistlib.loads(other["Manifest.plist"]), wanted)
        self.assertIn("BackupKeyBag", wanted)

    def test_holds_the_plaintext_of_all(self) -> None:
        for options in (("--version", "3.2"), ("--version", "3.3", "--placeholders", "3"), ("--version", "3.3", "--zip")):
            source = backup(*options, *CIPHER)
            for target in (self.folder / f"out {source.name}", self.folder / f"out {source.name}.zip"):
                with self.subTest(options=options, target=target.name):
                    self.decrypt(source, target)
                    self.assert_plain(source, target)
                    self.assert_metadata(source, target)

    def test_of_empty_files_has_no_bytes(self) -> None:
        self.decrypt(backup(*CIPHER), self.output)
        empty = [entry for entry in read(self.output).entries if entry.kind == "file" and entry.size == 0]
        self.assertTrue(empty)
        for entry in empty:
            self.assertEqual((self.output / entry.file_id[:2] / entry.file_id).read_bytes(), b"")

    def test_of_one_domain(self) -> None:
        source = backup("--tree", "small", *CIPHER)
        self.decrypt(source, self.output, "--domain", NOTES)
        others = tuple(place for place in facts_of(source) if place[0] != NOTES)
        self.assertTrue(others)
        self.assert_plain(source, self.output, others)

    def test_of_several_domains(self) -> None:
        source = backup("--tree", "small", *CIPHER)
        self.decrypt(source, self.output, "--domain", NOTES, "--domain", "HomeDomain")
        self.assertEqual({entry.domain for entry in read(self.output).entries}, {NOTES, "HomeDomain"})

    def test_of_a_domain_that_is_not_there_is_refused(self) -> None:
        messages = self.decrypt(backup("--tree", "small", *CIPHER), self.output, "--domain", "NoDomain", status=FAILED)
        self.assertEqual(messages, ["kelvane: There is no domain 'NoDomain' in the backup"])
        self.assert_vanished()

    def test_leaves_out_and_names_what_stays_locked(self) -> None:
        source = make(self.folder / "source", "--tree", "small", "--hostile", "device-bound", *CIPHER)
        path = "Documents/device-bound.txt"
        messages = self.decrypt(source, self.output, status=FAILED)
        self.assertTrue(any(f"{hostile.DOMAIN}/{path}: " in line for line in messages), messages)
        self.assertTrue(messages[-1].endswith("; 1 file skipped"), messages)
        self.assert_sound(self.output)
        self.assertNotIn((hostile.DOMAIN, path), facts_of(self.output))

    def test_leaves_out_and_names_what_is_damaged(self) -> None:
        source = make(self.folder / "source", "--tree", "small", *ENCRYPTED)
        victim = next(entry for entry in read(source).entries if entry.kind == "file" and entry.size > 100)
        stored = source / victim.file_id[:2] / victim.file_id
        stored.write_bytes(stored.read_bytes()[:-5])
        messages = self.decrypt(source, self.output, status=FAILED)
        self.assertTrue(any(f"{victim.domain}/{victim.path}: " in line for line in messages), messages)
        self.assert_sound(self.output)
        self.assertNotIn((victim.domain, victim.path), facts_of(self.output))

    def test_leaves_out_and_names_what_has_no_key(self) -> None:
        source = make(self.folder / "source", "--tree", "small", "--hostile", "key-missing", *ENCRYPTED)
        messages = self.decrypt(source, self.output, status=FAILED)
        self.assertTrue(any("The file has no key" in line for line in messages), messages)
        self.assertTrue(messages[-1].endswith("; 1 file skipped"), messages)
        self.assert_sound(self.output)

    def test_of_forged_names_of_metadata_keeps_the_digests(self) -> None:
        source = make(self.folder / "source", "--tree", "small", "--manifest-form", "decrypted", *ENCRYPTED)
        connection = sqlite3.connect(source / "Manifest.db")
        connection.execute("UPDATE Files SET fileID = 'Manifest.db' WHERE rowid = (SELECT min(rowid) FROM Files WHERE"
                           " flags = 1)")
        connection.commit()
        connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        connection.close()
        result = run("decrypt", source, self.output, *WITH_PASSWORD)
        self.assertEqual(result.returncode, FAILED)
        self.assertIn(b"File Manifest.db could not be written", result.stderr)
        self.assert_sound(self.output)

    def test_of_old_backups(self) -> None:
        source = backup("--version", "2.4", *ENCRYPTED)
        self.decrypt(source, self.output)
        self.assert_plain(source, self.output)

    def test_of_a_plain_backup_is_refused(self) -> None:
        self.assertEqual(self.fail_with(FAILED, "decrypt", backup("--tree", "small"), self.output),
                         ["kelvane: The backup is not encrypted; 'kelvane export' writes a copy of it"])
        self.assert_vanished()

    def test_needs_the_password(self) -> None:
        self.fail_with(PASSWORD_PROBLEM, "decrypt", backup("--tree", "small", *CIPHER), self.output)
        self.assert_vanished()


if __name__ == "__main__":
    main()
