"""What a reader has to find in a backup, written beside it."""

from __future__ import annotations

import json
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from .model import Device, DIRECTORY, FILE, Options, Stored, SYMLINK, TYPE_BITS


def describe(stored: Stored) -> dict[str, Any]:
    entry = stored.entry
    return {
        "fileID": stored.file_id,
        "domain": entry.domain,
        "path": entry.path,
        "type": entry.kind,
        "target": entry.target,
        "mode": TYPE_BITS[entry.kind] | entry.mode,
        "uid": entry.uid,
        "gid": entry.gid,
        "birth": entry.birth,
        "modified": entry.modified,
        "changed": entry.changed,
        "size": entry.size,
        "protectionClass": entry.protection,
        "hasKey": stored.key is not None,
        "digest": stored.digest.hex() if stored.digest is not None else None,
        "sha256": stored.sha256,
        # The name of the trap that the entry is, and whether its content cannot be had as it was.
        "hostile": entry.hostile,
        "damaged": entry.damage is not None,
    }


def describe_backup(options: Options, device: Device, contents: Sequence[Stored]) -> dict[str, Any]:
    kinds = [stored.entry.kind for stored in contents]
    return {
        "deviceName": device.name,
        "productType": device.product_type,
        "productVersion": device.product_version,
        "buildVersion": device.build,
        "serialNumber": device.serial,
        "uniqueIdentifier": device.udid,
        "date": device.date,
        "version": options.version,
        "encrypted": options.encrypted,
        "domains": len({stored.entry.domain for stored in contents}),
        "files": kinds.count(FILE),
        "directories": kinds.count(DIRECTORY),
        "symlinks": kinds.count(SYMLINK),
        "placeholders": options.placeholders,
        "totalSize": sum(stored.entry.size for stored in contents),
    }


def write(path: Path, backup: dict[str, Any], contents: Sequence[Stored]) -> None:
    """One line an entry, so that a change shows as the lines that it changes."""
    lines = ",\n".join("  " + json.dumps(describe(stored)) for stored in contents)
    text = f'{{\n"backup": {json.dumps(backup, indent=1)},\n"entries": [\n{lines}\n]\n}}\n'
    path.write_text(text, encoding="ascii")
