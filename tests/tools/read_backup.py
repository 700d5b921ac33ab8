#!/usr/bin/python3
"""Lists, checks and extracts any device backup: a second opinion that is independent of the library.

    read_backup.py BACKUP                              a table of the entries; every content is checked
    read_backup.py BACKUP --json                       the same, one JSON object a line
    read_backup.py BACKUP --info                       a JSON object that describes the backup
    read_backup.py BACKUP --account                    everything in it that is not as it should be, a line each
    read_backup.py BACKUP --strict                     the same, and also whatever devices write in another form
    read_backup.py BACKUP --extract DIR                every entry as DIR/DOMAIN/PATH; DIR must not exist
    read_backup.py BACKUP --password-file FILE ...     for an encrypted one

Each entry's `sha256` is that of its plaintext; `problem` says why there is none. The exit status is 1 when an entry has
a problem, 2 when the backup does not open.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import sys
from pathlib import Path
from typing import Any

from backup_reader.account import account
from backup_reader.backup import Backup
from backup_reader.errors import BackupError
from backup_reader.extract import extract
from backup_reader.manifest import Entry


def describe(entry: Entry) -> dict[str, Any]:
    return {
        "fileID": entry.file_id,
        "domain": entry.domain,
        "path": entry.path,
        "type": entry.kind,
        "target": entry.target,
        "mode": entry.mode,
        "uid": entry.uid,
        "gid": entry.gid,
        "birth": entry.birth,
        "modified": entry.modified,
        "changed": entry.changed,
        "size": entry.size,
        "protectionClass": entry.protection,
        "hasKey": entry.key is not None,
        "digest": entry.digest.hex() if entry.digest is not None else None,
    }


def checked(backup: Backup, entry: Entry) -> dict[str, Any]:
    """The description with the content's hash, or with what is wrong with the content."""
    result = describe(entry) | {"sha256": None, "problem": None}
    if entry.kind != "file":
        return result
    digest = hashlib.sha256()
    try:
        for chunk in backup.content(entry):
            digest.update(chunk)
        result["sha256"] = digest.hexdigest()
    except BackupError as error:
        result["problem"] = str(error)
    return result


def print_entries(backup: Backup, as_json: bool) -> int:
    problems = 0
    for entry in backup.entries:
        found = checked(backup, entry)
        problems += found["problem"] is not None
        if as_json:
            print(json.dumps(found))
        else:
            name = ascii(f"{entry.domain}/{entry.path}")
            note = f"  ({found['problem']})" if found["problem"] else ""
            print(f"{entry.mode:06o} {entry.uid:5} {entry.size:12} {entry.modified:11} {name}{note}")
    return problems


def run(arguments: argparse.Namespace) -> int:
    password = None
    if arguments.password_file is not None:
        password = (arguments.password_file.read_bytes().splitlines() or [b""])[0]
    backup = Backup(arguments.backup, password, arguments.strict)
    if arguments.info:
        print(json.dumps(backup.info()))
        return 0
    if arguments.account or arguments.strict:
        faults = list(account(backup))
        for fault in faults:
            print(ascii(fault))
        return 1 if faults else 0
    if arguments.extract is None:
        return 1 if print_entries(backup, arguments.json) else 0
    failed = 0
    for entry, reason in extract(backup, arguments.extract):
        failed += 1
        print(f"read_backup.py: {ascii(entry.domain)} {ascii(entry.path)}: {reason}", file=sys.stderr)
    return 1 if failed else 0


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("backup", type=Path, metavar="BACKUP")
    parser.add_argument("--password-file", type=Path, metavar="FILE")
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--info", action="store_true")
    parser.add_argument("--account", action="store_true")
    parser.add_argument("--strict", action="store_true")
    parser.add_argument("--extract", type=Path, metavar="DIR")
    try:
        return run(parser.parse_args())
    except (BackupError, OSError) as error:
        print(f"read_backup.py: {error}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
