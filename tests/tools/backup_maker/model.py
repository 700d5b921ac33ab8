"""What a backup is made of, before it is written in any format."""

from __future__ import annotations

from dataclasses import dataclass, field

FILE, DIRECTORY, SYMLINK = "file", "directory", "symlink"
# The number that a row of the database carries for each kind, and for rows that are only a file ID.
ROW_FLAGS = {FILE: 1, DIRECTORY: 2, SYMLINK: 4}
PLACEHOLDER_FLAGS = 16
TYPE_BITS = {FILE: 0o100000, DIRECTORY: 0o040000, SYMLINK: 0o120000}

BINARY_MANIFEST_VERSION = "2.4"
DATABASE_VERSIONS = ("3.0", "3.1", "3.2", "3.3")
VERSIONS = (BINARY_MANIFEST_VERSION, *DATABASE_VERSIONS)


@dataclass
class Entry:
    """One file, directory or link of the device."""

    domain: str
    path: str
    kind: str
    mode: int
    birth: int
    modified: int
    changed: int
    inode: int
    uid: int = 501
    gid: int = 501
    target: str = ""
    # The plaintext: given, or drawn from the seed when None.
    size: int = 0
    text: bytes | None = None
    protection: int = 0
    # The record's own Flags, which nobody knows the meaning of; not those of the row.
    record_flags: int = 0
    attributes: dict[str, bytes] = field(default_factory=dict)
    # Devices write attributes as a property list inside data; a dictionary object is met too.
    attributes_as_object: bool = False
    with_digest: bool = False
    # Rows of plain backups may carry a key that opens nothing.
    with_key: bool = False
    # What is wrong with the entry, None for ordinary ones; `damage` is how its stored content or key is broken.
    hostile: str | None = None
    damage: str | None = None
    forced_file_id: str | None = None

    @property
    def label(self) -> str:
        return f"{self.domain}\0{self.path}"


@dataclass
class Stored:
    """An entry together with what became known when its content was written."""

    entry: Entry
    file_id: str
    digest: bytes | None = None
    key: bytes | None = None
    sha256: str | None = None


@dataclass(frozen=True)
class Device:
    """The device's description, as several of the property lists repeat it."""

    name: str
    product_type: str
    product_version: str
    build: str
    serial: str
    udid: str
    guid: str
    iccid: str
    imei: str
    # Unix seconds of the backup.
    date: int


@dataclass(frozen=True)
class Options:
    """Everything that the caller can choose about a backup."""

    seed: str = "1"
    version: str = "3.3"
    password: bytes | None = None
    device_bound: bool = False
    iterations: int = 10_000
    dp_iterations: int = 10_000_000
    keybag_version: int = 5
    without_dpwt: bool = False
    old_keybag: bool = False
    manifest_form: str = "padded"
    tree: str = "full"
    files: int = 20
    size_of_one: int | None = None
    placeholders: int = 0
    device_bound_files: int = 0
    hostile: tuple[str, ...] = ()
    info_format: str = "xml"
    without_info: bool = False
    journal_mode: str = "wal"
    zipped: bool = False
    deflated: bool = False
    rows: int | None = None

    @property
    def encrypted(self) -> bool:
        return self.password is not None

    @property
    def binary_manifest(self) -> bool:
        return self.version == BINARY_MANIFEST_VERSION

    @property
    def one_derivation(self) -> bool:
        """The keybag is of the time before there were two."""
        return self.old_keybag or (self.encrypted and self.binary_manifest)
