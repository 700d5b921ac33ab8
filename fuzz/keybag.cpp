// Opens keybags under both rules for device-bound keys, and old ones, with the seeds' password.
#include "MB/KeyBag.hpp"
#include "support/cf/CF.hpp"

#include <algorithm>
#include <cstdlib>
#include <string_view>

using Bytes = std::vector<std::uint8_t>;

// Makes the key derivation short: the parser is to be explored, not PBKDF2.
static Bytes withLowCounts(Bytes blob) {
    for (const auto head : {std::string_view("DPIC\0\0\0\4", 8), {"ITER\0\0\0\4", 8}}) {
        auto at = blob.begin();
        while ((at = std::search(at, blob.end(), head.begin(), head.end())) != blob.end()) {
            at += 8;
            std::fill(at, at + std::min<std::ptrdiff_t>(3, blob.end() - at), std::uint8_t{0});
        }
    }
    return blob;
}

static void open(const CF::Data &blob, const MB::KeyBagOptions &options) try {
    const MB::KeyBag keyBag(blob, "correct horse", options);
    std::size_t left = blob.GetBytes().size();
    for (const auto &record : keyBag.GetRecords()) {
        left -= 8 + record.second.size();
    }
    if (left >= 8) { // not all was read, or more than there is
        std::abort();
    }
} catch (const CF::Error &) {
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const CF::Data blob(withLowCounts({bytes, bytes + size}));
    open(blob, {MB::DeviceBoundKeys::Fail, MB::OldKeyBags::Refuse, {}});
    open(blob, {MB::DeviceBoundKeys::KeepLocked, MB::OldKeyBags::Refuse, {}});
    open(blob, {MB::DeviceBoundKeys::KeepLocked, MB::OldKeyBags::Accept, {}});
    return 0;
}
