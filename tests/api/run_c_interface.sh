#!/usr/bin/env bash
# Has the C host read a file of the encrypted sample, and compares its digest with the
# expectations that the sample's generator wrote. Then has it forget the temporary path.
set -euo pipefail
host=$1 samples=$2
temporary=$(mktemp -d)
trap 'rm -rf "$temporary"' EXIT
/usr/bin/python3 - "$samples/encrypted-3.3.expectations.json" >"$temporary/entry" <<'CODE'
import json
import sys

with open(sys.argv[1], encoding="utf-8") as source:
    entries = json.load(source)["entries"]
entry = next(e for e in entries if e["type"] == "file" and e["size"] == 32769)
print(entry["domain"], entry["path"], entry["sha256"], sep="\n")
CODE
{ read -r domain; read -r path; read -r sha256; } <"$temporary/entry"
"$host" "$samples/encrypted-3.3" "$(head -n 1 "$samples/password.txt")" "$domain" "$path" \
  "$temporary/store" >"$temporary/content"
actual=$(sha256sum "$temporary/content" | cut -d ' ' -f 1)
[ "$actual" = "$sha256" ] || { echo "content of $domain/$path: $actual, expected $sha256" >&2; exit 1; }
"$host" "$samples/plain-3.2"
echo "$domain/$path reads right, and without a temporary path there is an error"
