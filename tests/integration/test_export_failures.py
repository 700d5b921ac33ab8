"""`export`: damaged backups, full disks and signals; what cannot be written is named, and nothing is left over."""

from __future__ import annotations

import os
import resource
import signal
import subprocess
import time
from pathlib import Path
from typing import Any

from exporting import CIPHER, ExportTest
from reading_back import PLISTS, raw, read
from tool_testing import FAILED, WITH_PASSWORD, backup, command, entries_of, main, run

from backup_maker import hostile  # found through tool_testing

DEADLINE = 30


class Damage(ExportTest):
    """A file that cannot be had is named, and everything else is there."""

    def check(self, variant: str, lines: list[str], *options: str, reason: str = "is missing") -> None:
        source = backup("--tree", "small", "--hostile", variant, *options)
        password = WITH_PASSWORD if "--encrypted" in options else ()
        for kind in ("directory", "zip"):
            with self.subTest(variant=variant, kind=kind):
                self.output = self.folder / f"{variant}.{kind}"
                messages = self.export(source, *password, status=FAILED)
                place = f"{hostile.DOMAIN}/Documents/{variant}.txt"
                self.assertEqual(messages[0], f"kelvane: {place}: its stored content {reason}")
                self.assertNotIn("bug", "\n".join(messages))
                self.assertEqual([line for line in messages[1:-1] if not line.startswith("  caused by: ")], [])
                for line in lines:
                    self.assertTrue(any(line in message for message in messages[1:-1]), (line, messages))
                self.assertTrue(messages[-1].endswith("; 1 file skipped"), messages)
                self.assert_rest(source)

    def assert_rest(self, source: Path) -> None:
        [missing] = [entry for entry in entries_of(source) if entry["damaged"]]
        wanted = {entry["fileID"] for entry in entries_of(source, "file")} - {missing["fileID"]}
        found = {os.path.basename(name) for name in raw(self.output)} - {*PLISTS, "Manifest.db", "Manifest.mbdb"}
        self.assertEqual(found, wanted)
        self.assertEqual(len(read(self.output).entries), len(entries_of(source)))
        problems = run("verify", self.output, *self.password_for(self.output)).stdout.decode()
        self.assertIn(f"{missing['path']}: its stored content is missing", problems)

    def test_that_is_missing(self) -> None:
        self.check("stored-missing", ["File does not exist at path", "(code 16)"])

    def test_that_is_missing_from_a_binary_manifest(self) -> None:
        self.check("stored-missing", ["File does not exist at path"], "--version", "2.4")

    def test_that_is_missing_from_a_zip(self) -> None:
        self.check("stored-missing", ["Could not locate file record in zip", "(ZK.ZipErrorDomain"], "--zip")

    def test_that_is_missing_from_an_encrypted_backup(self) -> None:
        self.check("stored-missing", ["File does not exist at path"], *CIPHER)

    def test_that_is_a_fifo(self) -> None:
        self.check("stored-fifo", ["Failed to hash file"], reason="cannot be read")

    def test_that_is_a_directory(self) -> None:
        self.check("stored-directory", ["Failed to hash file"], reason="cannot be read")

    def test_of_keys_and_ciphers_is_copied_as_it_is(self) -> None:
        for variant in hostile.CIPHER_DAMAGES:
            source = backup("--tree", "small", "--hostile", variant, *CIPHER)
            self.output = self.folder / variant
            self.export(source, *WITH_PASSWORD)
            one, other = raw(source), raw(self.output)
            self.assertEqual(set(one), set(other))
            self.assertTrue(all(one[name] == other[name] for name in one if "/" in name))

    def test_by_unsafe_names_is_not_written(self) -> None:
        source = backup("--tree", "small", "--hostile", "file-id-dotdot", "--hostile", "file-id-slash")
        unsafe = [entry for entry in entries_of(source) if entry["damaged"]]
        for name in ("out", "out.zip"):
            self.output = self.folder / name
            before = set(os.listdir(self.folder))
            messages = self.export(source, status=FAILED)
            self.assertTrue(messages[-1].endswith(f"; {len(unsafe)} files skipped"), messages[-1])
            for entry in unsafe:
                self.assertTrue(any(f"{entry['domain']}/{entry['path']}: " in line for line in messages), entry)
            self.assertEqual(set(os.listdir(self.folder)) - before, {name})
            self.assertEqual({os.path.basename(stored) for stored in raw(self.output)},
                             {entry["fileID"] for entry in entries_of(source, "file") if not entry["damaged"]}
                             | {*PLISTS, "Manifest.db"})

    def test_of_every_kind_at_once(self) -> None:
        source = backup("--tree", "small", "--hostile", "all", *CIPHER)
        messages = self.export(source, *WITH_PASSWORD, status=FAILED)
        self.assertRegex(messages[-1], "; [0-9]+ files skipped$")
        self.assertEqual(len(read(self.output).entries), len(entries_of(source)))


def limit_file_size(limit: int) -> Any:
    def limit_now() -> None:
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
    return limit_now


class FullDisk(ExportTest):
    def test_skips_what_does_not_fit(self) -> None:
        source = backup("--tree", "small", "--size-of-one", "3000000")
        messages = self.export(source, status=FAILED, preexec_fn=limit_file_size(1_000_000))
        self.assertIn("MediaDomain/Media/big.bin: ", messages[0])
        self.assertIn("could not be written (code 14)", messages[0])
        self.assertTrue(any("File too large" in line for line in messages), messages)
        self.assertTrue(messages[-1].endswith("; 1 file skipped"), messages)
        self.assertEqual(len(raw(self.output)), len(raw(source)) - 1)

    def test_leaves_nothing_that_is_no_backup(self) -> None:
        # The list of entries is the largest file of all.
        source = backup("--version", "2.4", "--files", "600")
        limit = (source / "Manifest.mbdb").stat().st_size - 1
        for name in ("out", "out.zip"):
            self.output = self.folder / "new" / name
            messages = self.export(source, status=FAILED, preexec_fn=limit_file_size(limit))
            self.assertEqual(messages[-1], f"kelvane: Nothing was written to '{self.output}': without its manifest and"
                             " metadata it would be no backup")
            self.assertTrue(any("Manifest.mbdb" in line or "archive could not be completed" in line
                                for line in messages), messages)
            self.assertTrue(any("File too large" in line for line in messages), messages)
            self.assertFalse((self.folder / "new").exists())
            self.assert_no_leftovers()


class Interrupted(ExportTest):
    def start(self, source: Path, *options: str | Path) -> subprocess.Popen[bytes]:
        process = subprocess.Popen(command("export", source, self.output, *options), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(lambda: (process.kill(), process.communicate()) if process.poll() is None else None)
        return process

    def partial(self) -> Path | None:
        parent = self.output.parent
        names = [name for name in os.listdir(parent) if name.endswith(".partial")] if parent.exists() else []
        return parent / names[0] if names else None

    def wait_for_partial(self, process: subprocess.Popen[bytes]) -> None:
        end = time.monotonic() + DEADLINE
        while process.poll() is None and time.monotonic() < end:
            partial = self.partial()
            if partial is not None and (partial.is_file() or len(os.listdir(partial)) > 3):
                return
            time.sleep(0.0005)
        raise AssertionError("nothing is being written")

    def check(self, source: Path, number: signal.Signals) -> None:
        process = self.start(source)
        self.wait_for_partial(process)
        # The name that was asked for is not taken by half a backup.
        self.assertFalse(os.path.lexists(self.output))
        process.send_signal(number)
        output, messages = process.communicate(timeout=DEADLINE)
        self.assertEqual((process.returncode, output, messages), (-number, b"", b""))

    def test_leaves_nothing_of_a_directory(self) -> None:
        source = backup("--files", "3000")
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                self.check(source, number)
                self.assert_vanished()

    def test_leaves_nothing_of_a_zip(self) -> None:
        self.zip_output()
        source = backup("--files", "3000")
        for number in (signal.SIGINT, signal.SIGTERM):
            self.check(source, number)
            self.assert_vanished()

    def test_leaves_nothing_of_the_directories_above(self) -> None:
        self.output = self.folder / "a" / "b" / "out"
        self.check(backup("--files", "3000"), signal.SIGINT)
        self.assertFalse((self.folder / "a").exists())
        self.assert_no_leftovers()

    def test_leaves_no_half_backup_when_killed(self) -> None:
        process = self.start(backup("--files", "3000"))
        self.wait_for_partial(process)
        process.kill()
        process.communicate()
        self.assertFalse(os.path.lexists(self.output))


if __name__ == "__main__":
    main()
