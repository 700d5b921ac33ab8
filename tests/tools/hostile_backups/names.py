"""Domains and paths that are no names of files, lead elsewhere, or deceive who reads them."""

from __future__ import annotations

from functools import partial

from .model import Backup, Case, DOMAIN, made

SEPARATED = {
    "dotdot": ("..", "../escape", "../../../../escape", "Library/../../../escape", "Library/..", "./x", "."),
    "absolute": ("/escape", "/", "//escape", "{outside}/escape"),
    "empty_components": ("Library//double", "Library/trailing/", "/"),
    "nul": ("Library/nul\0.txt", "\0", "Library/..\0/escape"),
    "newline": ("Library/two\nlines", "\n", "Library/carriage\rreturn", "tab\tulator"),
    "escape_sequences": ("\x1b[31mred", "\x1b]0;title\x07", "\x1b[2J\x1b[H", "bell\x07", "back\x08\x08\x08space"),
    "c1_controls": ("\x9b31mred", "\x90dcs\x9c", "\x85next line", "del\x7f"),
    "bidirectional": ("\u202egnp.exe", "\u2066isolate\u2069", "\u200emark", "\u2028line\u2029paragraph", "\ufeffbom"),
    "right_to_left": ("\u05e9\u05dc\u05d5\u05dd.txt", "\u0645\u0631\u062d\u0628\u0627/\u0639"),
    "long_component": ("x" * 256, "\u00e9" * 200, "x" * 70_000, "Library/" + "y" * 255),
    "backslashes": ("..\\..\\escape", "C:\\escape", "\\\\server\\share", "Library\\notes.txt"),
    "metadata": ("Manifest.db", "Manifest.plist", "Info.plist", "Status.plist", "Manifest.mbdb"),
    "options": ("-rf", "--help", "-", "--password-file=/etc/passwd", "~", "$HOME", "`id`", "%s%n%@"),
    "hidden": (".partial", ".kelvane", "...", " ", ". ", "nul.", "CON", "aux.txt"),
    "noncharacters": ("\ufffe", "\uffff", "\U0010ffff", "\ufdd0", "\u0300combining first"),
}


def paths(backup: Backup, names: tuple[str, ...]) -> None:
    for name in names:
        name = name.replace("{outside}", str(backup.place.outside))
        backup.file(name)
        backup.directory(name + "\u00a0directory" if name != ".." else "../escaped directory")


def domains(backup: Backup, names: tuple[str, ...]) -> None:
    for name in names:
        backup.file("Documents/file.txt", domain=name.replace("{outside}", str(backup.place.outside)))


def deep(backup: Backup, levels: int) -> None:
    backup.file("a/" * (levels - 1) + "file")
    backup.directory("b/" * (levels - 1) + "directory")


def twins_in_case(backup: Backup) -> None:
    for name in ("Library/Twin", "Library/twin", "LIBRARY/twin"):
        backup.file(name)
    backup.file("twin", domain="homeDOMAIN")


def twins_in_normalisation(backup: Backup) -> None:
    for name in ("caf\u00e9", "cafe\u0301", "\u212b", "\u00c5", "A\u030a", "\ufb01le", "file"):
        backup.file(f"Library/{name}")


def twins(backup: Backup) -> None:
    """Several entries of one path, and of several kinds."""
    backup.schema = "CREATE TABLE Files (fileID, domain, relativePath, flags, file)"
    for _ in range(3):
        backup.file("Library/twin")
    backup.directory("Library/twin")
    backup.link("Library/twin", "notes.txt")


def below_file(backup: Backup) -> None:
    backup.file("Library/notes.txt/below")
    backup.directory("Library/notes.txt/directory")
    backup.link("Library/notes.txt/link", "x")


def not_unicode(backup: Backup) -> None:
    """Text that is no UTF-8 reaches the database as a cast alone."""
    backup.schema += ("CREATE TRIGGER cast AFTER INSERT ON Files BEGIN UPDATE Files SET "
                      "relativePath = CAST(new.relativePath AS TEXT) WHERE fileID = new.fileID; END;")
    for index, octets in enumerate((b"\xff\xfe", b"a\xed\xa0\x80b", b"\xc0\xaf", b"\xf5\x80\x80\x80", b"cut\xe2\x82")):
        backup.rows.append((f"{index:040x}", DOMAIN, octets, 1, b""))


def many(backup: Backup) -> None:
    """A directory of many names; slow searches would show."""
    for index in range(20_000):
        backup.file_with_id(f"{index:040x}", f"Library/{index}")


CASES: dict[str, Case] = {
    **{f"path_{name}": made(partial(paths, names=names)) for name, names in SEPARATED.items()},
    **{f"domain_{name}": made(partial(domains, names=names)) for name, names in SEPARATED.items()
       if name not in ("long_component", "metadata", "empty_components")},
    "deep_1000": made(partial(deep, levels=1000)),
    "deep_200000": made(partial(deep, levels=200_000)),
    "slashes": made(partial(paths, names=("/" * 100_000,))),
    "twins_in_case": made(twins_in_case),
    "twins_in_normalisation": made(twins_in_normalisation),
    "twins": made(twins),
    "below_file": made(below_file),
    "not_unicode": made(not_unicode),
    "empty_domain": made(partial(domains, names=("",))),
    "many": made(many, heavy=True),
}
