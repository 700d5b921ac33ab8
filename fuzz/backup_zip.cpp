// Opens the input as the zip of a backup, reads all that it holds and writes it out. The
// checksums of records that are stored as they are get mended first, or else hardly any
// input would come further than them.
#include "fuzz/Backup.hpp"

#include <zlib.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

using Octets = std::vector<std::uint8_t>;

constexpr std::string_view kDirectorySignature("PK\1\2", 4);
constexpr std::size_t kDirectoryHeader = 46;
constexpr std::size_t kLocalHeader = 30;

std::size_t NumberAt(const Octets &bytes, std::size_t offset, std::size_t size) {
    std::size_t value = 0;
    for (std::size_t i = size; i > 0; --i) {
        value = value << 8 | bytes[offset + i - 1];
    }
    return value;
}

void SetNumber(Octets &bytes, std::size_t offset, std::size_t value) {
    for (std::size_t i = 0; i < 4; ++i) {
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

// Of the record that the header in the directory is about.
void MendChecksum(Octets &zip, std::size_t header) {
    const std::size_t local = NumberAt(zip, header + 42, 4);
    const std::size_t size = NumberAt(zip, header + 20, 4);
    if (NumberAt(zip, header + 10, 2) != 0 || local + kLocalHeader > zip.size()) {
        return;
    }
    const std::size_t start =
        local + kLocalHeader + NumberAt(zip, local + 26, 2) + NumberAt(zip, local + 28, 2);
    if (start + size <= zip.size()) {
        const auto sum = crc32(0, zip.data() + start, static_cast<uInt>(size));
        SetNumber(zip, header + 16, sum);
        SetNumber(zip, local + 14, sum);
    }
}

Octets WithMendedChecksums(Octets zip) {
    auto at = zip.begin();
    while ((at = std::search(at, zip.end(), kDirectorySignature.begin(),
                             kDirectorySignature.end())) != zip.end()) {
        if (zip.end() - at >= static_cast<std::ptrdiff_t>(kDirectoryHeader)) {
            MendChecksum(zip, static_cast<std::size_t>(at - zip.begin()));
        }
        ++at;
    }
    return zip;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const Fuzz::Workplace work;
    const auto container = Fuzz::OpenBackup(
        work.Write("backup.zip", WithMendedChecksums(Octets(bytes, bytes + size))));
    if (container) {
        Fuzz::UseBackup(container, work);
    }
    return 0;
}
