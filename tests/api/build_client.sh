#!/usr/bin/env bash
# Installs the build tree to a scratch prefix and builds hosts in C and C++ against it, as a
# project outside this tree would.
set -euo pipefail
build=$1 cc=$2 cxx=$3
here=$(cd "$(dirname "$0")" && pwd)
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
library=$(dirname "$(find "$prefix" -name 'libKelvane.so')")
flags=(-Wall -Wextra -Wpedantic -Werror -I "$prefix/include/kelvane" -L "$library" "-Wl,-rpath,$library")
"$cc" -std=c11 "$here/c_interface_test.c" "${flags[@]}" -lKelvane -lKelvaneCF -o "$prefix/c_host"
cat >"$prefix/host.cpp" <<'CODE'
#include <KVBackupContainer.hpp>
#include <Kelvane.h>
#include <Kelvane/Error.hpp>
#include <Kelvane/FileManager.hpp>
#include <Kelvane/ManifestDB.hpp>
#include <Kelvane/SharedState.hpp>
#include <MB/File.hpp>
#include <MB/KeyBag.hpp>
#include <MB/ManifestEncryption.hpp>
#include <ZK/archiver_exceptions.hpp>
#include <ZK/keyed_archiver.hpp>
#include <ZK/keyed_unarchiver.hpp>

int main() {
    MB::File record;
    record.RelativePath = CF::String("a");
    const CF::Dictionary archive = ZK::make_keyed_archive(record);
    const auto again = ZK::extract_keyed_archive<MB::File>(archive);
    return again && again->RelativePath == record.RelativePath ? 0 : 1;
}
CODE
# The program that the README shows, over the sample that it names.
root=$(cd "$here/../.." && pwd)
sed -n '/^```cpp$/,/^```$/p' "$root/README.md" | sed -e '/^```/d' -e "s|/var/tmp/my-application|$prefix/store|" >"$prefix/readme.cpp"
"$cxx" -std=c++20 "$prefix/readme.cpp" "${flags[@]}" -lKelvane -lKelvaneCF -lboost_filesystem -o "$prefix/readme_host"
size=$(cd "$root" && "$prefix/readme_host" | wc -c)
[ "$size" -eq 17 ] || { echo "the README's program printed $size bytes, not 17" >&2; exit 1; }

"$cxx" -std=c++20 "$prefix/host.cpp" "${flags[@]}" -lKelvane -lKelvaneCF -lboost_filesystem -o "$prefix/cxx_host"
"$prefix/cxx_host"
"$prefix/c_host" || [ $? -eq 2 ]
echo "C and C++ hosts build and run against the installed library"
