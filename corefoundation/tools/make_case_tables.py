#!/usr/bin/python3
"""Writes UnicodeTables.inc: simple case mappings as ranges, and the full upper-case
mappings that yield several characters, from the Unicode data of this Python."""
import sys
import unicodedata


def simple(mapping, fallback=None):
    result = {}
    for c in range(0x110000):
        if 0xD800 <= c < 0xE000:
            continue
        mapped = mapping(chr(c))
        if len(mapped) != 1 and fallback:
            mapped = fallback(chr(c))
        if len(mapped) == 1 and ord(mapped) != c:
            # Searching relies on a mapping that keeps the number of UTF-16 units.
            assert (ord(mapped) > 0xFFFF) == (c > 0xFFFF)
            result[c] = ord(mapped) - c
    return result


def ranges(mapping):
    """Runs of one delta with a step of 1 or 2 between the characters."""
    rows = []
    for c, delta in sorted(mapping.items()):
        if rows:
            first, last, step, run_delta = rows[-1]
            gap = c - last
            if delta == run_delta and gap in (1, 2) and (first == last or gap == step):
                rows[-1] = (first, c, gap, delta)
                continue
        rows.append((c, c, 1, delta))
    return rows


def write_ranges(out, name, mapping):
    rows = ranges(mapping)
    out.write(f"constexpr std::array<CaseRange, {len(rows)}> {name} = {{{{\n")
    write_cells(out, [f"{{0x{first:04X}, 0x{last:04X}, {step}, {delta}}}"
                      for first, last, step, delta in rows])
    out.write("\n")


def write_cells(out, cells):
    """Three to a line, and the end of the table."""
    for i in range(0, len(cells), 3):
        out.write("    " + " ".join(cell + "," for cell in cells[i:i + 3]) + "\n")
    out.write("}};\n")


def main():
    out = sys.stdout
    out.write(f"// Made by tools/make_case_tables.py from Unicode {unicodedata.unidata_version}.\n\n")
    write_ranges(out, "kLowercase", simple(str.lower))
    write_ranges(out, "kUppercase", simple(str.upper))
    write_ranges(out, "kCaseFolding", simple(str.casefold, str.lower))
    special = [c for c in range(0x10000)
               if not 0xD800 <= c < 0xE000 and len(chr(c).upper()) > 1]
    out.write(f"constexpr std::array<SpecialUppercase, {len(special)}> kSpecialUppercase = {{{{\n")
    units = [", ".join(f"0x{ord(u):04X}" for u in chr(c).upper()) for c in special]
    write_cells(out, [f"{{0x{c:04X}, {{{u}}}}}" for c, u in zip(special, units)])


main()
