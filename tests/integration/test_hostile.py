"""Backups that are made to harm, or came to harm: nothing is written outside the target, every failure is told."""

from __future__ import annotations

import os
import re
from pathlib import Path
from typing import Any

from tool_testing import DONE, ENCRYPTED, FAILED, ToolTest, WITH_PASSWORD, backup, entries_of, main, snapshot

from backup_maker import hostile  # found through tool_testing

CONTROLS = re.compile("[\x00-\x1f\x7f-\x9f]")
# The stored content of these can be read, but is not what the manifest says.
REPORTED_ONLY = ("stored-truncated", "stored-changed", "digest-wrong")
EXTRACTED = ": extracted, but damaged: "


def is_unsafe(entry: dict[str, Any]) -> bool:
    """Names that lead out of the directory, or are no names of files."""
    parts = [entry["domain"], *(entry["path"].split("/") if entry["path"] else [])]
    at_root = not entry["path"] and entry["type"] != "directory"
    return at_root or any(part in ("", ".", "..") or "/" in part for part in parts)


def needs_an_obstacle(entry: dict[str, Any], entries: list[dict[str, Any]]) -> bool:
    """Something that is no directory lies above the entry, or the entry is a link where a directory is needed."""
    files = {(other["domain"], other["path"]) for other in entries if other["type"] == "file" and not is_unsafe(other)}
    path = entry["path"]
    while "/" in path:
        path = path.rpartition("/")[0]
        if (entry["domain"], path) in files:
            return True
    prefix = entry["path"] + "/"
    return entry["type"] == "symlink" and any(
        other["domain"] == entry["domain"] and other["path"].startswith(prefix) for other in entries)


def fails(entry: dict[str, Any], entries: list[dict[str, Any]]) -> bool:
    broken = entry["damaged"] and entry["hostile"] not in REPORTED_ONLY
    return broken or is_unsafe(entry) or needs_an_obstacle(entry, entries)


def shown(entry: dict[str, Any]) -> str:
    """The entry's name as messages show it."""
    name = entry["domain"] + ("/" + entry["path"] if entry["path"] else "")
    if not CONTROLS.search(name):
        return name
    escapes = {"\n": "\\n", "\r": "\\r", "\t": "\\t", "\x1b": "\\e", "\\": "\\\\"}
    return "".join(escapes.get(c) or (f"\\x{ord(c):02X}" if CONTROLS.match(c) else c) for c in name)


class HostileTest(ToolTest):
    def setUp(self) -> None:
        super().setUp()
        # Bait around the target, at every place that a name with "../" or a link could reach.
        self.world = self.folder / "world"
        self.output = self.world / "etc" / "target"
        self.output.mkdir(parents=True)
        for place in (self.world, self.world / "etc"):
            for name in ("passwd", "escape.txt", "outside"):
                (place / name).write_text(f"bait {name}")
        self.absolute = [Path(name) for name in ("/escape.txt", "/etc/escape.txt", "/tmp/escape.txt", "/tmp/escape",
                                                 "/AppDomain-com.example.hostile")]

    def around(self) -> dict[str, Any]:
        """Everything in the world but the inside of the target; the times of directories above it may change."""
        inside = os.path.relpath(self.output, self.world)
        found = snapshot(self.world)
        return {name: facts for name, facts in found.items()
                if name != inside and not name.startswith(inside + "/")}

    def check(self, path: Path, *options: str) -> None:
        entries = entries_of(path)
        before, bait = self.around(), [item.exists() for item in self.absolute]
        suspicious = [entry for entry in entries if entry["damaged"] or fails(entry, entries)]
        messages = self.extract(path, *options, status=FAILED if suspicious else DONE)
        self.assertEqual(self.around(), before)
        self.assertEqual([item.exists() for item in self.absolute], bait)
        reports = self.assert_reported(messages, suspicious)
        failed = [entry for entry, line in reports if EXTRACTED not in line]
        self.assertEqual([entry for entry in entries if fails(entry, entries) and entry not in failed], [])
        if not options:  # what does not decrypt fails, however it was damaged
            self.assertEqual([entry for entry in failed if not fails(entry, entries)], [])
        self.assert_summary(messages[-1], len(entries), len(failed), len(reports) - len(failed))
        self.assert_inside(entries, failed)
        self.assert_no_leftovers()

    def assert_reported(self, messages: list[str], entries: list[dict[str, Any]]) -> list[tuple[dict[str, Any], str]]:
        """Each of the entries has a line of its own; gives them together."""
        for line in messages:
            self.assertNotRegex(line, CONTROLS)
            self.assertRegex(line, r"^(kelvane: |  caused by: )")
        unread = [line for line in messages if line.startswith("kelvane: ")][:-1]
        found = []
        for entry in entries:
            line = next((line for line in unread if line.startswith(f"kelvane: {shown(entry)}: ")), None)
            assert line is not None, f"{entry} is not reported in {messages}"
            unread.remove(line)
            found.append((entry, line))
        self.assertEqual(unread, [])
        return found

    def assert_summary(self, line: str, count: int, failed: int, damaged: int) -> None:
        wanted = f"kelvane: {count - failed} of {count} entries extracted"
        wanted += f", {failed} failed" if failed else ""
        wanted += f", {damaged} damaged" if damaged else ""
        self.assertEqual(line, wanted)

    def assert_inside(self, entries: list[dict[str, Any]], failed: list[dict[str, Any]]) -> None:
        there = [entry for entry in entries if entry not in failed]
        for entry in there:
            if not entry["damaged"]:
                self.assert_extracted(entry)
        # Of those that failed there is nothing, not even a part.
        wanted = {str(self.extracted(entry)) for entry in there}
        for folder, directories, files in os.walk(self.output):
            for name in (*files, *directories):
                item = Path(folder) / name
                if item.is_symlink() or not item.is_dir():
                    self.assertIn(str(item), wanted)


class Hostile(HostileTest):
    """One test a variant, for each to have a name in the report."""


def test_of(*options: str, password: bool = False) -> Any:
    def test(self: HostileTest) -> None:
        self.check(backup("--tree", "small", *options), *(WITH_PASSWORD if password else ()))
    return test


CIPHER = ("--device-bound", *ENCRYPTED)
for variant in hostile.VARIANTS:
    name = "test_" + variant.replace("-", "_")
    if variant in hostile.CIPHER_DAMAGES:
        setattr(Hostile, name, test_of("--hostile", variant, *CIPHER, password=True))
    else:
        setattr(Hostile, name, test_of("--hostile", variant))
for form, options, password in (("directory", (), False), ("zip", ("--zip",), False),
                                ("binary_manifest", ("--version", "2.4"), False), ("encrypted", CIPHER, True),
                                ("encrypted_zip", (*CIPHER, "--zip"), True)):
    setattr(Hostile, f"test_all_at_once_in_a_{form}", test_of("--hostile", "all", *options, password=password))


class Links(HostileTest):
    """What links of an earlier extraction can do to a later one."""

    def test_are_not_followed_by_the_next_extraction(self) -> None:
        path = backup("--tree", "small", "--hostile", "symlink-out")
        self.extract(path)
        before = self.around()
        self.extract(path, "--force")
        self.assertEqual(self.around(), before)
        for entry in entries_of(path):
            self.assert_extracted(entry)

    def test_do_not_lead_entries_below_them_out(self) -> None:
        # The links of the same names come from an extraction of other entries.
        path = backup("--tree", "small", "--hostile", "entry-below-symlink")
        documents = self.output / hostile.DOMAIN / "Documents"
        documents.mkdir(parents=True)
        for name in ("way out", "way later"):
            (documents / name).symlink_to("../../..")
        before = self.around()
        for force in ((), ("--force",)):
            messages = self.extract(path, *force, status=FAILED)
            self.assertEqual(self.around(), before)
            for name in ("way out", "way later"):
                self.assertIn(f"kelvane: {hostile.DOMAIN}/Documents/{name}/escape.txt: Something that is no directory"
                              " is in the way", messages)


class Read(ToolTest):
    """`cat` and `ls` meet the same entries."""

    def test_cat_prints_nothing_of_what_fails(self) -> None:
        path = backup("--tree", "small", "--hostile", "all", *CIPHER)
        for entry in entries_of(path, "file"):
            if entry["damaged"] and entry["hostile"] not in REPORTED_ONLY:
                with self.subTest(entry["path"]):
                    self.fail_with(FAILED, "cat", *WITH_PASSWORD, "--", path, entry["domain"], entry["path"])

    def test_ls_lists_them_all(self) -> None:
        path = backup("--tree", "small", "--hostile", "all", *CIPHER)
        listed = self.succeed("ls", path, "--all", "--json", *WITH_PASSWORD)
        self.assertEqual(len(listed.splitlines()), len(entries_of(path)))


if __name__ == "__main__":
    main()
