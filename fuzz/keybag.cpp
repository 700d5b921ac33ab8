// Opens keybags under both rules for device-bound class keys. The seeds' password is
// "correct horse".
#include "MB/KeyBag.hpp"
#include "support/cf/CF.hpp"

#include <algorithm>
#include <cstdlib>
#include <string_view>

using Bytes = std::vector<std::uint8_t>;

// Makes the key derivation short: the parser is to be explored, not PBKDF2.
static void lowerCounts(Bytes &blob) {
    using namespace std::string_view_literals;
    for (const auto head : {"DPIC\0\0\0\4"sv, "ITER\0\0\0\4"sv}) {
        auto at = blob.begin();
        while ((at = std::search(at, blob.end(), head.begin(), head.end())) != blob.end()) {
            at += 8;
            std::fill(at, at + std::min<std::ptrdiff_t>(3, blob.end() - at), std::uint8_t{0});
        }
    }
}

static void open(const CF::Data &blob, MB::DeviceBoundKeys bound) try {
    const MB::KeyBag keyBag(blob, "correct horse", bound);
    std::size_t size = 0; // of all records: at most 7 bytes are left over
    for (const auto &record : keyBag.GetRecords()) {
        size += 8 + record.second.size();
    }
    if (const auto whole = blob.GetBytes().size(); size > whole || size + 8 <= whole) {
        std::abort();
    }
} catch (const CF::Error &) {
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    Bytes blob(bytes, bytes + size);
    lowerCounts(blob);
    open(CF::Data(blob), MB::DeviceBoundKeys::Fail);
    open(CF::Data(blob), MB::DeviceBoundKeys::KeepLocked);
    return 0;
}
