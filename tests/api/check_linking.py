"""Libraries and programs bind their symbols when they start, and then make the table of them read-only.

usage: check_linking.py FILE...
"""

from __future__ import annotations

import subprocess
import sys


def readelf(*arguments: str) -> str:
    return subprocess.run(["readelf", "-W", *arguments], capture_output=True, text=True, check=True).stdout


def main() -> int:
    status = 0
    for path in sys.argv[1:]:
        if "NOW" not in readelf("-d", path):
            print(f"{path} binds symbols at their first use")
            status = 1
        if "GNU_RELRO" not in readelf("-l", path):
            print(f"{path} keeps its tables writable")
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
