"""Entries that no honest device writes, and honest entries whose stored content came to harm."""

from __future__ import annotations

from collections.abc import Callable, Iterator

from .model import Entry, Options
from .tree import TreeMaker

DOMAIN = "AppDomain-com.example.hostile"
TEXT = "this content is of no use to anyone, but long enough to be cut in half\n"

# How the stored content or the key of one file is broken.
STORED_DAMAGES = ("stored-missing", "stored-truncated", "stored-changed", "digest-wrong")
OBSTRUCTION_DAMAGES = ("stored-directory", "stored-fifo", "stored-socket", "stored-symlink")
CIPHER_DAMAGES = ("cipher-ragged", "cipher-padding", "key-missing", "key-short", "key-damaged", "device-bound")

FORCED_FILE_IDS = {
    "file-id-dotdot": ("..", "../outside", "../../../../etc/passwd", "...", "..a"),
    "file-id-slash": ("a/b", "ab/../../outside", "/etc/passwd", "ab//cd"),
    "file-id-empty": ("",),
    "file-id-short": ("a", "."),
    "file-id-not-hex": ("Z" * 40, "ab", "abcdef", "0123456789" * 20),
}
PATHS = {
    "path-dotdot": ("../escape.txt", "../../../../tmp/escape.txt", "Documents/../../escape.txt", "..", "Documents/.."),
    "path-absolute": ("/etc/escape.txt", "/"),
    "path-odd-components": ("Documents//double.txt", "Documents/./dot.txt", ".", "Documents/trailing/"),
    "path-empty-file": ("",),
}
DOMAINS = {
    "domain-dotdot": ("..", "../escape", "AppDomain-a/../../escape"),
    "domain-slash": ("AppDomain-a/b", "/tmp/escape", "."),
    "domain-odd": ("AppDomain-two\nlines", "-rf", " ", "AppDomain-\x1b[31mred", "appdomain-COM.example.notes"),
}
LINK_TARGETS = ("/etc/passwd", "../../../../../../etc", "..", "/")


def with_damage(name: str, maker: TreeMaker) -> Iterator[Entry]:
    entry = maker.file(DOMAIN, f"Documents/{name}.txt", TEXT)
    entry.damage = name
    # A digest would tell of most damages before the content does.
    entry.with_digest = name == "stored-changed"
    yield entry


def empty_without_padding(_name: str, maker: TreeMaker) -> Iterator[Entry]:
    yield maker.file(DOMAIN, "Documents/empty without padding.bin")


def with_file_ids(name: str, maker: TreeMaker) -> Iterator[Entry]:
    for index, identifier in enumerate(FORCED_FILE_IDS[name]):
        entry = maker.file(DOMAIN, f"Documents/{name} {index}.txt", TEXT)
        entry.forced_file_id = identifier
        if name != "file-id-not-hex":
            entry.damage = name
        yield entry


def with_paths(name: str, maker: TreeMaker) -> Iterator[Entry]:
    for path in PATHS[name]:
        yield maker.file(DOMAIN, path, TEXT)


def with_domains(name: str, maker: TreeMaker) -> Iterator[Entry]:
    for domain in DOMAINS[name]:
        yield maker.file(domain, "Documents/file.txt", TEXT)


def links_out(_name: str, maker: TreeMaker) -> Iterator[Entry]:
    for index, target in enumerate(LINK_TARGETS):
        yield maker.symlink(DOMAIN, f"Documents/link out {index}", target)


def below_symlink(_name: str, maker: TreeMaker) -> Iterator[Entry]:
    yield maker.symlink(DOMAIN, "Documents/way out", "../../..")
    yield maker.file(DOMAIN, "Documents/way out/escape.txt", TEXT)
    # The same the other way round: the link comes after what claims to be in it.
    yield maker.file(DOMAIN, "Documents/way later/escape.txt", TEXT)
    yield maker.symlink(DOMAIN, "Documents/way later", "../../..")


def below_file(_name: str, maker: TreeMaker) -> Iterator[Entry]:
    yield maker.file(DOMAIN, "Documents/not a folder", TEXT)
    yield maker.file(DOMAIN, "Documents/not a folder/below.txt", TEXT)


def without_parents(_name: str, maker: TreeMaker) -> Iterator[Entry]:
    yield maker.file("AppDomain-com.example.orphans", "Library/Caches/orphan.txt", TEXT)


Variant = Callable[[str, TreeMaker], Iterator[Entry]]
VARIANTS: dict[str, Variant] = {
    **{name: with_damage for name in STORED_DAMAGES + OBSTRUCTION_DAMAGES + CIPHER_DAMAGES},
    **{name: with_file_ids for name in FORCED_FILE_IDS},
    **{name: with_paths for name in PATHS},
    **{name: with_domains for name in DOMAINS},
    "symlink-out": links_out,
    "entry-below-symlink": below_symlink,
    "entry-below-file": below_file,
    "missing-parents": without_parents,
    "empty-without-padding": empty_without_padding,
}


def unsuited(name: str, options: Options) -> str | None:
    """Why a variant cannot be made with the options, None when it can."""
    if name in CIPHER_DAMAGES and not options.encrypted:
        return "needs an encrypted backup"
    if name in OBSTRUCTION_DAMAGES and options.zipped:
        return "needs a directory"
    if name in FORCED_FILE_IDS and options.binary_manifest:
        return "needs a database, the binary manifest holds no file IDs"
    return None


def entries(options: Options, maker: TreeMaker) -> list[Entry]:
    found: list[Entry] = []
    for name in options.hostile:
        for entry in VARIANTS[name](name, maker):
            entry.hostile = name
            found.append(entry)
    for index in range(options.device_bound_files):
        entry = maker.file(DOMAIN, f"Documents/device bound {index}.txt", TEXT)
        entry.damage = "device-bound"
        found.append(entry)
    return found
