#!/usr/bin/python3
"""Writes backups that are made to harm whoever opens them, for trying things by hand and for seeds of fuzzers.

    make_hostile.py --list
    make_hostile.py OUT                        all of them, each at OUT/FAMILY/CASE
    make_hostile.py OUT names zips/overlapping a family, and one case

The password of the encrypted ones is "password". OUT/outside is what links and names try to reach.
"""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

from hostile_backups.families import FAMILIES
from hostile_backups.model import Case, Place, SECRET


def chosen(wanted: list[str]) -> dict[str, Case]:
    everything = {f"{family}/{name}": case for family, cases in FAMILIES.items() for name, case in cases.items()}
    unknown = [name for name in wanted if name not in everything and name not in FAMILIES]
    if unknown:
        raise ValueError(f"there is no {', '.join(unknown)}")
    return {name: case for name, case in everything.items()
            if not wanted or name in wanted or name.partition("/")[0] in wanted}


def make(output: Path, cases: dict[str, Case]) -> None:
    outside = output / "outside"
    outside.mkdir(parents=True)
    (outside / "secret").write_bytes(SECRET)
    for name, case in cases.items():
        path = output / (name + (".zip" if case.zipped else ""))
        path.parent.mkdir(exist_ok=True)
        try:
            case.make(Place(path, outside))
        except PermissionError as error:  # devices are made by root alone
            print(f"make_hostile.py: {name} left out: {error}", file=sys.stderr)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("output", nargs="?", type=Path, metavar="OUT", help="a directory to make")
    parser.add_argument("cases", nargs="*", metavar="FAMILY[/CASE]", help="default: all")
    parser.add_argument("--list", action="store_true", help="print the names of all cases")
    arguments = parser.parse_args()
    try:
        if arguments.list:
            print("\n".join(chosen([])))
        elif arguments.output is None:
            parser.error("OUT is missing")
        else:
            make(arguments.output, chosen(arguments.cases))
    except (OSError, ValueError) as error:
        print(f"make_hostile.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
