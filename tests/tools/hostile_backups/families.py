"""All families by name."""

from __future__ import annotations

from . import contents, databases, file_ids, keybags, links, names, old_manifests, plists, records, zips
from .model import Case

FAMILIES: dict[str, dict[str, Case]] = {
    "contents": contents.CASES, "databases": databases.CASES, "file_ids": file_ids.CASES, "keybags": keybags.CASES,
    "links": links.CASES, "names": names.CASES, "old_manifests": old_manifests.CASES, "plists": plists.CASES,
    "records": records.CASES, "zips": zips.CASES,
}
