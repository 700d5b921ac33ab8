#!/usr/bin/python3
"""`kelvane extract` of one large encrypted file against `openssl enc -d` and `openssl sha1` of the same file.

    extract_ratio.py BUILD/bin/kelvane

openssl writes the plaintext as extracting does, and hashes the stored file as opening its content does. It runs with
a key of zeros and without looking at the padding: the work is the same whatever the key. The three are run in turn,
round by round, and the medians are compared, in elapsed time and in processor time (user and system, of the process),
which busy neighbours disturb less. What has been extracted is checked against the expectations once.

KELVANE_BENCH_DIR: where the backup is made and kept, by default /dev/shm/kvbench.
KELVANE_BENCH_BYTES: size of the file, by default 1073741824.
"""

from __future__ import annotations

import hashlib
import json
import os
import shutil
import statistics
import subprocess
import sys
import time
from pathlib import Path
from typing import Any

ROUNDS = 7  # odd, so that the median is one of them
PASSWORD = "bench"
DIRECTORY = Path(os.environ.get("KELVANE_BENCH_DIR", "/dev/shm/kvbench"))
SIZE = int(os.environ.get("KELVANE_BENCH_BYTES", 1 << 30))
BACKUP = DIRECTORY / f"one-{SIZE}"
PASSWORD_FILE = DIRECTORY / "password"
OUTPUT = DIRECTORY / "extracted"
MAKER = Path(__file__).resolve().parent.parent / "tests" / "tools" / "make_backup.py"


def make_backup() -> dict[str, Any]:
    """The one file that the backup holds. The password's derivation is kept short: it is not what is measured."""
    DIRECTORY.mkdir(mode=0o700, parents=True, exist_ok=True)
    PASSWORD_FILE.write_text(PASSWORD + "\n", encoding="ascii")
    if not (BACKUP / "Status.plist").exists():
        subprocess.run([MAKER, BACKUP, "--tree", "none", "--size-of-one", str(SIZE), "--encrypted", "--password-file",
                        PASSWORD_FILE, "--iterations", "1000", "--dp-iterations", "1000"], check=True)
    expected = json.loads(BACKUP.with_name(BACKUP.name + ".expectations.json").read_text(encoding="ascii"))
    return next(entry for entry in expected["entries"] if entry["size"] == SIZE)


def seconds_of(*command: str | Path) -> tuple[float, float]:
    """Elapsed and processor time."""
    start, before = time.monotonic(), os.times()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    after, elapsed = os.times(), time.monotonic() - start
    return elapsed, (after.children_user + after.children_system - before.children_user - before.children_system)


def extract(tool: Path) -> tuple[float, float]:
    shutil.rmtree(OUTPUT, ignore_errors=True)
    return seconds_of(tool, "extract", BACKUP, "--password-file", PASSWORD_FILE, "--output", OUTPUT)


def decrypt(stored: Path) -> tuple[float, float]:
    plain = DIRECTORY / "plain"
    plain.unlink(missing_ok=True)
    times = seconds_of("openssl", "enc", "-d", "-aes-256-cbc", "-K", "0" * 64, "-iv", "0" * 32, "-nopad",
                       "-in", stored, "-out", plain)
    plain.unlink()
    return times


def check(entry: dict[str, Any]) -> None:
    found = [path for path in OUTPUT.rglob("*") if path.is_file() and path.stat().st_size == SIZE]
    with found[0].open("rb") as content:
        if hashlib.file_digest(content, "sha256").hexdigest() != entry["sha256"]:
            raise SystemExit("what was extracted is not what was backed up")


def report(rounds: dict[str, list[tuple[float, float]]]) -> None:
    for position, clock in enumerate(("elapsed", "processor")):
        median = {name: statistics.median(times[position] for times in series) for name, series in rounds.items()}
        ratio = median["extract"] / (median["enc -d"] + median["sha1"])
        print(f"{clock:9}", *(f"{name} {seconds:.3f} s" for name, seconds in median.items()), f"ratio {ratio:.2f}",
              sep="  ")


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    tool = Path(sys.argv[1])
    entry = make_backup()
    stored = BACKUP / entry["fileID"][:2] / entry["fileID"]
    rounds: dict[str, list[tuple[float, float]]] = {"extract": [], "enc -d": [], "sha1": []}
    for _ in range(ROUNDS):
        rounds["extract"].append(extract(tool))
        rounds["enc -d"].append(decrypt(stored))
        rounds["sha1"].append(seconds_of("openssl", "sha1", stored))
    check(entry)
    shutil.rmtree(OUTPUT)
    report(rounds)
    return 0


if __name__ == "__main__":
    sys.exit(main())
