"""`edit`: what it refuses to do by mistake, and scripts of operations."""

from __future__ import annotations

import os
import plistlib
import shlex
import sqlite3
from collections.abc import Callable
from pathlib import Path

from editing import CIPHER, EditTest, NOTES, SHOPPING, WELCOME
from reading_back import facts_of, read
from tool_testing import DONE, ENCRYPTED, FAILED, PASSWORD, PASSWORD_PROBLEM, USAGE, WITH_PASSWORD, backup, \
    entries_of, main, make, run, snapshot


class Refused(EditTest):
    def test_are_paths_that_are_none(self) -> None:
        source = backup("--tree", "small")
        reason = "The path must be relative, without empty, \".\" or \"..\" components"
        for path in ("", "/", "/a", "a//b", "a/", "./a", "a/.", "..", "a/../b", "../a"):
            for operation in (("--put", NOTES, path, self.file), ("--link", NOTES, path, "x")):
                with self.subTest(path=path, operation=operation[0]):
                    [message] = self.refuse(source, *operation)
                    self.assertTrue(message.endswith(": " + reason), message)
        for path in ("/", "/a", "a//b", "./a", "a/..", ".."):
            self.assertTrue(self.refuse(source, "--mkdir", NOTES, path)[0].endswith(": " + reason))

    def test_are_domains_that_are_none(self) -> None:
        for domain in ("", ".", "..", "a/b"):
            for operation in (("--put", domain, "x", self.file), ("--mkdir", domain, ""), ("--link", domain, "a", "b")):
                [message] = self.refuse(backup("--tree", "small"), *operation)
                self.assertTrue(message.endswith(f"'{domain}' is no name of a domain"), message)

    def test_leaves_the_source_as_it_was(self) -> None:
        source = make(self.folder / "backup", "--tree", "small")
        before = snapshot(source)
        self.refuse(source, "--rm", NOTES, "", "--rm", NOTES, "")
        self.fail_with(DONE, "edit", source, self.output, "--rm", NOTES, "", "--put", NOTES, WELCOME, self.file)
        self.assertEqual(snapshot(source), before)

    def test_is_a_target_that_exists_or_lies_inside(self) -> None:
        source = backup("--tree", "small")
        self.output.mkdir()
        self.assertEqual(self.fail_with(FAILED, "edit", source, self.output, "--rm", NOTES, ""),
                         [f"kelvane: '{self.output}' exists already"])
        self.assertEqual(self.fail_with(FAILED, "edit", source, source / "out", "--rm", NOTES, ""),
                         [f"kelvane: '{source}/out' would lie inside the backup"])

    def test_is_a_wrong_password(self) -> None:
        (wrong := self.folder / "wrong").write_text("wrong\n")
        self.fail_with(PASSWORD_PROBLEM, "edit", backup("--tree", "small", *ENCRYPTED), self.output,
                       "--password-file", wrong, "--rm", NOTES, "")
        self.assertFalse(self.output.exists())

    def test_is_what_is_no_text(self) -> None:
        odd = os.fsdecode(b"\xff")
        for operation in (("--put", NOTES, odd, self.file), ("--rm", odd, ""), ("--link", NOTES, "x", odd)):
            result = run("edit", backup("--tree", "small"), self.output, *operation)
            self.assertEqual((result.returncode, result.stdout), (FAILED, b""))
            self.assertIn(b"is not UTF-8 text", result.stderr)
        self.assertFalse(self.output.exists())


class Forged(EditTest):
    """Entries whose file IDs are not their own must not be changed in the place of others."""

    def forge(self, change: Callable[[sqlite3.Connection, str, str], None]) -> Path:
        source = make(self.folder / "backup", "--tree", "small")
        identifiers = {entry["path"]: entry["fileID"] for entry in entries_of(source) if entry["domain"] == NOTES}
        connection = sqlite3.connect(source / "Manifest.db")
        with connection:
            change(connection, identifiers[WELCOME], identifiers[SHOPPING])
        connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        connection.close()
        return source

    def swap(self) -> Path:
        def change(connection: sqlite3.Connection, one: str, other: str) -> None:
            for old, new in ((one, "swap"), (other, one), ("swap", other)):
                connection.execute("UPDATE Files SET fileID = ? WHERE fileID = ?", (new, old))
        return self.forge(change)

    def test_by_each_other(self) -> None:
        source = self.swap()
        for operation in (("--put", NOTES, WELCOME, self.file), ("--rm", NOTES, WELCOME),
                          ("--link", NOTES, WELCOME, "x"), ("--mkdir", NOTES, WELCOME)):
            [message] = self.refuse(source, *operation)
            self.assertTrue(message.endswith(f"The file ID of this path belongs to {NOTES}/{SHOPPING}"), message)

    def test_to_something_else(self) -> None:
        source = self.forge(lambda connection, one, _: connection.execute(
            "UPDATE Files SET fileID = ? WHERE fileID = ?", ("00" + one[2:], one)))
        [message] = self.refuse(source, "--put", NOTES, WELCOME, self.file)
        self.assertTrue(message.endswith(f"The entry at '{WELCOME}' has a file ID that is not its own"), message)
        # It may go, though.
        self.fail_with(DONE, "edit", source, self.output, "--rm", NOTES, WELCOME)
        self.assertNotIn((NOTES, WELCOME), {(entry.domain, entry.path) for entry in read(self.output).entries})

    def test_above_a_new_file(self) -> None:
        source = make(self.folder / "backup", "--tree", "small")
        with sqlite3.connect(source / "Manifest.db") as connection:
            connection.execute("UPDATE Files SET fileID = '00' || substr(fileID, 3) WHERE domain = ? AND"
                               " relativePath = 'Documents'", (NOTES,))
        connection.close()
        [message] = self.refuse(source, "--put", NOTES, "Documents/new", self.file)
        self.assertTrue(message.endswith("The entry at 'Documents' has a file ID that is not its own"), message)

    def test_kinds_of_entries_are_not_put_over(self) -> None:
        source = make(self.folder / "backup", "--tree", "small")
        with sqlite3.connect(source / "Manifest.db") as connection:
            [blob] = connection.execute("SELECT file FROM Files WHERE relativePath = ?", (WELCOME,)).fetchone()
            record = plistlib.loads(blob)
            record["$objects"][record["$top"]["root"].data]["Mode"] = 0o010644
            connection.execute("UPDATE Files SET file = ? WHERE relativePath = ?",
                               (plistlib.dumps(record, fmt=plistlib.FMT_BINARY, sort_keys=False), WELCOME))
        connection.close()
        [message] = self.refuse(source, "--put", NOTES, WELCOME, self.file)
        self.assertTrue(message.endswith("What is there is no file or link"), message)


class Script(EditTest):
    def script(self, text: str | bytes) -> Path:
        path = self.folder / "script"
        path.write_bytes(text.encode() if isinstance(text, str) else text)
        return path

    def paths_made(self, text: str | bytes) -> list[str]:
        """The directories that a script makes in a domain."""
        self.output = self.folder / f"out{len(os.listdir(self.folder))}"
        self.fail_with(DONE, "edit", backup("--tree", "none"), self.output, "--script", self.script(text))
        return sorted(entry.path for entry in read(self.output).entries if entry.domain == "D" and entry.path)

    def test_does_every_operation(self) -> None:
        text = f"""# changes
put {NOTES} Documents/new.txt {shlex.quote(str(self.file))}

  mkdir {NOTES} made     # and a comment
link {NOTES} 'a link' "../else where"
\trm {NOTES} "{SHOPPING}"
rm CameraRollDomain ""
"""
        source = backup("--tree", "small", *CIPHER)
        before = facts_of(source)
        after = self.edit(source, "--script", self.script(text))
        self.assertEqual(self.messages[0], "kelvane: 5 operations done")
        self.assert_content(after[NOTES, "Documents/new.txt"], self.file.read_bytes())
        self.assertEqual(after[NOTES, "a link"]["target"], "../else where")
        self.assertEqual({place for place in before if place not in after},
                         {(NOTES, SHOPPING)} | {place for place in before if place[0] == "CameraRollDomain"})

    def test_is_quoted_as_shells_do(self) -> None:
        words = ["plain", "two words", "it's", 'say "x"', "back\\slash", "$HOME `x`", "*?[a]", "tab\there", "#first",
                 "mid#dle", "new\nline", "\u00e4\U0001F600", "a;b|c&d<e>(f)", "!", "~", "{a,b}", "'", "\\", "end\\"]
        self.assertEqual(self.paths_made("".join(f"mkdir D {shlex.quote(word)}\n" for word in words)), sorted(words))

    def test_takes_double_quotes_and_backslashes(self) -> None:
        text = r"""mkdir D "a\"b\\c\$d\`e\f"
mkdir D one\ word\'s
mkdir D joi'n'"e"d
mkdir D con\
tinued
mkdir \
  D   apart
mkdir D "in quotes \
goes on"
"""
        self.assertEqual(self.paths_made(text), sorted(
            ['a"b\\c$d`e\\f', "one word's", "joined", "continued", "apart", "in quotes goes on"]))

    def test_may_have_other_line_ends(self) -> None:
        self.assertEqual(self.paths_made(b"\xef\xbb\xbfmkdir D a\r\n\r\n# c\r\nmkdir D 'b\r'\r\nmkdir D c"),
                         ["a", "b\r", "c"])

    def test_may_be_empty(self) -> None:
        self.assertEqual(self.paths_made("\n# nothing\n   \n"), [])

    def test_comes_from_standard_input(self) -> None:
        self.fail_with(DONE, "edit", backup("--tree", "small"), self.output, "--script", "-",
                       input=b"rm CameraRollDomain ''\n")
        self.assertNotIn("CameraRollDomain", {entry.domain for entry in read(self.output).entries})

    def test_shares_standard_input_with_nothing(self) -> None:
        source = backup("--tree", "small", *ENCRYPTED)
        for options in (("--script", "-", "--password-file", "-"), ("--script", "-", "--script", "-", *WITH_PASSWORD)):
            self.assertEqual(self.fail_with(USAGE, "edit", source, self.output, *options, input=PASSWORD.encode()),
                             ["kelvane: Standard input cannot be read twice"])

    def test_with_a_mistake_is_refused_with_its_line(self) -> None:
        for text, line, reason in (
                ("mkdir D a\n\nmove D a b\n", 3, "'move' is no operation; put, mkdir, link and rm are"),
                ("mkdir D 'a\nb'\nrm D\n", 3, "rm takes DOMAIN PATH, 2 words, and not 1"),
                ("# c\nput D a b c\n", 2, "put takes DOMAIN PATH FILE, 3 words, and not 4"),
                ("mkdir D a; mkdir D b\n", 1, "mkdir takes DOMAIN PATH, 2 words, and not 5"),
                ("mkdir D \\\n 'a\n\n", 1, "The single quote is not closed"),
                ("mkdir D a\nmkdir D \"a\n", 2, "The double quote is not closed"),
                ("mkdir D a\\", 1, "There is nothing behind the last backslash"),
                ("mkdir D a\0b\n", 1, "The script holds a NUL"),
                ("''\n", 1, "'' is no operation; put, mkdir, link and rm are")):
            with self.subTest(text):
                path = self.script(text)
                self.assertEqual(self.refuse(backup("--tree", "small"), "--script", path),
                                 [f"kelvane: {path}:{line}: {reason}"])

    def test_with_a_failing_operation_names_its_line(self) -> None:
        path = self.script(f"mkdir {NOTES} x\n# nothing there\nrm {NOTES} 'no such'\nmkdir {NOTES} y\n")
        self.assertEqual(self.refuse(backup("--tree", "small"), "--script", path), [
            f"kelvane: {path}:3: rm {NOTES} 'no such': The domain '{NOTES}' has nothing at 'no such'"])

    def test_that_is_not_there_is_an_error(self) -> None:
        self.assertEqual(self.refuse(backup("--tree", "small"), "--script", "/no/script"), [
            "kelvane: The script '/no/script' could not be opened",
            "  caused by: No such file or directory (NSPOSIXErrorDomain 2)"])
        self.assertEqual(self.refuse(backup("--tree", "small"), "--script", self.folder)[0],
                         f"kelvane: The script '{self.folder}' could not be read")

    def test_that_is_no_script_ends(self) -> None:
        self.assertEqual(self.refuse(backup("--tree", "small"), "--script", "/dev/zero"),
                         ["kelvane: The script '/dev/zero' is too long"])

    def test_of_many_operations(self) -> None:
        text = "".join(f"put D d{number % 100}/f{number} {self.file}\n" for number in range(2000))
        after = self.edit(backup("--tree", "none"), "--script", self.script(text))
        self.assertEqual(sum(facts["sha256"] is not None for facts in after.values()), 2000)


if __name__ == "__main__":
    main()
