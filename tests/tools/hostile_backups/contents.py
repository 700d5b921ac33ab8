"""Stored files that are missing, cut, or no files; and backups that are none."""

from __future__ import annotations

import os
import stat
from collections.abc import Callable
from functools import partial
from pathlib import Path

from backup_maker.storage import bind_socket

from .keybags import encrypted
from .model import CONTENT, Case, Place, spoiled

READING = {"extract": 1, "verify": 1}


def stored_files(root: Path) -> list[Path]:
    return sorted(path for path in root.rglob("*") if path.parent != root and not path.is_dir())


def content(spoil: Callable[[Path], object], **options: object) -> Case:
    """One stored file comes to harm."""
    return spoiled(lambda root, _place: spoil(stored_files(root)[0]), **options)  # type: ignore[arg-type]


def instead(make: Callable[[Path], object], **options: object) -> Case:
    """Something else lies where the stored file was."""
    def harm(path: Path) -> None:
        path.unlink()
        make(path)
    return content(harm, status=READING, **options)


def metadata(name: str, make: Callable[[Path], object], **options: object) -> Case:
    def harm(root: Path, _place: Place) -> None:
        (root / name).unlink()
        make(root / name)
    return spoiled(harm, **options)  # type: ignore[arg-type]


def device(path: Path) -> None:
    """The device of endless zeros."""
    os.mknod(path, stat.S_IFCHR | 0o666, os.makedev(1, 5))


def prefix_is_file(path: Path) -> None:
    path.unlink()
    path.parent.rmdir()
    path.parent.write_bytes(CONTENT)


def cipher(spoil: Callable[[bytes], bytes], status: dict[str, int]) -> Case:
    """The content of an encrypted backup is changed."""
    made = encrypted(lambda _values: None)

    def make(place: Place) -> None:
        made.make(place)
        for path in stored_files(place.backup):
            path.write_bytes(spoil(path.read_bytes()))
    return Case(make, password=True, status=status)


def manifest_cipher(spoil: Callable[[bytes], bytes]) -> Case:
    made = encrypted(lambda _values: None)

    def make(place: Place) -> None:
        made.make(place)
        path = place.backup / "Manifest.db"
        path.write_bytes(spoil(path.read_bytes()))
    return Case(make, password=True, status={command: 1 for command in ("info", "ls", "extract", "export", "csv")})


def no_backup(make: Callable[[Path], object]) -> Case:
    return Case(lambda place: make(place.backup) and None, status={"info": 1, "ls": 1, "extract": 1, "verify": 1,
                                                                   "export": 1, "edit": 1, "csv": 1})


def grow(path: Path, size: int) -> None:
    os.truncate(path, size)


def deep_tree(root: Path, _place: Place) -> None:
    """Folders that belong to no entry, one below the other."""
    path = root
    for _ in range(300):
        path = path / "deep"
    path.mkdir(parents=True)


def strays(root: Path, _place: Place) -> None:
    for name in ("stray", "\x1b[31mred", "two\nlines", "\udcff\udcfe", "\u202e", "-rf"):
        (root / name).write_bytes(CONTENT)
        (root / "00").mkdir(exist_ok=True)
        (root / "00" / name).write_bytes(CONTENT)
    for index in range(3000):
        (root / f"stray {index}").touch()


def closed(root: Path, _place: Place) -> None:
    """Nobody may read a stored file, nor look into another's folder."""
    first, second = stored_files(root)[:2]
    first.chmod(0)
    second.parent.chmod(0)


CASES: dict[str, Case] = {
    "missing": content(Path.unlink, status=READING),
    "empty": content(lambda path: path.write_bytes(b"")),
    "truncated": content(lambda path: path.write_bytes(CONTENT[:3])),
    "longer": content(lambda path: path.write_bytes(CONTENT * 1000)),
    "directory": instead(Path.mkdir),
    "fifo": instead(os.mkfifo),
    "socket": instead(bind_socket),
    "device": instead(device, needs_root=True),
    "prefix_is_file": content(prefix_is_file, status=READING),
    "sparse": content(partial(grow, size=1 << 30), heavy=True),
    "closed": spoiled(closed),
    "strays": spoiled(strays),
    "deep_tree": spoiled(deep_tree),
    "cipher_not_padded": cipher(lambda whole: whole[:-16] + bytes(16), READING),
    "cipher_cut": cipher(lambda whole: whole[:-5], READING),
    "cipher_empty": cipher(lambda _whole: b"", {}),
    "cipher_of_one_octet": cipher(lambda _whole: b"x", READING),
    "manifest_cut": manifest_cipher(lambda whole: whole[:-5]),
    "manifest_of_other_key": manifest_cipher(lambda whole: bytes(len(whole))),
    "manifest_empty": manifest_cipher(lambda _whole: b""),
    **{f"{name}_{kind}": metadata(name, make, needs_root=kind == "device", heavy=kind == "large")
       for name in ("Info.plist", "Manifest.plist", "Status.plist", "Manifest.db")
       for kind, make in (("fifo", os.mkfifo), ("directory", Path.mkdir), ("device", device),
                          ("large", lambda path: path.write_bytes(b"x") and os.truncate(path, 1 << 30)))},
    "no_backup": no_backup(lambda path: path.mkdir() or True),
    "no_zip": no_backup(lambda path: path.write_bytes(b"this is no zip")),
    "fifo_for_backup": no_backup(lambda path: os.mkfifo(path) or True),
    "nothing": no_backup(lambda path: True),
}
