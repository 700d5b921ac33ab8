"""The files, directories and links of a device, from ordinary ones to those that programs trip over."""

from __future__ import annotations

import unicodedata
from collections.abc import Iterator

from .model import DIRECTORY, Device, Entry, FILE, Options, SYMLINK
from .randomness import Randomness

# Around block and chunk boundaries, and one that needs several chunks.
SIZES = (0, 1, 15, 16, 17, 32767, 32768, 32769, 100000)
FILE_MODES = (0o644, 0o600, 0o755, 0o444, 0o4755, 0o2755, 0o1644)
DIRECTORY_MODES = (0o755, 0o700, 0o1777)
PROTECTED_CLASSES = (1, 2, 3, 4)
# Of the few directories that have one.
DIRECTORY_CLASSES = (1, 3, 4)
LONGEST_COMPONENT = 255

# Before 2001, around the ends of 31 and 32 bits, and the epochs themselves.
TIMES = (0, 1, 946_684_800, 978_307_199, 978_307_200, 2**31 - 1, 2**31, 4_102_444_800, 2**32 - 1)
# Only 64-bit fields can hold these. Those behind 2106 lie where no time is that some writer made 2**32 seconds too late.
LONG_TIMES = (-86_400, -1, 5_400_000_000, 8_000_000_000)
# The user nobody, whose number is negative.
NOBODY = -2
RECORD_FLAGS = 128

CAFE, TEXTURE = "Caf\u00e9.txt", "\u30c6\u30af\u30b9\u30c1\u30e3\u304c.txt"
AWKWARD_NAMES = (
    unicodedata.normalize("NFC", CAFE), unicodedata.normalize("NFD", CAFE),
    unicodedata.normalize("NFC", TEXTURE), unicodedata.normalize("NFD", TEXTURE),
    "\U0001F4F7 photo.jpg", "\U0001F468\u200d\U0001F469\u200d\U0001F467 family.heic", "\uff41 after the emoji.txt",
    "it's \"quoted\".txt", "back\\slash.txt", "two\nlines.txt", "tab\there.txt", "bell\x07 \x1b[31mred\x1b[0m.txt",
    "-rf", "--help", "trailing blank ", " leading blank", ".hidden", "...", "..almost", "~", "$HOME", "%s %n %@.txt",
    "*?[glob]{a,b}.txt", "a:b;c|d&e.txt", "Readme.txt", "README.TXT", "readme.txt",
    "right\u202eto left.txt", "\u05e9\u05dc\u05d5\u05dd.txt", "stra\u00dfe.txt", "nul", "CON.txt", "name.", "a,b=c.csv",
    "L" * LONGEST_COMPONENT, "\u6f22" * (LONGEST_COMPONENT // 3), "\U0001F600" * 63,
)
DEEP_LEVELS = 40
DEEP_PATH = "/".join(f"level {number:02}" for number in range(1, DEEP_LEVELS + 1)) + "/bottom.txt"

NOTES = "AppDomain-com.example.notes"
SMALL_FILES = (
    (NOTES, "Documents/Welcome.txt", "Welcome to your notes.\nThis text was inside a backup.\n"),
    (NOTES, "Documents/Shopping list.txt", "Milk\nBread\n\u00c4pfel\n"),
    (NOTES, "Library/Preferences/com.example.notes.plist", "{ sorted = 1; }\n"),
    ("HomeDomain", "Library/AddressBook/contacts.csv", "name,number\nAda,555-0100\nZo\u00eb,555-0101\n"),
    ("HomeDomain", "Library/SMS/sms.txt", "See you at nine?\n"),
    ("CameraRollDomain", "Media/DCIM/100APPLE/IMG_0001.JPG", None),
    ("CameraRollDomain", "Media/DCIM/100APPLE/IMG_0002.HEIC", None),
    ("MediaDomain", "Media/Recordings/Memo 1.m4a", None),
    ("WirelessDomain", "Library/Preferences/com.example.radio.plist", "{ roaming = 0; }\n"),
    ("SystemPreferencesDomain", "SystemConfiguration/preferences.plist", "{ name = device; }\n"),
    ("KeychainDomain", "keychain-backup.plist", None),
    ("AppDomainGroup-group.com.example.notes", "Shared/index.bin", None),
    ("AppDomainPlugin-com.example.notes.widget", "Library/state.bin", None),
    ("AppDomain-com.example.\u540d\u524d", "Documents/\u65e5\u8a18.txt", "\u4eca\u65e5\u306f\u6674\u308c\u3002\n"),
)
LINKS = (
    (NOTES, "Documents/Latest", "Welcome.txt"),
    (NOTES, "Library/Documents link", "../Documents"),
    (NOTES, "Documents/Gone", "no such file"),
    (NOTES, "Documents/\u30ea\u30f3\u30af \U0001F517", "Shopping list.txt"),
    ("HomeDomain", "Library/Self", "Self"),
)
FILLER_DOMAINS = ("HomeDomain", "CameraRollDomain", "MediaDomain", NOTES, "HealthDomain", "BooksDomain")


def applications(options: Options) -> list[str]:
    return [] if options.tree == "none" else ["com.example.notes", "com.example.\u540d\u524d", "com.example.sizes"]


class TreeMaker:
    """Makes entries with attributes that look like a device's, each from its own corner of the seed."""

    def __init__(self, options: Options, randomness: Randomness, device: Device) -> None:
        self._options = options
        self._randomness = randomness
        self._device = device

    def file(self, domain: str, path: str, text: str | None = None, size: int = 0) -> Entry:
        entry = self._entry(domain, path, FILE)
        data = None if text is None else text.encode()
        entry.text, entry.size = data, size if data is None else len(data)
        entry.protection = self._randomness.choice(f"class/{entry.label}", PROTECTED_CLASSES)
        entry.with_digest = self._randomness.chance(f"digest/{entry.label}", 70)
        entry.with_key = self._randomness.chance(f"key/{entry.label}", 40)
        return entry

    def directory(self, domain: str, path: str) -> Entry:
        entry = self._entry(domain, path, DIRECTORY)
        if self._randomness.chance(f"protected/{entry.label}", 5):
            entry.protection = self._randomness.choice(f"class/{entry.label}", DIRECTORY_CLASSES)
        return entry

    def symlink(self, domain: str, path: str, target: str) -> Entry:
        entry = self._entry(domain, path, SYMLINK)
        entry.target = target
        return entry

    def entries(self) -> list[Entry]:
        """All entries, domain by domain, each with the directories above it."""
        return self.with_directories(list(self._leaves()))

    def with_directories(self, leaves: list[Entry]) -> list[Entry]:
        """Adds the domain roots and the directories that the leaves lie in, before what lies in them."""
        known = {(leaf.domain, leaf.path): leaf for leaf in leaves}
        for leaf in leaves:
            for path in parents(leaf.path):
                if (leaf.domain, path) not in known:
                    known[leaf.domain, path] = self.directory(leaf.domain, path)
        return [known[key] for key in sorted(known, key=lambda key: (key[0], key[1].split("/")))]

    def _leaves(self) -> Iterator[Entry]:
        if self._options.tree != "none":
            yield from self._small_files()
        if self._options.tree == "full":
            yield from self._sizes()
            yield from self._names()
            yield from self._times()
            yield from self._owned()
            yield from self._attributed()
            yield from self._filler()
        if self._options.size_of_one is not None:
            yield self.file("MediaDomain", "Media/big.bin", size=self._options.size_of_one)

    def _small_files(self) -> Iterator[Entry]:
        for domain, path, text in SMALL_FILES:
            size = self._randomness.number(f"small/{domain}-{path}", 100, 3000)
            yield self.file(domain, path, text, size)
        for domain, path, target in LINKS:
            yield self.symlink(domain, path, target)
        yield self.directory("MediaDomain", "Media/Empty folder")

    def _sizes(self) -> Iterator[Entry]:
        for index, size in enumerate(SIZES):
            entry = self.file("AppDomain-com.example.sizes", f"Documents/size-{size:06}.bin", size=size)
            entry.protection = PROTECTED_CLASSES[index % len(PROTECTED_CLASSES)]
            yield entry

    def _names(self) -> Iterator[Entry]:
        domain = "AppDomain-com.example.names"
        for index, name in enumerate(AWKWARD_NAMES):
            yield self.file(domain, f"Documents/{name}", f"file number {index}\n")
        yield self.file(domain, DEEP_PATH, "a long way down\n")
        yield self.file(domain, "at the root.txt", "no directory\n")
        yield self.file(domain, "Documents/dir\nwith newline/- inside.txt", "inside\n")
        # Twins that a case-insensitive or normalising file system would merge.
        yield self.file(domain, "Library/Case/inner.txt", "upper\n")
        yield self.file(domain, "Library/case/inner.txt", "lower\n")

    def _times(self) -> Iterator[Entry]:
        times = TIMES if self._options.binary_manifest else TIMES + LONG_TIMES
        for seconds in times:
            entry = self.file("AppDomain-com.example.times", f"Documents/modified {seconds}.txt", f"{seconds}\n")
            entry.modified = seconds
            entry.birth = times[(times.index(seconds) + 1) % len(times)]
            entry.changed = times[(times.index(seconds) + 2) % len(times)]
            yield entry

    def _owned(self) -> Iterator[Entry]:
        domain = "AppDomain-com.example.owners"
        for name, uid, gid in (("nobody", NOBODY, NOBODY), ("root", 0, 0), ("nobody's group", 501, NOBODY)):
            entry = self.file(domain, f"Documents/{name}.txt", f"owned by {name}\n")
            entry.uid, entry.gid = uid, gid
            entry.record_flags = RECORD_FLAGS if name == "nobody" else 0
            yield entry
        folder = self.directory(domain, "Documents/folder of nobody")
        folder.uid, folder.gid, folder.record_flags = NOBODY, NOBODY, RECORD_FLAGS
        yield folder

    def _attributed(self) -> Iterator[Entry]:
        domain = "AppDomain-com.example.attributes"
        values = {"com.example.tag": b"red", "com.example.empty": b"", "com.example.\u540d": bytes(range(256))}
        for name, as_object in (("as data", False), ("as object", True)):
            entry = self.file(domain, f"Documents/{name}.txt", f"attributes {name}\n")
            entry.attributes, entry.attributes_as_object = dict(values), as_object
            yield entry
            folder = self.directory(domain, f"Documents/folder {name}")
            folder.attributes, folder.attributes_as_object = {"com.example.flag": b"1"}, as_object
            yield folder

    def _filler(self) -> Iterator[Entry]:
        for index in range(self._options.files):
            domain = self._randomness.choice(f"filler/{index}/domain", FILLER_DOMAINS)
            folder = self._randomness.number(f"filler/{index}/folder", 0, self._options.files // 20)
            size = self._randomness.number(f"filler/{index}/size", 0, 4096)
            yield self.file(domain, f"Library/Data/{folder:04}/item-{index:06}.bin", size=size)

    def _entry(self, domain: str, path: str, kind: str) -> Entry:
        label = f"entry/{domain}\0{path}"
        modes = {FILE: FILE_MODES, DIRECTORY: DIRECTORY_MODES, SYMLINK: (0o755,)}[kind]
        modified = self._device.date - self._randomness.number(f"{label}/modified", 60, 3 * 365 * 86400)
        mobile = self._randomness.chance(f"{label}/mobile", 90)
        return Entry(
            domain, path, kind, mode=self._randomness.choice(f"{label}/mode", modes),
            birth=modified - self._randomness.number(f"{label}/birth", 0, 365 * 86400), modified=modified,
            changed=modified + self._randomness.number(f"{label}/changed", 0, 50),
            inode=self._randomness.number(f"{label}/inode", 1000, 2**33),
            uid=501 if mobile else 0, gid=501 if mobile else 0)


def parents(path: str) -> Iterator[str]:
    """The directories above a path, from the domain's root down."""
    if path:
        yield ""
    for index, character in enumerate(path):
        if character == "/" and index > 0:
            yield path[:index]
