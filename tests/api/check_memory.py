"""No secret outlives its use: looks through the memory of a host that opens the encrypted sample.

usage: check_memory.py HOST SAMPLES

The secrets are computed here, without the library. Each is looked for in whole and in halves of 16 bytes, as vector
registers hold them, and the two that HMAC works on in the forms that it gives them. What may be there when is what
docs/architecture.md says. Exits with 77, which stands for "skipped", where a process's memory cannot be read.
"""

from __future__ import annotations

import hashlib
import os
import re
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools"))
from backup_reader.backup import Backup  # noqa: E402
from backup_reader.keys import NEEDS_DEVICE, number, parse_blocks, parse_records, unwrap  # noqa: E402

SKIPPED = 77
HALF = 16
# What stays while the container is open, and what comes with reading and storing.
WHILE_OPEN = {"password", "class keys", "manifest key"}
AFTER_READING = WHILE_OPEN | {"file keys"}
ALLOWED = {
    "started": set(), "open": WHILE_OPEN, "reading": AFTER_READING, "first": AFTER_READING, "read": AFTER_READING,
    "stored": AFTER_READING, "closed": set(),
}  # fmt: skip
# What has to be found: that the search finds what is there.
REQUIRED = {
    "open": {"class keys", "manifest key"}, "reading": {"file keys"}, "first": {"file keys"}, "read": {"file keys"},
    "stored": {"file keys"},
}  # fmt: skip


def halves(secret: bytes) -> set[bytes]:
    return {secret, *(secret[i:i + HALF] for i in range(0, len(secret) - HALF + 1, HALF))}


def padded(key: bytes) -> set[bytes]:
    """The forms in which HMAC hashes its key."""
    return {bytes(byte ^ pad for byte in key)[:HALF] for pad in (0x36, 0x5C)}


class Secrets:
    def __init__(self, sample: Path, password: str) -> None:
        self.backup = Backup(sample, password.encode())
        plist = self.backup.manifest_plist
        header, *classes = parse_blocks(parse_records(plist["BackupKeyBag"]))
        first = hashlib.pbkdf2_hmac("sha256", password.encode(), header["DPSL"], number(header, "DPIC"), 32)
        kek = hashlib.pbkdf2_hmac("sha1", first, header["SALT"], number(header, "ITER"), 32)
        class_keys = [unwrap(kek, block["WPKY"], "a class key") for block in classes
                      if not number(block, "WRAP") & NEEDS_DEVICE]
        assert self.backup.keybag is not None
        self.needles = {
            "password": {password.encode(), password.encode("utf-16-le"), *padded(password.encode())},
            "first pass of the derivation": halves(first) | padded(first),
            "key-encryption key": halves(kek),
            "class keys": set().union(*map(halves, class_keys)),
            "manifest key": halves(self.backup.keybag.unlock(plist["ManifestKey"])),
            "file keys": set().union(*map(halves, self._file_keys())),
        }

    def _file_keys(self) -> Iterator[bytes]:
        for entry in self.backup.entries:
            if entry.kind == "file" and entry.key is not None:
                try:
                    yield self.backup.keybag.unlock(entry.key)
                except Exception:  # of a class that only the device opens
                    continue

    def add_file_key(self, blob: bytes) -> None:
        assert self.backup.keybag is not None
        self.needles["file keys"] |= halves(self.backup.keybag.unlock(blob))


def regions(pid: int) -> Iterator[tuple[str, int, bytes]]:
    """What of the process's memory it can write to, with the names of the mappings and their addresses."""
    with open(f"/proc/{pid}/maps", encoding="utf-8") as maps, open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for line in maps:
            found = re.match(r"([0-9a-f]+)-([0-9a-f]+) (....) \S+ \S+ \S+ *(.*)", line)
            assert found
            start, end = int(found[1], 16), int(found[2], 16)
            if not found[3].startswith("rw"):
                continue
            memory.seek(start)
            try:
                yield found[4] or "anonymous", start, memory.read(end - start)
            except OSError:
                continue  # memory of a device


def found_in(pid: int, needles: dict[str, set[bytes]]) -> dict[str, list[str]]:
    found: dict[str, list[str]] = {}
    for name, start, content in regions(pid):
        for secret, forms in needles.items():
            for form in forms:
                at = content.find(form)
                while at >= 0:
                    found.setdefault(secret, []).append(f"{len(form)} bytes at {start + at:x} in {name}")
                    at = content.find(form, at + 1)
    return found


def faults_of(step: str, found: dict[str, list[str]]) -> Iterator[str]:
    for secret, places in sorted(found.items()):
        # Whatever is kept is kept on the heap; on the stack it would be a leftover.
        wrong = [place for place in places if secret not in ALLOWED[step] or "[stack]" in place]
        if wrong:
            yield f"{step}: {secret}: {'; '.join(wrong[:8])}"
    for secret in sorted(REQUIRED.get(step, set()) - found.keys()):
        yield f"{step}: {secret} should be there, and the search does not find it"


def check(host: subprocess.Popen[bytes], secrets: Secrets) -> list[str]:
    assert host.stdin and host.stdout
    faults = []
    for step in ALLOWED:
        line = host.stdout.readline().decode().split()
        if not line or line[-1] != step:
            return [*faults, f"the host did not come to {step!r}"]
        if len(line) > 1:
            secrets.add_file_key(bytes.fromhex(line[0]))
        faults += faults_of(step, found_in(host.pid, secrets.needles))
        host.stdin.write(b"\n")
        host.stdin.flush()
    return faults if host.wait() == 0 else [*faults, "the host failed"]


def main() -> int:
    program, samples = sys.argv[1], Path(sys.argv[2])
    password_file = samples / "password.txt"
    secrets = Secrets(samples / "encrypted-3.3", password_file.read_text(encoding="utf-8").splitlines()[0])
    with tempfile.TemporaryDirectory() as temporary:
        arguments = [program, str(samples / "encrypted-3.3"), str(password_file), temporary]
        host = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            faults = check(host, secrets)
        except PermissionError as error:
            print(f"skipped: the memory of a process cannot be read here: {error}")
            return SKIPPED
        finally:
            host.kill()
            host.wait()
    print(*faults, sep="\n")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
