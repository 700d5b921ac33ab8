#include "container/ZipRecord.hpp"

#include "Kelvane/Error.hpp"

#include <cstdint>
#include <limits>

namespace Kelvane {

namespace {

constexpr std::uint64_t kStored = 0;
constexpr std::uint64_t kDeflated = 8;

// Deflate's shortest code is a copy of 258 bytes in two bits, so that a byte gives no more.
constexpr std::uint64_t kMostBytesFromOne = 258 * 8 / 2;

std::uint64_t largestSize(const unz_file_info64 &record) {
    constexpr std::uint64_t kAny = std::numeric_limits<std::uint64_t>::max();
    switch (record.compression_method) {
    case kStored:
        return record.compressed_size;
    case kDeflated:
        return record.compressed_size > kAny / kMostBytesFromOne
                   ? kAny
                   : record.compressed_size * kMostBytesFromOne;
    default:
        return kAny; // the library cannot unpack it, and says so
    }
}

} // namespace

void RequirePossibleSize(const unz_file_info64 &record) {
    if (record.uncompressed_size > largestSize(record)) {
        throw Error(kKVErrorArchive, nullptr,
                    CFSTR("The zip record claims %llu bytes, and its %llu compressed bytes cannot "
                          "hold them"),
                    static_cast<unsigned long long>(record.uncompressed_size),
                    static_cast<unsigned long long>(record.compressed_size));
    }
}

} // namespace Kelvane
