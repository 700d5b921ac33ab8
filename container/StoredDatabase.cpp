#include "container/StoredDatabase.hpp"

#include "crypto/OpenFileDecryption.hpp"
#include <cerrno>

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include <unistd.h>

namespace Kelvane {

namespace {

constexpr std::string_view kMark("SQLite format 3\0", 16);
// Behind the mark, two bytes with the most significant first; 1 stands for 65,536.
constexpr std::size_t kPageSizeAt = 16;
// Whole blocks of the cipher that hold both.
constexpr std::size_t kBeginning = 32;
using Beginning = std::array<std::uint8_t, kBeginning>;

bool isDatabase(std::span<const std::uint8_t> bytes) {
    return bytes.size() >= kMark.size() &&
           std::equal(kMark.begin(), kMark.end(), bytes.begin(), [](char one, std::uint8_t other) {
               return static_cast<std::uint8_t>(one) == other;
           });
}

std::uint64_t pageSizeOf(std::span<const std::uint8_t> bytes) {
    const unsigned size = bytes[kPageSizeAt] * 256U + bytes[kPageSizeAt + 1];
    const bool isPowerOfTwo = size >= 512 && (size & (size - 1)) == 0;
    return size == 1 ? 65536 : isPowerOfTwo ? size : 0;
}

std::size_t readBeginning(ZK::file::readable_file &file, Beginning &bytes) {
    std::size_t length = 0;
    while (const std::size_t count = file.read_some(std::span(bytes).subspan(length))) {
        length += count;
    }
    if (lseek(file.native_handle(), 0, SEEK_SET) != 0) {
        throw boost::system::system_error(errno, boost::system::generic_category());
    }
    return length;
}

} // namespace

DatabaseForm FormOfDatabase(ZK::file::readable_file &file, const MB::ManifestEncryption::Key &key) {
    Beginning bytes{};
    if (readBeginning(file, bytes) < bytes.size()) {
        return DatabaseForm::Padded; // which will tell what is wrong with it
    }
    if (isDatabase(bytes)) {
        return DatabaseForm::Decrypted;
    }
    const auto plain = MB::DecryptBlocks(bytes, key);
    const std::uint64_t pageSize = isDatabase(plain) ? pageSizeOf(plain) : 0;
    return pageSize != 0 && file.size() % pageSize == 0 ? DatabaseForm::Unpadded
                                                        : DatabaseForm::Padded;
}

} // namespace Kelvane
