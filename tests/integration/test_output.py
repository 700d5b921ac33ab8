"""Standard streams that are full, closed or no longer read."""

from __future__ import annotations

import os
import signal
import subprocess

from tool_testing import DONE, FAILED, TIMEOUT, ToolTest, backup, command, entries_of, main, run

NOTES = "AppDomain-com.example.notes"
FULL = (b"kelvane: Standard output could not be written\n"
        b"  caused by: No space left on device (NSPOSIXErrorDomain 28)\n")


def shell(script: str, *arguments: str) -> subprocess.CompletedProcess[bytes]:
    return subprocess.run(["bash", "-c", script, "bash", *arguments], capture_output=True, check=False,
                          timeout=TIMEOUT, stdin=subprocess.DEVNULL)


class Full(ToolTest):
    def assert_fails(self, *arguments: str) -> None:
        with open("/dev/full", "wb") as full:
            result = run(*arguments, stdout=full)
        self.assertEqual((result.returncode, result.stderr), (FAILED, FULL))
        self.assert_no_leftovers()

    def test_output_fails_every_command(self) -> None:
        path = str(backup("--tree", "small"))
        for arguments in (("info", path), ("info", path, "--json"), ("ls", path), ("ls", path, "--all", "--json"),
                          ("cat", path, NOTES, "Documents/Welcome.txt"), ("--help",), ("ls", "--help"),
                          ("--version",)):
            with self.subTest(arguments):
                self.assert_fails(*arguments)

    def test_output_fails_long_listings(self) -> None:
        self.assert_fails("ls", str(backup()), "--all", "--json")

    def test_disk_fails_the_file_and_leaves_no_part_of_it(self) -> None:
        path = backup("--tree", "small", "--size-of-one", "3000000")
        # Room for all but the largest file.
        result = shell('ulimit -f 2000; trap "" XFSZ; exec "$@"', *command("extract", path, "-o", self.output))
        self.assertEqual((result.returncode, result.stdout), (FAILED, b""))
        lines = result.stderr.decode().splitlines()
        self.assertEqual(lines[:2], [
            "kelvane: MediaDomain/Media/big.bin: The file could not be written",
            "  caused by: File too large (NSPOSIXErrorDomain 27)"])
        wanted = entries_of(path)
        self.assertEqual(lines[2:], [f"kelvane: {len(wanted) - 1} of {len(wanted)} entries extracted, 1 failed"])
        self.assert_extracted_exactly([entry for entry in wanted if entry["size"] != 3000000])


class Closed(ToolTest):
    def test_output_is_an_error(self) -> None:
        path = str(backup("--tree", "small"))
        for arguments in (("info", path), ("ls", path), ("cat", path, NOTES, "Documents/Welcome.txt")):
            result = shell('exec "$@" >&-', *command(*arguments))
            self.assertEqual(result.returncode, FAILED)
            self.assertEqual(result.stderr, FULL.replace(b"No space left on device", b"Bad file descriptor")
                             .replace(b"28)", b"9)"))

    def test_streams_are_not_mistaken_for_files(self) -> None:
        path = backup("--tree", "small")
        for closed in ("<&-", ">&-", "2>&-", "<&- >&-", "<&- >&- 2>&-"):
            with self.subTest(closed):
                self.output = self.folder / closed.replace(" ", "")
                result = shell(f'exec "$@" {closed}', *command("extract", path, "-o", self.output))
                self.assertEqual(result.returncode, DONE)
                self.assert_extracted_exactly(entries_of(path))

    def test_input_is_no_password(self) -> None:
        result = shell('exec "$@" <&-', *command("info", backup("--tree", "small"), "--password-file", "-"))
        self.assertEqual(result.returncode, FAILED)
        self.assertTrue(result.stderr.startswith(b"kelvane: The password could not be read\n"))

    def test_errors_do_not_change_the_status(self) -> None:
        self.assertEqual(shell('exec "$@" 2>&-', *command("info", "/no/such/backup")).returncode, FAILED)


class Pipe(ToolTest):
    def test_that_nobody_reads_ends_a_listing_quietly(self) -> None:
        result = shell('"$@" | head -1; echo "${PIPESTATUS[0]}"', *command("ls", backup(), "--all", "--json"))
        first, status = result.stdout.splitlines()
        self.assertTrue(first.startswith(b'{"fileID":'))
        self.assertEqual((int(status), result.stderr), (128 + signal.SIGPIPE, b""))
        self.assert_no_leftovers()

    def test_that_nobody_reads_ends_cat_quietly(self) -> None:
        path = backup("--tree", "none", "--size-of-one", "3000000")
        result = shell('"$@" | head -c 1 | wc -c; echo "${PIPESTATUS[0]}"',
                       *command("cat", path, "MediaDomain", "Media/big.bin"))
        self.assertEqual(result.stdout.split(), [b"1", b"141"])
        self.assertEqual(result.stderr, b"")
        self.assert_no_leftovers()

    def test_that_nobody_reads_is_an_error_when_the_signal_is_ignored(self) -> None:
        result = shell('trap "" PIPE; { "$@"; echo "status $?" >&2; } | true',
                       *command("ls", backup(), "--all", "--json"))
        self.assertIn(b"Broken pipe (NSPOSIXErrorDomain 32)\nstatus 1\n", result.stderr)

    def test_of_errors_that_nobody_reads_does_not_stop_an_extraction(self) -> None:
        path = backup("--tree", "small", "--hostile", "stored-missing")
        reading, writing = os.pipe()
        os.close(reading)
        result = run("extract", path, "-o", self.output, stderr=writing)
        os.close(writing)
        self.assertEqual(result.returncode, FAILED)
        for entry in entries_of(path):
            if not entry["damaged"]:
                self.assert_extracted(entry)


if __name__ == "__main__":
    main()
