"""Puts a whole backup together."""

from __future__ import annotations

import tempfile
from collections.abc import Iterable, Iterator
from pathlib import Path

from . import archive, database, expectations, hostile, mbdb
from .content import ContentWriter, Encryptor, encrypted
from .keybag import KeyBagMaker
from .metadata import MetadataMaker, make_device
from .model import Entry, Options, PLACEHOLDER_FLAGS, ROW_FLAGS, Stored
from .randomness import CHUNK_SIZE, Randomness
from .storage import DirectorySink, Sink, ZipSink
from .tree import TreeMaker, applications


class BackupMaker:
    """Makes one backup with its expectations."""

    def __init__(self, options: Options) -> None:
        self._options = options
        self._randomness = Randomness(options.seed)
        self._device = make_device(self._randomness)

    def make(self, output: Path, expectations_path: Path) -> None:
        sink = open_sink(self._options, output, self._device.date)
        keybag = KeyBagMaker(self._options, self._randomness).make()
        writer = ContentWriter(self._options, self._randomness, keybag, sink)
        contents = [writer.store(entry) for entry in self._entries()]
        manifest_key = self._randomness.octets("manifest key", 32)
        self._write_manifest(sink, contents, manifest_key)
        names = applications(self._options)
        MetadataMaker(self._options, self._randomness, self._device, names).write(sink, keybag, manifest_key)
        sink.close()
        backup = expectations.describe_backup(self._options, self._device, contents)
        expectations.write(expectations_path, backup, contents)

    def _entries(self) -> list[Entry]:
        maker = TreeMaker(self._options, self._randomness, self._device)
        return self._as_added(maker.entries()) + hostile.entries(self._options, maker)

    def _as_added(self, entries: list[Entry]) -> list[Entry]:
        """A device lists its files as they turn up, by no order of names."""
        return sorted(entries, key=lambda entry: self._randomness.octets(f"order/{entry.label}", 16))

    def _write_manifest(self, sink: Sink, contents: list[Stored], manifest_key: bytes) -> None:
        if self._options.binary_manifest:
            with sink.writer("Manifest.mbdb") as out:
                out.write(mbdb.encode(contents))
            return
        write_database(sink, self._rows(contents), self._options, manifest_key)

    def _rows(self, contents: list[Stored]) -> Iterator[database.Row]:
        for stored in contents:
            entry = stored.entry
            yield stored.file_id, entry.domain, entry.path, ROW_FLAGS[entry.kind], archive.encode(stored)
        for index in range(self._options.placeholders):
            # Both ways to leave the other columns out are met.
            nothing, no_blob = (None, None) if index % 2 == 0 else ("", b"")
            identifier = self._randomness.octets(f"placeholder/{index}", 20).hex()
            yield identifier, nothing, nothing, PLACEHOLDER_FLAGS, no_blob


def open_sink(options: Options, output: Path, date: int) -> Sink:
    if options.zipped:
        return ZipSink(output, date, options.deflated)
    return DirectorySink(output)


def write_database(sink: Sink, rows: Iterable[database.Row], options: Options, manifest_key: bytes) -> None:
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "Manifest.db"
        database.write(path, rows, options.journal_mode)
        chunks = file_chunks(path)
        if options.encrypted and options.manifest_form != "decrypted":
            chunks = encrypted(chunks, Encryptor(manifest_key), options.manifest_form == "padded")
        with sink.writer("Manifest.db", path.stat().st_size) as out:
            for chunk in chunks:
                out.write(chunk)


def file_chunks(path: Path) -> Iterator[bytes]:
    with open(path, "rb") as file:
        while chunk := file.read(CHUNK_SIZE):
            yield chunk
