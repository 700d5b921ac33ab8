"""Prints llvm-cov's figures by folder, or the stretches of lines that nothing ran; for scripts/coverage."""

from __future__ import annotations

import collections
import json
import sys
from pathlib import Path
from typing import Any


def line_counts(segments: list[list[Any]]) -> dict[int, int]:
    """How often each line with code ran, as llvm-cov counts: the most of the regions that begin on or span it."""
    counts: dict[int, int] = {}
    wrapped: list[Any] | None = None
    by_line: dict[int, list[list[Any]]] = collections.defaultdict(list)
    for segment in segments:
        by_line[segment[0]].append(segment)
    if not by_line:
        return counts
    for line in range(min(by_line), max(by_line) + 1):
        here = by_line.get(line, [])
        starts = [s for s in here if s[3] and s[4] and not s[5]]
        skipped = bool(here) and not here[0][3] and here[0][4]
        mapped = not skipped and ((wrapped is not None and wrapped[3]) or bool(starts))
        if mapped:
            most = wrapped[2] if wrapped is not None and wrapped[3] else 0
            counts[line] = max([most, *(s[2] for s in starts)])
        if here:
            wrapped = here[-1]
    return counts


def stretches(lines: list[int]) -> list[str]:
    found: list[list[int]] = []
    for line in lines:
        if found and line == found[-1][1] + 1:
            found[-1][1] = line
        else:
            found.append([line, line])
    return [str(a) if a == b else f"{a}-{b}" for a, b in found]


def main() -> int:
    root, required, what = Path(sys.argv[1]), float(sys.argv[2]), sys.argv[3]
    files = json.load(sys.stdin)["data"][0]["files"]
    totals: dict[str, list[int]] = collections.defaultdict(lambda: [0, 0])
    for file in sorted(files, key=lambda file: file["filename"]):
        name = Path(file["filename"])
        name = name.relative_to(root) if name.is_relative_to(root) else name
        summary = file["summary"]["lines"]
        for key in (name.parts[0], "all"):
            totals[key][0] += summary["covered"]
            totals[key][1] += summary["count"]
        if what == "--uncovered":
            missing = [line for line, count in line_counts(file["segments"]).items() if count == 0]
            if missing:
                print(f"{name}: {', '.join(stretches(missing))}")
    if what == "--report":
        print(f"{'folder':20} {'lines':>8} {'covered':>8} {'%':>7}")
        for key in sorted(totals, key=lambda key: (key == "all", key)):
            covered, count = totals[key]
            print(f"{key:20} {count:8} {covered:8} {100 * covered / max(count, 1):7.2f}")
    covered, count = totals["all"]
    if 100 * covered < required * count:
        print(f"coverage: {100 * covered / count:.2f} % of lines, {required:g} are required", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
