"""`ls` in its text forms, and `info` for people."""

from __future__ import annotations

import json
import re
import stat
import time
from typing import Any

from tool_testing import DONE, FAILED, ToolTest, backup, entries_of, expectations, main, run

NOTES = "AppDomain-com.example.notes"
NAMES = "AppDomain-com.example.names"


def domains_of(entries: list[dict[str, Any]]) -> list[str]:
    """Sorted as UTF-16, the platform's order."""
    return sorted({entry["domain"] for entry in entries}, key=lambda text: text.encode("utf-16-be"))


class Listing(ToolTest):
    def setUp(self) -> None:
        super().setUp()
        self.backup = backup()
        self.entries = entries_of(self.backup)

    def ls(self, *arguments: str) -> str:
        return self.succeed("ls", self.backup, *arguments).decode()

    def in_domain(self, domain: str, below: str = "") -> list[dict[str, Any]]:
        return [entry for entry in self.entries if entry["domain"] == domain and entry["path"].startswith(below)]

    def children(self, domain: str, path: str) -> list[dict[str, Any]]:
        prefix = path + "/" if path else ""
        return [entry for entry in self.in_domain(domain, prefix)
                if entry["path"] and "/" not in entry["path"][len(prefix):] and entry["path"] != path]

    def test_without_a_domain_gives_the_domains(self) -> None:
        self.assertEqual(self.ls(), "".join(f"{domain}\n" for domain in domains_of(self.entries)))

    def test_gives_the_domains_as_json(self) -> None:
        found = [json.loads(line) for line in self.ls("--json").splitlines()]
        self.assertEqual(found, [{"domain": domain} for domain in domains_of(self.entries)])

    def test_with_a_domain_gives_the_children_of_its_root(self) -> None:
        wanted = [entry["path"] for entry in self.children(NOTES, "")]
        self.assertGreater(len(wanted), 1)
        self.assertEqual(self.ls(NOTES), "".join(f"{name}\n" for name in wanted))

    def test_with_a_path_gives_its_direct_children_by_name(self) -> None:
        wanted = [entry["path"].removeprefix("Documents/") for entry in self.children(NAMES, "Documents")]
        self.assertGreater(len(wanted), 30)
        # A name with a line end is printed as it is into a pipe.
        self.assertEqual(self.ls(NAMES, "Documents"), "".join(f"{name}\n" for name in wanted))

    def test_takes_a_slash_at_the_end_of_the_path(self) -> None:
        self.assertEqual(self.ls(NOTES, "Documents/"), self.ls(NOTES, "Documents"))

    def test_takes_an_empty_path_for_the_root(self) -> None:
        self.assertEqual(self.ls(NOTES, ""), self.ls(NOTES))

    def test_of_a_file_gives_the_file(self) -> None:
        self.assertEqual(self.ls(NOTES, "Documents/Welcome.txt"), "Documents/Welcome.txt\n")

    def test_of_an_empty_directory_gives_nothing(self) -> None:
        self.assertEqual(self.ls("MediaDomain", "Media/Empty folder"), "")

    def test_recursively_gives_everything_at_and_below_in_order(self) -> None:
        wanted = [entry["path"] for entry in self.in_domain(NOTES, "Documents")]
        self.assertEqual(self.ls(NOTES, "Documents", "-R"), "".join(f"{path}\n" for path in wanted))

    def test_recursively_calls_the_root_a_dot(self) -> None:
        wanted = [entry["path"] or "." for entry in self.in_domain(NOTES)]
        self.assertEqual(self.ls(NOTES, "--recursive"), "".join(f"{path}\n" for path in wanted))

    def test_of_everything_gives_domain_and_path(self) -> None:
        wanted = [entry["domain"] + ("/" + entry["path"] if entry["path"] else "") for entry in self.entries]
        self.assertEqual(self.ls("--all"), "".join(f"{name}\n" for name in wanted))
        self.assertEqual(self.ls("-R"), self.ls("--all"))

    def test_does_not_take_a_name_for_the_start_of_another(self) -> None:
        result = run("ls", self.backup, NOTES, "Docu")
        self.assertEqual((result.returncode, result.stdout), (FAILED, b""))

    def test_in_json_gives_the_fields_of_the_children(self) -> None:
        found = [json.loads(line)["path"] for line in self.ls(NOTES, "Documents", "--json").splitlines()]
        self.assertEqual(found, [entry["path"] for entry in self.children(NOTES, "Documents")])

    def test_in_detail_gives_mode_owner_size_time_and_target(self) -> None:
        lines = self.ls(NOTES, "Documents", "-l").splitlines()
        wanted = self.children(NOTES, "Documents")
        self.assertEqual(len(lines), len(wanted))
        self.assertIn("symlink", {entry["type"] for entry in wanted})
        for line, entry in zip(lines, wanted):
            self.assertEqual(line, self.detail(entry, entry["path"].removeprefix("Documents/")))

    def test_in_detail_shows_every_mode_and_time(self) -> None:
        lines = self.ls("AppDomain-com.example.times", "-R", "-l").splitlines()
        for line, entry in zip(lines, self.in_domain("AppDomain-com.example.times"), strict=True):
            self.assertEqual(line, self.detail(entry, entry["path"] or "."))

    def detail(self, entry: dict[str, Any], name: str) -> str:
        times = time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(entry["modified"]))
        target = f" -> {entry['target']}" if entry["type"] == "symlink" else ""
        return (f"{stat.filemode(entry['mode'])} {entry['uid']:5} {entry['gid']:5} {entry['size']:14} {times}"
                f"  {name}{target}")

    def test_leaves_placeholders_out(self) -> None:
        path = backup("--tree", "small", "--placeholders", "2")
        lines = self.succeed("ls", path, "--all", "--json").splitlines()
        self.assertEqual(len(lines), len(entries_of(path)))


class Info(ToolTest):
    def test_prints_a_line_for_each_fact(self) -> None:
        path = backup()
        wanted = expectations(path)["backup"]
        lines = self.succeed("info", path).decode().splitlines()
        facts = dict(re.fullmatch(r"([^:]+): +(.*)", line).groups() for line in lines)  # type: ignore[union-attr]
        self.assertEqual(facts, {
            "Device name": wanted["deviceName"], "Device type": wanted["productType"],
            "OS version": wanted["productVersion"], "OS build": wanted["buildVersion"],
            "Serial number": wanted["serialNumber"], "Unique identifier": wanted["uniqueIdentifier"],
            "Date": time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(wanted["date"])),
            "Format version": wanted["version"], "Backup state": "new", "Snapshot state": "finished", "Encrypted": "no",
            "Domains": str(wanted["domains"]),
            "Files": str(wanted["files"]), "Directories": str(wanted["directories"]),
            "Links": str(wanted["symlinks"]),
            "Total size": f"{wanted['totalSize'] / 1000:.1f} kB ({wanted['totalSize']} bytes)"})

    def test_works_in_the_backup_directory(self) -> None:
        path = backup("--tree", "small")
        result = run("info", ".", "--json", cwd=path)
        self.assertEqual((result.returncode, result.stderr), (DONE, b""))
        self.assertEqual(json.loads(result.stdout)["files"], expectations(path)["backup"]["files"])


if __name__ == "__main__":
    main()
