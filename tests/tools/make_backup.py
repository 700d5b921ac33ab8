#!/usr/bin/python3
"""Writes a device backup for tests, samples and benchmarks, with a file of what a reader has to find in it.

    make_backup.py OUT --version 3.2
    make_backup.py OUT --encrypted --password-file pw --device-bound --iterations 1000 --dp-iterations 2000
    make_backup.py OUT.zip --zip --version 3.0
    make_backup.py OUT --tree none --size-of-one 1073741824
    make_backup.py OUT --rows 500000

The same options always give the same bytes. Iteration counts default to a device's, whose ten million take some
seconds; tests should ask for fewer. OUT must not exist. The expectations ("backup" and "entries") go beside it, to
OUT.expectations.json without any ".zip".
"""

from __future__ import annotations

import argparse
import dataclasses
import sys
from pathlib import Path

from backup_maker import hostile, rows
from backup_maker.build import BackupMaker
from backup_maker.model import Options, VERSIONS


def parser() -> argparse.ArgumentParser:
    result = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add = result.add_argument
    add("output", type=Path, metavar="OUT", help="the directory or zip archive to make")
    add("--version", choices=VERSIONS, default="3.3", help="format of the backup (default 3.3)")
    add("--seed", default="1", help="any text; the same text gives the same backup (default 1)")
    add("--expectations", type=Path, metavar="FILE", help="where to write them (default beside OUT)")
    add("--zip", dest="zipped", action="store_true", help="write a zip archive instead of a directory")
    add("--deflate", dest="deflated", action="store_true", help="compress the archive's records")
    add_encryption(result)
    add_contents(result)
    return result


def add_encryption(result: argparse.ArgumentParser) -> None:
    add = result.add_argument_group("encryption").add_argument
    add("--encrypted", action="store_true", help="encrypt (readers accept it with 2.4, 3.2 and 3.3)")
    add("--password-file", type=Path, metavar="FILE", help="its first line is the password")
    add("--device-bound", action="store_true", help="wrap classes 5, 9, 10 and 11 under a key of the device")
    add("--device-bound-files", type=int, default=0, metavar="N", help="add files that need such a class")
    add("--iterations", type=int, default=10_000, metavar="N", help="second derivation (default 10000)")
    add("--dp-iterations", type=int, default=10_000_000, metavar="N", help="first derivation (default 10000000)")
    add("--keybag-version", type=int, choices=(3, 5), default=5, help="default 5")
    add("--without-dpwt", action="store_true", help="leave the DPWT record out, as old devices do")
    add("--old-keybag", action="store_true", help="one derivation alone, without DPWT, DPIC and DPSL (always for 2.4)")
    add("--manifest-form", choices=("padded", "unpadded", "decrypted"), default="padded",
        help="how an encrypted backup's Manifest.db lies there; other programs leave it unpadded or decrypted")


def add_contents(result: argparse.ArgumentParser) -> None:
    add = result.add_argument_group("contents").add_argument
    add("--tree", choices=("full", "small", "none"), default="full",
        help="full: also awkward names, sizes, times and attributes; small: a few ordinary files; none: nothing")
    add("--files", type=int, default=20, metavar="N", help="ordinary files more in a full tree (default 20)")
    add("--size-of-one", type=int, metavar="BYTES", help="add one file of this size, written in a stream")
    add("--placeholders", type=int, default=0, metavar="N", help="add rows that are only a file ID")
    add("--rows", type=int, metavar="N", help="only a manifest of N rows and the property lists, no contents")
    add("--info-format", choices=("xml", "binary"), default="xml", help="of Info.plist (default xml)")
    add("--without-info", action="store_true", help="leave Info.plist out")
    add("--journal-mode", choices=("wal", "delete"), default="wal", help="that Manifest.db claims (default wal)")
    add("--hostile", action="append", default=[], metavar="NAME", choices=[*hostile.VARIANTS, "all"],
        help="add traps, may be repeated: all, " + ", ".join(hostile.VARIANTS))


def read_password(arguments: argparse.Namespace) -> bytes | None:
    if not arguments.encrypted:
        return None
    if arguments.password_file is None:
        raise ValueError("--encrypted needs --password-file")
    lines = arguments.password_file.read_bytes().splitlines()
    if not lines or not lines[0]:
        raise ValueError(f"{arguments.password_file} holds no password")
    return lines[0]


def hostile_names(wanted: list[str], options: Options) -> tuple[str, ...]:
    """The variants asked for; `all` means those that suit the other options."""
    if "all" in wanted:
        return tuple(name for name in hostile.VARIANTS if hostile.unsuited(name, options) is None)
    for name in wanted:
        if reason := hostile.unsuited(name, options):
            raise ValueError(f"--hostile {name} {reason}")
    return tuple(dict.fromkeys(wanted))


def make_options(arguments: argparse.Namespace) -> Options:
    values = vars(arguments).copy()
    for name in ("output", "expectations", "encrypted", "password_file", "hostile"):
        del values[name]
    options = Options(password=read_password(arguments), **values)
    options = dataclasses.replace(options, hostile=hostile_names(arguments.hostile, options))
    check(options)
    return options


def check(options: Options) -> None:
    if options.binary_manifest and (options.placeholders or options.rows is not None):
        raise ValueError("rows and placeholders need a database")
    if options.device_bound_files and not (options.encrypted and options.device_bound):
        raise ValueError("--device-bound-files needs --encrypted --device-bound")
    if "device-bound" in options.hostile and not options.device_bound:
        raise ValueError("--hostile device-bound needs --device-bound")
    if options.manifest_form != "padded" and (options.binary_manifest or not options.encrypted):
        raise ValueError("--manifest-form needs an encrypted database")
    if options.deflated and not options.zipped:
        raise ValueError("--deflate needs --zip")
    if options.rows is not None and options.rows < 1:
        raise ValueError("--rows needs at least 1")


def expectations_path(output: Path) -> Path:
    name = output.name.removesuffix(".zip")
    return output.with_name(f"{name}.expectations.json")


def main() -> int:
    arguments = parser().parse_args()
    try:
        options = make_options(arguments)
        if arguments.output.exists():
            raise ValueError(f"{arguments.output} exists already")
        make = BackupMaker(options).make if options.rows is None else rows.RowsMaker(options).make
        make(arguments.output, arguments.expectations or expectations_path(arguments.output))
    except (OSError, ValueError) as error:
        print(f"make_backup.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
