"""Entries that are links, entries below them, and a backup that is itself made of links."""

from __future__ import annotations

import os
from collections.abc import Callable
from functools import partial
from pathlib import Path

from .model import Backup, Case, Place, SECRET, binary, made, metadata, spoiled

UNSAFE = ("Unsafe stored file name",)


def entries_out(backup: Backup) -> None:
    targets = (str(backup.place.secret), "/etc/passwd", "../../../../../../etc", "..", "/", ".", "", "\0", "a\0b",
               "\x1b[31mred", "x" * 5000, "//", "~", "notes.txt/")
    for index, target in enumerate(targets):
        backup.link(f"Library/link {index}", target)


def entries_below(backup: Backup) -> None:
    outside = str(backup.place.outside)
    backup.link("Library/out", outside)
    backup.file("Library/out/escape")
    backup.directory("Library/out/directory")
    backup.link("Library/out/link", outside)
    # The other way round: the link comes after what is said to be in it.
    backup.file("Library/late/escape")
    backup.link("Library/late", outside)
    backup.link("", outside, domain="LinkDomain")
    backup.file("escape", domain="LinkDomain")


def entries_loop(backup: Backup) -> None:
    for name, target in (("a", "b"), ("b", "a"), ("self", "self"), ("up", "../Library/up"), ("dot", ".")):
        backup.link(f"Library/{name}", target)
        backup.file(f"Library/{name}/below")


def chain(backup: Backup) -> None:
    """Each link leads on to the next, and the last one out."""
    for index in range(200):
        backup.link(f"Library/{index}", str(index + 1))
    backup.link("Library/200", str(backup.place.outside))
    backup.file("Library/0/escape")


def stored_link(root: Path, place: Place, target: str) -> None:
    """The content of an entry is a link."""
    content = next(path for path in sorted(root.rglob("*")) if path.parent != root)
    content.unlink()
    content.symlink_to(target.format(secret=place.secret, outside=place.outside, self=content.name))


def prefix_link(root: Path, place: Place) -> None:
    """The directory of a stored file lies outside, with the secret under the file's name."""
    content = next(path for path in sorted(root.rglob("*")) if path.parent != root)
    content.unlink()
    content.parent.rmdir()
    content.parent.symlink_to(place.outside)
    (place.outside / content.name).write_bytes(SECRET)


def prefix_of_forged_id(place: Place) -> None:
    """A two-character directory is a link to the place of a file with a tell-tale name."""
    backup = Backup(place)
    backup.file_with_id("ohsecret", "Library/out", size=len(SECRET))
    (backup.write() / "oh").symlink_to(place.outside)
    (place.outside / "ohsecret").write_bytes(SECRET)


def replaced(root: Path, place: Place, name: str, target: str) -> None:
    """A file of the backup moves outside and leaves a link."""
    content = (root / name).read_bytes()
    (root / name).unlink()
    if target == "moved":
        (place.outside / name).write_bytes(content)
    (root / name).symlink_to({"moved": str(place.outside / name), "dangling": "nowhere", "self": name,
                              "secret": str(place.secret), "device": "/dev/zero"}[target])


def root_link(place: Place) -> None:
    """The backup itself may be a link: who names it means it."""
    elsewhere = place.backup.with_name("elsewhere")
    spoiled(lambda _root, _place: None).make(Place(elsewhere, place.outside))
    place.backup.symlink_to(elsewhere.name)


def hard_links(root: Path, _place: Place) -> None:
    """All stored files are one file."""
    contents = sorted(path for path in root.rglob("*") if path.parent != root)
    for path in contents[1:]:
        path.unlink()
        os.link(contents[0], path)


def old_format(make: Callable[[Place], None], place: Place) -> None:
    make(place)
    (place.backup / "Manifest.db").unlink()
    (place.backup / "Status.plist").write_bytes(binary(metadata()["Status.plist"] | {"Version": "2.4"}))
    (place.backup / "Manifest.mbdb").symlink_to(place.secret)


READING = {"extract": 1, "verify": 1, "export": 1, "edit": 1}
OPENING = {command: 1 for command in ("info", "ls", "extract", "verify", "export", "edit")}

CASES: dict[str, Case] = {
    "entries_out": made(entries_out),
    "entries_below": made(entries_below),
    "entries_loop": made(entries_loop),
    "chain": made(chain),
    "stored_secret": spoiled(partial(stored_link, target="{secret}"), status=READING, message=UNSAFE),
    "stored_inside": spoiled(partial(stored_link, target="../Info.plist"), status=READING, message=UNSAFE),
    "stored_dangling": spoiled(partial(stored_link, target="nowhere"), status=READING),
    "stored_self": spoiled(partial(stored_link, target="{self}"), status=READING),
    "stored_directory": spoiled(partial(stored_link, target="{outside}"), status=READING),
    "stored_device": spoiled(partial(stored_link, target="/dev/zero"), status=READING),
    "prefix": spoiled(prefix_link, status=READING, message=UNSAFE),
    "prefix_of_forged_id": Case(prefix_of_forged_id, status={"extract": 1, "verify": 1}),
    **{f"{name}_{target}": spoiled(partial(replaced, name=name, target=target),
                                   status={} if name == "Info.plist" and target in ("dangling", "self") else OPENING)
       for name in ("Manifest.db", "Manifest.plist", "Info.plist", "Status.plist")
       for target in ("moved", "dangling", "self", "secret", "device")},
    "old_manifest_secret": Case(partial(old_format, spoiled(lambda _root, _place: None).make), status=OPENING),
    "root": Case(root_link, status={"info": 0, "ls": 0, "extract": 0, "verify": 0, "export": 0, "edit": 0, "csv": 0}),
    "hard_links": spoiled(hard_links),
}
