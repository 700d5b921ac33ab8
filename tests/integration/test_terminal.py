"""What is different on a terminal: names are quoted, and a bar shows the progress."""

from __future__ import annotations

import json
import os
import plistlib
import re
import sqlite3
import struct
import subprocess
import sys
from pathlib import Path

from terminal import Terminal
from tool_testing import DONE, FAILED, SKIPPED, ToolTest, backup, command, entries_of, main, make, run

NAMES = "AppDomain-com.example.names"
BAR = rb"\[(#*)(\.*)\] (\d[\d.]* [kMG]?B) of (\d[\d.]* [kMG]?B), (\d[\d.]* [kMG]?B)/s(, [\d:]+( s)? left)?"
ERASE = b"\r\x1b[K"


class Names(ToolTest):
    def lines(self, *arguments: str | Path, streams: tuple[int, ...] = (1,)) -> list[str]:
        with Terminal(command(*arguments), streams=streams) as terminal:
            self.assertEqual(terminal.finish(), DONE)
            return terminal.shown.decode().replace("\r\n", "\n").split("\n")[:-1]

    def assert_harmless(self, lines: list[str]) -> None:
        for line in lines:
            self.assertNotRegex(line, "[\x00-\x1f\x7f\x80-\x9f]")

    def test_with_control_characters_are_quoted(self) -> None:
        lines = self.lines("ls", backup(), NAMES, "Documents")
        self.assert_harmless(lines)
        for name in (r"$'two\nlines.txt'", r"$'tab\there.txt'", r"$'bell\x07 \e[31mred\e[0m.txt'",
                     r"$'dir\nwith newline'"):
            self.assertIn(name, lines)

    def test_that_are_quoted_mean_the_same_to_the_shell(self) -> None:
        quoted = [line for line in self.lines("ls", backup(), NAMES, "Documents") if line.startswith("$'")]
        self.assertEqual(len(quoted), 5)  # one for a control of direction
        for text in quoted:
            name = subprocess.run(["bash", "-c", f"printf %s {text}"], capture_output=True, check=True).stdout.decode()
            self.assertIn(f"Documents/{name}", [entry["path"] for entry in entries_of(backup())])

    def test_without_control_characters_are_shown_as_they_are(self) -> None:
        lines = self.lines("ls", backup(), NAMES, "Documents")
        for name in ("back\\slash.txt", "it's \"quoted\".txt", "\U0001F4F7 photo.jpg", " leading blank",
                     "Cafe\u0301.txt"):
            self.assertIn(name, lines)
        self.assertEqual(len(lines), len({entry["path"].split("/")[1] for entry in entries_of(backup())
                                          if entry["domain"] == NAMES and entry["path"].startswith("Documents/")}))

    def test_are_quoted_in_all_listings(self) -> None:
        path = backup("--tree", "small", "--hostile", "domain-odd")
        for arguments in (("ls", path), ("ls", path, "--all"), ("ls", path, "--all", "-l"),
                          ("ls", backup(), NAMES, "-R"), ("ls", backup(), NAMES, "-R", "-l")):
            with self.subTest(arguments):
                lines = self.lines(*arguments)
                self.assert_harmless(lines)
                self.assertTrue(any("$'" in line for line in lines))

    def test_are_raw_in_a_pipe(self) -> None:
        listed = self.succeed("ls", backup(), NAMES, "Documents")
        self.assertIn(b"bell\x07 \x1b[31mred\x1b[0m.txt\n", listed)
        self.assertNotIn(b"$'", listed)

    def test_are_escaped_in_json_everywhere(self) -> None:
        listed = self.succeed("ls", backup(), "--all", "--json")
        self.assertNotRegex(listed, rb"[\x00-\x09\x0b-\x1f]")
        self.assertEqual(len(listed.splitlines()), len(entries_of(backup())))

    def test_are_escaped_in_messages_everywhere(self) -> None:
        path = backup("--tree", "small", "--hostile", "domain-odd")
        result = run("extract", path, "AppDomain-\x1b[31mred", "-o", self.output)
        self.assertEqual(result.returncode, DONE)
        self.assertTrue((self.output / "AppDomain-\x1b[31mred" / "Documents" / "file.txt").is_file())
        again = run("extract", path, "-o", self.output)
        self.assertEqual(again.returncode, FAILED)
        self.assertNotRegex(again.stderr, rb"[\x00-\x09\x0b-\x1f\x7f]")
        self.assertIn(rb"kelvane: AppDomain-\e[31mred/Documents/file.txt: It exists already", again.stderr)


class Controls(ToolTest):
    """Nothing that a terminal obeys reaches one, whatever a backup holds."""

    # C0, DEL, C1 in UTF-8 and as a byte alone, directions, separators of lines, a tag, and what a shell reads.
    ODD = "\x1b]0;title\x07 \x7f \x9b31m \u202e\u2066\u200f \u2028\u2029 \U000E0041 \ufeff '\"\\ \U0001F4F7"
    RAW = re.compile("[\x00-\x09\x0b-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069\ufeff\ufff9-\ufffb\U000e0000-\U000e007f]")

    def setUp(self) -> None:
        super().setUp()
        self.path = make(self.folder / "backup", "--tree", "small")
        with sqlite3.connect(self.path / "Manifest.db") as database:
            database.execute("UPDATE Files SET domain = domain || ?, relativePath = relativePath || ?", (self.ODD, self.ODD))
        database.close()
        info = plistlib.loads((self.path / "Info.plist").read_bytes())
        # What XML cannot hold, a binary property list can.
        info["Device Name"] = self.ODD
        (self.path / "Info.plist").write_bytes(plistlib.dumps(info, fmt=plistlib.FMT_BINARY))

    def shown(self, *arguments: str | Path, statuses: tuple[int, ...] = (DONE,)) -> str:
        with Terminal(command(*arguments), streams=(1, 2)) as terminal:
            self.assertIn(terminal.finish(), statuses)
            text = terminal.shown.decode().replace("\r\n", "\n")
        # The bar draws and clears its own line.
        return re.sub("\r\\[[^\x1b]*\x1b\\[K|\r\x1b\\[K", "", text)

    def assert_harmless(self, text: str, sign: str) -> None:
        self.assertNotRegex(text, self.RAW)
        self.assertIn(sign, text)

    def test_of_names_are_escaped_in_listings(self) -> None:
        for arguments in (("ls",), ("ls", "--all"), ("ls", "--all", "-l")):
            with self.subTest(arguments):
                self.assert_harmless(self.shown(arguments[0], self.path, *arguments[1:]), r"\xE2\x80\xAE")

    def test_are_escaped_in_json(self) -> None:
        for arguments in (("ls",), ("ls", "--all"), ("info",)):
            with self.subTest(arguments):
                text = self.shown(arguments[0], self.path, *arguments[1:], "--json")
                self.assert_harmless(text, r"\u202e")
                self.assertTrue(text.isascii())
                for line in text.splitlines():
                    json.loads(line)

    def test_are_escaped_in_what_info_tells(self) -> None:
        self.assert_harmless(self.shown("info", self.path), r"\xC2\x9B31m")

    def test_are_escaped_in_reports_of_problems(self) -> None:
        for option in ((), ("--json",)):
            with self.subTest(option):
                self.assert_harmless(self.shown("verify", self.path, *option, statuses=(FAILED,)), "file-id" if option else "\\x")

    def test_are_escaped_in_messages(self) -> None:
        (self.path / "odd").mkdir()
        text = self.shown("extract", self.path, "-o", self.output, statuses=(DONE, FAILED))
        text += self.shown("extract", self.path, "-o", self.output, statuses=(FAILED,))
        self.assert_harmless(text, r"\xE2\x80\xAE")

    def test_are_escaped_in_csv_but_the_ends_of_rows(self) -> None:
        text = self.shown("csv", self.path)
        self.assert_harmless(text, r"\e]0;title\x07 \x7F \xC2\x9B31m")
        raw = self.succeed("csv", self.path).decode()
        self.assertEqual(text.count("\n"), raw.count("\n") + 1)

    def test_in_csv_go_into_files_and_pipes_as_they_are(self) -> None:
        piped = self.succeed("csv", self.path)
        self.succeed("csv", self.path, "-o", self.output)
        self.assertEqual(self.output.read_bytes(), piped)
        self.assertIn(self.ODD.replace('"', '""').encode(), piped)


class Unavailable(ToolTest):
    """A machine without terminals."""

    SCRIPT = "import pty, runpy, sys; pty.openpty = lambda: open('/nonexistent'); sys.argv = sys.argv[1:]; runpy.run_path(sys.argv[0], run_name='__main__')"

    def test_terminals_are_told_of_as_skipped_tests(self) -> None:
        program = Path(__file__).with_name("test_password.py")
        result = subprocess.run(
            [sys.executable, "-B", "-c", self.SCRIPT, program, command()[0], "OnATerminal", "WithoutATerminal"],
            env=os.environ | {"PYTHONPATH": str(program.parent)}, capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, SKIPPED, result.stderr)
        self.assertIn("skipped=", result.stderr)


class Progress(ToolTest):
    def setUp(self) -> None:
        super().setUp()
        self.big = backup("--tree", "none", "--size-of-one", "40000000")

    def extract_on(self, *arguments: str | Path, columns: int = 80, streams: tuple[int, ...] = (2,),
                   status: int = DONE) -> bytes:
        with Terminal(command("extract", *arguments, "-o", self.output), streams, columns) as terminal:
            self.assertEqual(terminal.finish(), status)
            return terminal.shown

    def test_shows_bytes_rate_and_time_left(self) -> None:
        shown = self.extract_on(self.big)
        bars = list(re.finditer(BAR, shown))
        self.assertGreaterEqual(len(bars), 2)  # one at the start, one with the first bytes
        self.assertEqual({bar[4] for bar in bars}, {b"40.0 MB"})
        self.assertEqual(bars[0][3], b"0 B")
        self.assertTrue(any(bar[6] for bar in bars), shown)
        self.assertNotEqual(bars[-1][3], b"0 B")

    def test_leaves_nothing_but_the_last_line(self) -> None:
        shown = self.extract_on(self.big)
        self.assertTrue(shown.endswith(ERASE + b"kelvane: 3 of 3 entries extracted\r\n"), shown[-200:])

    def test_fits_the_terminal(self) -> None:
        for columns in (20, 40, 80, 200):
            with self.subTest(columns):
                self.output = self.folder / str(columns)
                for part in re.split(rb"\r(?:\x1b\[K)?|\n", self.extract_on(self.big, columns=columns)):
                    if not part.startswith(b"kelvane:"):
                        self.assertLess(len(part.replace(b"\x1b[K", b"")), columns)

    def test_makes_way_for_messages(self) -> None:
        path = backup("--tree", "small", "--size-of-one", "20000000", "--hostile", "stored-missing")
        shown = self.extract_on(path, status=FAILED)
        for match in re.finditer(rb"kelvane: |  caused by: ", shown):
            self.assertTrue(shown[:match.start()].endswith((ERASE, b"\n")), shown)

    def test_does_not_show_without_a_terminal(self) -> None:
        shown = self.extract_on(self.big, streams=(0, 1))
        self.assertEqual(shown, b"")

    def test_copes_with_sizes_whose_sum_is_beyond_all_numbers(self) -> None:
        path = make(self.folder / "backup", "--tree", "small", "--version", "2.4")
        manifest = path / "Manifest.mbdb"
        content = manifest.read_bytes()
        for entry in entries_of(path, "file"):
            # Behind the times: the size of 8 bytes, then the protection class.
            times = struct.pack(">III", entry["changed"], entry["modified"], entry["birth"])
            content = content.replace(times + struct.pack(">Q", entry["size"]), times + struct.pack(">Q", 2**63 - 1))
        manifest.write_bytes(content)
        for arguments in (("verify", path), ("export", path, self.folder / "out")):
            with Terminal(command(*arguments), (2,)) as terminal:
                self.assertIn(terminal.finish(), (DONE, FAILED))
                self.assertIn(b"of 9.2 EB", terminal.shown)

    def test_copes_with_sizes_that_are_not_true(self) -> None:
        path = backup("--rows", "300")  # rows with sizes, and no content at all
        shown = self.extract_on(path, status=FAILED)
        self.assertIn(b" failed\r\n", shown)


if __name__ == "__main__":
    main()
