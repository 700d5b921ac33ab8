#!/usr/bin/env bash
# Makes every sample anew, here or in the directory given. The result is the same each time, so a change of the
# generator that changes a sample shows in a diff.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
target=$(mkdir -p "${1:-$here}" && cd "${1:-$here}" && pwd)
password=$here/password.txt

sample() {
  local name=$1
  shift
  rm -rf "${target:?}/$name" "$target/${name%.zip}.expectations.json"
  "${PYTHON:-/usr/bin/python3}" -B "$here/../tests/tools/make_backup.py" "$target/$name" "$@"
}

# A device takes 10,000,000 and 10,000 iterations, which is seconds of work; these few open at once.
sample encrypted-3.3 --version 3.3 --seed encrypted --encrypted --password-file "$password" --device-bound \
  --dp-iterations 10000 --iterations 1000
sample plain-3.2 --version 3.2 --seed plain --placeholders 2 --info-format binary
sample plain-3.1.zip --version 3.1 --seed zip --zip
sample plain-2.4 --version 2.4 --seed binary
