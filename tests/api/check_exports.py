#!/usr/bin/env python3
"""Compares what the shared library exports with the list that is checked in.

    check_exports.py LIBRARY LIST [--update]

The list holds the demangled names of everything that is defined strongly: functions, data,
vtables' owners. Weak definitions (inline functions, template instances, type information)
differ between compilers; they only have to lie in the library's own namespaces.
"""
import re
import subprocess
import sys

# Prefixes of the C interface, the namespaces of the typed one, and what the compiler derives
# from a name in them.
OWN = re.compile(
    r"^(?:(?:vtable|VTT|typeinfo|typeinfo name|guard variable|non-virtual thunk) (?:for|to) )?"
    r"(?:KV|_KV|Kelvane|kKV|fastpbkdf2_|MB::|ZK::|CF::|to_string\[?.*\(EntryProtectionClass\))")
# Function templates demangle with their result type in front.
TEMPLATE = re.compile(r"\b(?:Kelvane|MB|ZK|CF)::[\w:~]+(?:\[abi:\w+\])?<")


def exported(library: str) -> tuple[list[str], list[str]]:
    out = subprocess.run(["nm", "-D", "--defined-only", "-C", library], check=True,
                         capture_output=True, text=True).stdout
    strong: set[str] = set()
    weak: set[str] = set()
    for line in out.splitlines():
        fields = re.match(r"^[0-9a-f]+ (\S) (.*)$", line)
        if fields:
            (strong if fields[1] in "TDBR" else weak).add(fields[2])
    # The two kinds of constructor share one name.
    return sorted(strong), sorted(weak)


def main() -> int:
    library, path = sys.argv[1:3]
    strong, weak = exported(library)
    if "--update" in sys.argv[3:]:
        with open(path, "w", encoding="utf-8") as out:
            out.write("\n".join(strong) + "\n")
    with open(path, encoding="utf-8") as lines:
        wanted = lines.read().splitlines()
    problems = [f"exported, but not in the list: {name}" for name in strong if name not in wanted]
    problems += [f"in the list, but not exported: {name}" for name in wanted if name not in strong]
    problems += [f"outside our names: {name}" for name in strong + weak
                 if not OWN.match(name) and not TEMPLATE.search(name)]
    print("\n".join(problems) if problems else f"{len(strong)} exported names as listed")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
