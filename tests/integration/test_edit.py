"""`edit`: what it changes, and what it keeps."""

from __future__ import annotations

import hashlib
import os
import sqlite3
import stat
from pathlib import Path

from editing import CIPHER, EditTest, Facts, LATEST, NOTES, SHOPPING, SIZES, WELCOME
from reading_back import Place, facts_of, raw, read, rows
from tool_testing import DONE, ENCRYPTED, FAILED, USAGE, WITH_PASSWORD, backup, entries_of, main, make, run

from backup_maker import hostile  # found through tool_testing

KEPT = ("mode", "uid", "gid", "birth", "modified", "changed", "inode", "protection")
FRESH_FILE = {"mode": 0o100644, "uid": 501, "gid": 501, "protection": 4}
FRESH_DIRECTORY = {"mode": 0o040755, "uid": 501, "gid": 501, "protection": 0, "size": 0, "key": None}


def identifier(domain: str, path: str) -> str:
    return hashlib.sha1(f"{domain}-{path}".encode()).hexdigest()


class Put(EditTest):
    def test_of_a_file_whose_size_is_not_known_beforehand(self) -> None:
        source = backup("--tree", "small")
        self.write("edit", source, self.output, "--put", "HomeDomain", "status", "/proc/version")
        self.assert_sound(self.output)
        content = run("cat", self.output, "HomeDomain", "status").stdout
        self.assertEqual(content, Path("/proc/version").read_bytes())

    def test_over_nothing_makes_the_directories_above(self) -> None:
        for before, after in self.edit_each_form("--put", NOTES, "new/a/b.txt", self.file):
            places = [(NOTES, path) for path in ("new", "new/a", "new/a/b.txt")]
            self.assert_changed_only(before, after, *places)
            for place in places[:2]:
                self.assertEqual({key: after[place][key] for key in FRESH_DIRECTORY}, FRESH_DIRECTORY)
            self.assertEqual({key: after[places[2]][key] for key in FRESH_FILE}, FRESH_FILE)
            self.assert_content(after[places[2]], self.file.read_bytes())

    def test_into_a_new_domain_makes_its_root(self) -> None:
        for before, after in self.edit_each_form("--put", "NewDomain", "a/b/c", self.file):
            self.assertEqual(self.messages[0], "kelvane: note: the domain 'NewDomain' is new in this backup")
            places = [("NewDomain", path) for path in ("", "a", "a/b", "a/b/c")]
            self.assertEqual(set(after) - set(before), set(places))
            self.assert_changed_only(before, after, *places)

    def test_over_a_file_keeps_its_attributes(self) -> None:
        for before, after in self.edit_each_form("--put", NOTES, WELCOME, self.file):
            place = (NOTES, WELCOME)
            self.assert_changed_only(before, after, place)
            self.assertEqual({key: after[place][key] for key in KEPT}, {key: before[place][key] for key in KEPT})
            self.assert_content(after[place], self.file.read_bytes())

    def test_over_files_of_every_class_gives_fresh_keys_of_the_class(self) -> None:
        source = backup("--device-bound", *ENCRYPTED)
        names = [f"Documents/size-{size:06}.bin" for size in (1, 15, 16, 17)]
        operations = [word for name in names for word in ("--put", SIZES, name, str(self.file))]
        before, after = self.facts_before(source), self.edit(source, *operations)
        self.assertEqual({before[SIZES, name]["protection"] for name in names}, {1, 2, 3, 4})
        keybag = read(self.output).keybag
        assert keybag is not None
        keys = set()
        for name in names:
            old, new = before[SIZES, name], after[SIZES, name]
            self.assertEqual(new["protection"], old["protection"])
            self.assertEqual(new["key"][:4], old["protection"].to_bytes(4, "little"))
            self.assertNotEqual(new["key"], old["key"])
            keys.add(keybag.unlock(new["key"]))
            self.assert_content(new, self.file.read_bytes())
        self.assertEqual(len(keys), 4)

    def test_records_the_stored_content(self) -> None:
        for options in ((), CIPHER):
            source = backup("--tree", "small", *options)
            self.output = self.folder / f"out{len(options)}"
            facts = self.edit(source, "--put", NOTES, WELCOME, self.file)[NOTES, WELCOME]
            identifier = facts["file_id"]
            stored = (self.output / identifier[:2] / identifier).read_bytes()
            size = len(stored) if self.legacy else self.file.stat().st_size
            self.assertEqual((facts["size"], facts["digest"]), (size, hashlib.sha1(stored).digest()))
            self.assertEqual(stored == self.file.read_bytes(), not options)

    def test_over_a_link_makes_a_file(self) -> None:
        for before, after in self.edit_each_form("--put", NOTES, LATEST, self.file):
            self.assert_changed_only(before, after, (NOTES, LATEST))
            self.assertEqual({key: after[NOTES, LATEST][key] for key in FRESH_FILE}, FRESH_FILE)
            self.assertEqual(after[NOTES, LATEST]["target"], "")

    def test_over_a_directory_is_refused(self) -> None:
        for source in self.each_form():
            self.assertEqual(self.refuse(source, "--put", NOTES, "Documents", self.file), [
                f"kelvane: put {NOTES} Documents {self.file}: A directory is there; remove it first, with all that is"
                " in it, to replace it"])

    def test_over_a_directory_that_is_removed_first(self) -> None:
        for before, after in self.edit_each_form("--rm", NOTES, "Documents", "--put", NOTES, "Documents", self.file):
            gone = {place for place in before if place[0] == NOTES and place[1].split("/")[0] == "Documents"}
            self.assertGreater(len(gone), 3)
            self.assert_changed_only(before, after, *gone)
            self.assertEqual(gone & set(after), {(NOTES, "Documents")})
            self.assert_content(after[NOTES, "Documents"], self.file.read_bytes())

    def test_of_an_empty_file(self) -> None:
        self.file.write_bytes(b"")
        for _, after in self.edit_each_form("--put", NOTES, WELCOME, self.file, "--put", NOTES, "empty", self.file):
            self.assert_content(after[NOTES, WELCOME], b"")
            self.assert_content(after[NOTES, "empty"], b"")

    def test_of_a_large_file(self) -> None:
        content = os.urandom(5_000_001)
        self.file.write_bytes(content)
        for options in ((), CIPHER):
            self.output = self.folder / f"out{len(options)}"
            after = self.edit(backup("--tree", "small", *options), "--put", NOTES, "large.bin", self.file)
            self.assert_content(after[NOTES, "large.bin"], content)

    def test_of_one_file_to_many_places(self) -> None:
        operations = [word for name in ("one", "two", "a/three") for word in ("--put", NOTES, name, str(self.file))]
        after = self.edit(backup("--tree", "small", *CIPHER), *operations)
        facts = [after[NOTES, name] for name in ("one", "two", "a/three")]
        self.assertEqual(len({one["sha256"] for one in facts}), 1)
        self.assertEqual(len({one["key"] for one in facts}), 3)

    def test_twice_to_one_place_stores_the_last(self) -> None:
        (second := self.folder / "second").write_text("second")
        for options in ((), CIPHER):
            self.output = self.folder / f"out{len(options)}"
            after = self.edit(backup("--tree", "small", *options), "--put", NOTES, WELCOME, self.file,
                              "--put", NOTES, WELCOME, second)
            self.assert_content(after[NOTES, WELCOME], b"second")

    def test_below_what_is_no_directory_is_refused(self) -> None:
        source = backup("--tree", "small")
        for above in (WELCOME, LATEST):
            self.assertEqual(self.refuse(source, "--put", NOTES, f"{above}/x/y", self.file), [
                f"kelvane: put {NOTES} {above}/x/y {self.file}: '{above}' is no directory"])

    def test_of_what_is_no_file_is_refused(self) -> None:
        os.mkfifo(fifo := self.folder / "fifo")
        for path in (self.folder / "none", self.folder, fifo):
            messages = self.refuse(backup("--tree", "small"), "--put", NOTES, "x", path)
            self.assertTrue(messages[0].startswith(f"kelvane: put {NOTES} x {path}: "), messages)

    def test_of_a_relative_name_is_from_the_current_directory(self) -> None:
        self.fail_with(DONE, "edit", backup("--tree", "small"), "out", "--put", NOTES, "x", "new.txt", cwd=self.folder)
        self.assertEqual(self.succeed("cat", self.folder / "out", NOTES, "x"), self.file.read_bytes())

    def test_over_a_file_whose_key_stays_locked_gives_one_that_opens(self) -> None:
        # Its class opens, though its key names one of the device's own.
        source = backup("--tree", "small", "--hostile", "device-bound", *CIPHER)
        self.edit(source, "--mkdir", hostile.DOMAIN, "Documents", "--put", hostile.DOMAIN, "Documents/device-bound.txt",
                  self.file)


    def test_of_an_empty_file_stores_a_block_of_padding(self) -> None:
        self.file.write_bytes(b"")
        facts = self.edit(backup("--tree", "small", *CIPHER), "--put", NOTES, "empty", self.file)[NOTES, "empty"]
        stored = raw(self.output)[f"{facts['file_id'][:2]}/{facts['file_id']}"]
        self.assertEqual((len(stored), facts["size"]), (0 if self.legacy else 16, 0))


class PutInLegacyForm(Put):
    legacy = True


class Kept(EditTest):
    """What a change does not concern stays as the device wrote it, byte for byte."""

    def test_rows_in_their_order(self) -> None:
        for options in ((), CIPHER):
            source = backup("--placeholders", "3", *options)
            self.output = self.folder / f"out{len(options)}"
            self.edit(source, "--put", NOTES, WELCOME, self.file, "--rm", NOTES, SHOPPING, "--mkdir", NOTES, "new")
            before, after = ({row[0]: row for row in rows(self.plain_database(raw(path), read(path)))}
                             for path in (source, self.output))
            changed = {identifier(NOTES, path) for path in (WELCOME, SHOPPING, "new")}
            self.assertEqual({key: row for key, row in after.items() if key not in changed},
                             {key: row for key, row in before.items() if key not in changed})
            self.assertEqual(list(after), [key for key in before if key != identifier(NOTES, SHOPPING)]
                             + [identifier(NOTES, "new")])

    def test_what_later_systems_add(self) -> None:
        source = make(self.folder / "source", "--tree", "small")
        connection = sqlite3.connect(source / "Manifest.db")
        connection.executescript("""PRAGMA journal_mode=DELETE;
            CREATE TABLE Extra (number INTEGER); INSERT INTO Extra VALUES (1);
            ALTER TABLE Files ADD COLUMN origin TEXT; UPDATE Files SET origin = 'device ' || fileID;
            CREATE INDEX FilesOriginIdx ON Files(origin);
            INSERT INTO Properties VALUES ('key', x'00');""")
        schema = connection.execute("SELECT * FROM sqlite_master").fetchall()
        connection.close()
        self.write("edit", source, self.output, "--put", NOTES, WELCOME, self.file)
        self.succeed("verify", self.output, "--json")
        connection = sqlite3.connect(self.output / "Manifest.db")
        self.addCleanup(connection.close)
        self.assertEqual(connection.execute("SELECT * FROM sqlite_master").fetchall(), schema)
        self.assertEqual(connection.execute("SELECT * FROM Properties").fetchall(), [("key", b"\0")])
        self.assertEqual(connection.execute("SELECT * FROM Files WHERE origin IS NOT 'device ' || fileID").fetchall(), [])

    def test_records(self) -> None:
        source = backup("--version", "2.4")
        self.edit(source, "--put", NOTES, WELCOME, self.file)
        old, new = ((path / "Manifest.mbdb").read_bytes() for path in (source, self.output))
        # One record has another digest, size and perhaps length; the rest is the same.
        start = len(os.path.commonprefix([old, new]))
        end = len(os.path.commonprefix([old[:start - 1:-1], new[:start - 1:-1]]))
        self.assertIn(WELCOME.encode(), new[start - 200:len(new) - end])
        self.assertLess(len(new) - start - end, 200)


class MakeDirectory(EditTest):
    def test_makes_those_above_it(self) -> None:
        for before, after in self.edit_each_form("--mkdir", NOTES, "x/y/z"):
            places = [(NOTES, path) for path in ("x", "x/y", "x/y/z")]
            self.assert_changed_only(before, after, *places)
            for place in places:
                self.assertEqual({key: after[place][key] for key in FRESH_DIRECTORY}, FRESH_DIRECTORY)

    def test_may_end_in_a_slash(self) -> None:
        self.assertIn((NOTES, "x/y"), self.edit(backup("--tree", "small"), "--mkdir", NOTES, "x/y//"))

    def test_that_exists_changes_nothing(self) -> None:
        for before, after in self.edit_each_form("--mkdir", NOTES, "Documents", "--mkdir", NOTES, ""):
            self.assertEqual(after, before)

    def test_of_a_domain_makes_its_root(self) -> None:
        source = backup("--tree", "small")
        before, after = facts_of(source), self.edit(source, "--mkdir", "NewDomain", "")
        self.assertEqual(set(after) - set(before), {("NewDomain", "")})

    def test_over_or_below_what_is_no_directory_is_refused(self) -> None:
        for path, at in ((WELCOME, WELCOME), (LATEST, LATEST), (f"{WELCOME}/x", WELCOME), (f"{LATEST}/x", LATEST)):
            self.assertEqual(self.refuse(backup("--tree", "small"), "--mkdir", NOTES, path),
                             [f"kelvane: mkdir {NOTES} {path}: '{at}' is no directory"])


class Link(EditTest):
    def test_over_nothing_makes_the_directories_above(self) -> None:
        for before, after in self.edit_each_form("--link", NOTES, "x/y", "../Documents"):
            self.assert_changed_only(before, after, (NOTES, "x"), (NOTES, "x/y"))
            self.assertEqual((after[NOTES, "x/y"]["target"], after[NOTES, "x/y"]["mode"]), ("../Documents", 0o120755))
            self.assertEqual(after[NOTES, "x"]["mode"], 0o040755)

    def test_at_the_root_of_a_new_domain(self) -> None:
        source = backup("--tree", "small")
        before, after = facts_of(source), self.edit(source, "--link", "NewDomain", "link", "/")
        self.assertEqual(set(after) - set(before), {("NewDomain", ""), ("NewDomain", "link")})

    def test_over_a_link_replaces_it(self) -> None:
        for before, after in self.edit_each_form("--link", NOTES, LATEST, "elsewhere"):
            self.assert_changed_only(before, after, (NOTES, LATEST))
            self.assertEqual(after[NOTES, LATEST]["target"], "elsewhere")

    def test_over_a_file_or_directory_is_refused(self) -> None:
        for path in (WELCOME, "Documents"):
            self.assertEqual(self.refuse(backup("--tree", "small"), "--link", NOTES, path, "x"), [
                f"kelvane: link {NOTES} {path} x: What is there is no link; remove it first to replace it"])

    def test_below_what_is_no_directory_is_refused(self) -> None:
        self.refuse(backup("--tree", "small"), "--link", NOTES, f"{WELCOME}/x", "x")

    def test_to_nothing_is_refused(self) -> None:
        self.assertEqual(self.refuse(backup("--tree", "small"), "--link", NOTES, "x", ""),
                         [f"kelvane: link {NOTES} x '': The link's target is empty"])


class Remove(EditTest):
    def assert_gone(self, before: Facts, after: Facts, gone: set[Place]) -> None:
        self.assertTrue(gone)
        self.assertEqual(set(after), set(before) - gone)
        self.assert_changed_only(before, after, *gone)

    def test_of_a_file(self) -> None:
        for before, after in self.edit_each_form("--rm", NOTES, WELCOME):
            self.assert_gone(before, after, {(NOTES, WELCOME)})

    def test_of_a_link_leaves_what_it_leads_to(self) -> None:
        for before, after in self.edit_each_form("--rm", NOTES, LATEST):
            self.assert_gone(before, after, {(NOTES, LATEST)})

    def test_of_a_directory_takes_all_below_it(self) -> None:
        for before, after in self.edit_each_form("--rm", NOTES, "Documents/"):
            self.assert_gone(before, after, {place for place in before if place[0] == NOTES
                                             and (place[1] + "/").startswith("Documents/")})

    def test_of_a_domain(self) -> None:
        for before, after in self.edit_each_form("--rm", NOTES, ""):
            self.assert_gone(before, after, {place for place in before if place[0] == NOTES})

    def test_takes_the_stored_files_along(self) -> None:
        source = backup("--tree", "small")
        self.edit(source, "--rm", "CameraRollDomain", "")
        gone = {entry["fileID"] for entry in entries_of(source, "file") if entry["domain"] == "CameraRollDomain"}
        self.assertFalse(gone & {os.path.basename(name) for name in raw(self.output)})

    def test_of_everything(self) -> None:
        source = backup("--tree", "small")
        domains = {entry["domain"] for entry in entries_of(source)}
        self.assertEqual(self.edit(source, *[word for domain in domains for word in ("--rm", domain, "")]), {})

    def test_of_everything_leaves_no_binary_manifest_to_write(self) -> None:
        source = backup("--tree", "small", "--version", "2.4")
        domains = {entry["domain"] for entry in entries_of(source)}
        removals = [word for domain in domains for word in ("--rm", domain, "")]
        messages = self.fail_with(FAILED, "edit", source, self.output, *removals)
        self.assertIn("A backup of version 2.4 needs an entry", messages[-2])
        self.assertTrue(messages[-1].startswith("kelvane: Nothing was written to "), messages)
        self.assertFalse(self.output.exists())

    def test_of_nothing_is_an_error(self) -> None:
        source = backup("--tree", "small")
        for domain, path, reason in (
                (NOTES, "Documents/Welcome", f"The domain '{NOTES}' has nothing at 'Documents/Welcome'"),
                (NOTES, "Document", f"The domain '{NOTES}' has nothing at 'Document'"),
                (NOTES, "/Documents", f"The domain '{NOTES}' has nothing at '/Documents'"),
                (NOTES, "../Documents", f"The domain '{NOTES}' has nothing at '../Documents'"),
                ("NoDomain", "", "The backup has no domain 'NoDomain'"),
                ("", "", "The backup has no domain ''")):
            [message] = self.refuse(source, "--rm", domain, path)
            self.assertTrue(message.endswith(f": {reason}"), message)

    def test_of_a_slash_is_not_of_the_domain(self) -> None:
        for path in ("/", "//"):
            self.assertEqual(self.refuse(backup("--tree", "small"), "--rm", NOTES, path), [
                f"kelvane: rm {NOTES} {path}: The path is absolute; \"\" stands for the whole domain"])

    def test_twice_is_an_error(self) -> None:
        [message] = self.refuse(backup("--tree", "small"), "--rm", NOTES, WELCOME, "--rm", NOTES, WELCOME)
        self.assertTrue(message.endswith(f"has nothing at '{WELCOME}'"))

    def test_of_a_file_takes_what_lies_below_it(self) -> None:
        source = backup("--tree", "small", "--hostile", "entry-below-file")
        after = self.edit(source, "--rm", hostile.DOMAIN, "Documents/not a folder")
        self.assertFalse([path for domain, path in after if path.startswith("Documents/not a folder")])

    def test_of_odd_paths_mends_a_backup(self) -> None:
        source = backup("--tree", "small", "--hostile", "path-dotdot", "--hostile", "domain-dotdot",
                        "--hostile", "entry-below-symlink")
        places = [(entry["domain"], entry["path"]) for entry in entries_of(source) if entry["hostile"]]
        gone = [place for place in places if "/way " not in place[1]] + [
            (hostile.DOMAIN, f"Documents/{name}") for name in ("way out", "way later")]
        after = self.edit(source, *[word for place in gone for word in ("--rm", *place)])
        self.assertFalse(set(places) & set(after))


class Order(EditTest):
    def test_is_that_of_the_command_line(self) -> None:
        source = backup("--tree", "small")
        after = self.edit(source, "--mkdir", "D", "a", "--put", "D", "a/b", self.file, "--rm", "D", "a",
                          "--link", "D", "a", "b", "--rm", "D", "a", "--put", "D", "a", self.file)
        self.assertEqual({path for domain, path in after if domain == "D"}, {"", "a"})
        self.assert_content(after["D", "a"], self.file.read_bytes())
        self.assertEqual(self.messages[-2], "kelvane: 6 operations done")

    def test_holds_across_scripts(self) -> None:
        script = self.folder / "script"
        script.write_text("rm D a\nlink D a b\n")
        after = self.edit(backup("--tree", "small"), "--put", "D", "a", self.file, "--script", script,
                          "--rm", "D", "a", "--mkdir", "D", "a/c", "--script", script)
        self.assertEqual({path: facts["target"] for (domain, path), facts in after.items() if domain == "D"},
                         {"": "", "a": "b"})

    def test_of_nothing_is_an_export(self) -> None:
        source = backup("--tree", "small")
        self.assertEqual(self.edit(source), facts_of(source))
        self.assertEqual(self.messages[0], "kelvane: 0 operations done")

    def test_may_mix_with_other_arguments(self) -> None:
        self.fail_with(DONE, "edit", "--rm", NOTES, WELCOME, backup("--tree", "small"), "--zip", "--mkdir", NOTES, "x",
                       self.output)
        places = {(entry.domain, entry.path) for entry in read(self.output).entries}
        self.assertIn((NOTES, "x"), places)
        self.assertNotIn((NOTES, WELCOME), places)

    def test_takes_words_that_look_like_options(self) -> None:
        names = ("--rm", "-x", "--", "[a,b]", "{}", "a,b", "--put=x", "%%", "@file")
        operations = [word for name in names for word in ("--put", NOTES, name, str(self.file))]
        after = self.edit(backup("--tree", "small"), *operations)
        self.assertTrue(set((NOTES, name) for name in names) <= set(after), after.keys())

    def test_of_too_few_words_is_wrong_usage(self) -> None:
        for words in (("--put", NOTES, "x"), ("--rm", NOTES), ("--mkdir",), ("--link", NOTES, "a")):
            self.refuse(backup("--tree", "small"), *words, status=USAGE)


class Written(EditTest):
    def test_as_a_zip(self) -> None:
        self.output = self.output.with_suffix(".zip")
        after = self.edit(backup("--tree", "small", *CIPHER), "--put", NOTES, WELCOME, self.file)
        self.assert_content(after[NOTES, WELCOME], self.file.read_bytes())

    def test_with_what_the_source_lacks_named(self) -> None:
        source = backup("--tree", "small", "--hostile", "stored-missing")
        messages = self.fail_with(FAILED, "edit", source, self.output, "--rm", NOTES, "")
        self.assertIn(f"{hostile.DOMAIN}/Documents/stored-missing.txt: ", messages[1])
        self.assertTrue(messages[-1].endswith("; 1 file skipped"))
        # What lacks its content may be dropped.
        self.output = self.folder / "mended"
        self.fail_with(DONE, "edit", source, self.output, "--rm", hostile.DOMAIN, "Documents/stored-missing.txt")
        self.assert_sound(self.output)

    def test_can_be_edited_again(self) -> None:
        for options in ((), CIPHER, ("--version", "2.4")):
            source = backup("--tree", "small", *options)
            self.output = self.folder / f"one{len(options)}"
            self.edit(source, "--put", NOTES, WELCOME, self.file, "--put", "D", "x", self.file)
            source, self.output = self.output, self.folder / f"two{len(options)}"
            (second := self.folder / "second").write_text("second")
            after = self.edit(source, "--put", NOTES, WELCOME, second, "--put", "D", "x", second)
            self.assert_content(after[NOTES, WELCOME], b"second")
            self.assert_content(after["D", "x"], b"second")

    def test_extracts_as_it_was_put(self) -> None:
        source = backup("--tree", "small", *CIPHER)
        self.edit(source, "--put", NOTES, "a/b.txt", self.file)
        edited, self.output = self.output, self.folder / "extracted"
        self.extract(edited, *WITH_PASSWORD)
        copied = self.output / NOTES / "a" / "b.txt"
        self.assertEqual(copied.read_bytes(), self.file.read_bytes())
        self.assertEqual(stat.S_IMODE(copied.stat().st_mode), 0o644)


if __name__ == "__main__":
    main()
