"""Every format of backup that devices write is described, listed and extracted as its maker says."""

from __future__ import annotations

import hashlib
import json
from pathlib import Path
from typing import Any

from tool_testing import ENCRYPTED, SAMPLES, ToolTest, WITH_PASSWORD, backup, entries_of, expectations, main

PLAIN = ("2.4", "3.0", "3.1", "3.2", "3.3")
ENCRYPTABLE = ("3.2", "3.3")
# What the expectations say beyond a listing.
MAKER_ONLY = ("sha256", "hostile", "damaged")


def formats() -> dict[str, tuple[str, ...]]:
    found = {f"plain {version}": ("--version", version) for version in PLAIN}
    for version in ENCRYPTABLE:
        found[f"encrypted {version}"] = ("--version", version, *ENCRYPTED)
        found[f"device-bound {version}"] = ("--version", version, *ENCRYPTED, "--device-bound")
    found["old keybag"] = (*ENCRYPTED, "--keybag-version", "3")
    found["no Info.plist"] = ("--tree", "small", "--without-info")
    found["binary Info.plist"] = ("--tree", "small", "--info-format", "binary")
    zipped = {f"{name}, zip": (*options, "--zip") for name, options in found.items()
              if name.startswith(("plain", "encrypted 3.3", "device-bound 3.2"))}
    return found | zipped | {"deflated zip": ("--zip", "--deflate"),
                             "deflated encrypted zip": (*ENCRYPTED, "--zip", "--deflate")}


def with_password(path: Path) -> tuple[str, ...]:
    return WITH_PASSWORD if expectations(path)["backup"]["encrypted"] else ()


class FormatTest(ToolTest):
    def assert_described(self, path: Path, *options: str) -> None:
        described = json.loads(self.succeed("info", path, "--json", *options))
        wanted = expectations(path)["backup"]
        for name, other in (("deviceName", "deviceName"), ("deviceType", "productType"), ("date", "date"),
                            ("osVersion", "productVersion"), ("osBuild", "buildVersion"), ("links", "symlinks"),
                            ("serialNumber", "serialNumber"), ("uniqueIdentifier", "uniqueIdentifier"),
                            ("formatVersion", "version"), ("encrypted", "encrypted"), ("domains", "domains"),
                            ("files", "files"), ("directories", "directories"), ("totalSize", "totalSize")):
            self.assertEqual(described.pop(name), wanted[other], name)
        self.assertEqual(described, {"backupState": "new", "snapshotState": "finished"})

    def assert_listed(self, path: Path, *options: str) -> None:
        listed = [json.loads(line) for line in self.succeed("ls", path, "--all", "--json", *options).splitlines()]
        wanted = [{key: value for key, value in entry.items() if key not in MAKER_ONLY} for entry in entries_of(path)]
        self.assertEqual(len(listed), len(wanted))
        for one, other in zip(listed, wanted):
            self.assertEqual(one, other)
            self.assertEqual(list(one), list(other))  # the order of the fields too

    def assert_comes_out(self, path: Path, *options: str) -> None:
        messages, entries = self.extract(path, *options), entries_of(path)
        self.assertEqual(messages, [f"kelvane: {len(entries)} of {len(entries)} entries extracted"])
        self.assert_extracted_exactly(entries)

    def check(self, path: Path, *options: str) -> None:
        self.output = self.folder / path.name
        self.assert_described(path, *options)
        self.assert_listed(path, *options)
        self.assert_comes_out(path, *options)
        self.assert_no_leftovers()


class EveryFormat(FormatTest):
    """One test a format, for each to have a name in the report."""


def test_of(options: tuple[str, ...]) -> Any:
    def test(self: FormatTest) -> None:
        path = backup(*options)
        self.check(path, *with_password(path))
    return test


for name, options in formats().items():
    setattr(EveryFormat, "test_" + name.replace(" ", "_").replace(",", ""), test_of(options))


class Samples(FormatTest):
    def test_encrypted(self) -> None:
        self.check(SAMPLES / "encrypted-3.3", "--password-file", str(SAMPLES / "password.txt"))

    def test_plain(self) -> None:
        for name in ("plain-3.2", "plain-3.1.zip", "plain-2.4"):
            with self.subTest(name):
                self.check(SAMPLES / name)


class Cat(ToolTest):
    def assert_printed(self, path: Path, entry: dict[str, Any], *options: str) -> None:
        printed = self.succeed("cat", *options, "--", path, entry["domain"], entry["path"])
        self.assertEqual(hashlib.sha256(printed).hexdigest(), entry["sha256"])

    def test_prints_every_size_in_every_form(self) -> None:
        for options in (("--version", "2.4"), (), ("--zip",), ENCRYPTED, (*ENCRYPTED, "--zip")):
            path = backup(*options)
            sized = [entry for entry in entries_of(path) if "/size-" in entry["path"]]
            self.assertEqual({entry["size"] for entry in sized},
                             {0, 1, 15, 16, 17, 32767, 32768, 32769, 100000})
            for entry in sized:
                with self.subTest(options=options, path=entry["path"]):
                    self.assert_printed(path, entry, *with_password(path))

    def test_prints_files_of_every_name(self) -> None:
        path = backup()
        for entry in entries_of(path, "file"):
            if entry["domain"].endswith(".names"):
                with self.subTest(entry["path"]):
                    self.assert_printed(path, entry)

    def test_tells_twins_apart(self) -> None:
        path = backup()
        twins = [entry for entry in entries_of(path, "file") if entry["path"].lower().endswith("case/inner.txt")]
        self.assertEqual(len(twins), 2)
        for entry in twins:
            self.assert_printed(path, entry)


if __name__ == "__main__":
    main()
