"""What is different on a terminal: names are quoted, and a bar shows the progress."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

from terminal import Terminal
from tool_testing import DONE, FAILED, ToolTest, backup, command, entries_of, main, run

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
        self.assertEqual(len(quoted), 4)
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

    def test_copes_with_sizes_that_are_not_true(self) -> None:
        path = backup("--rows", "300")  # rows with sizes, and no content at all
        shown = self.extract_on(path, status=FAILED)
        self.assertIn(b" failed\r\n", shown)


if __name__ == "__main__":
    main()
