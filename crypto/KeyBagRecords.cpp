#include "crypto/KeyBagRecords.hpp"

#include "Kelvane/Error.hpp"

namespace Kelvane::keybag {
namespace {

constexpr std::size_t kTagSize = 4;
constexpr std::size_t kHeadSize = 8; // tag and length

MB::KeyBag::Record readRecord(std::span<const std::uint8_t> blob) {
    const std::uint32_t length = ReadBigEndian32(blob.subspan(kTagSize));
    if (length > blob.size() - kHeadSize) {
        throw Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Incomplete header"));
    }
    const auto tag = blob.first(kTagSize);
    const auto value = blob.subspan(kHeadSize, length);
    return {std::string(tag.begin(), tag.end()), {value.begin(), value.end()}};
}

} // namespace

std::uint32_t ReadBigEndian32(std::span<const std::uint8_t> bytes) noexcept {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]};
}

std::vector<MB::KeyBag::Record> SplitRecords(std::span<const std::uint8_t> blob) {
    std::vector<MB::KeyBag::Record> records;
    while (blob.size() >= kHeadSize) {
        if (records.size() == MB::KeyBag::kMaxRecords) {
            throw Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Too many records (limit %u)"),
                        static_cast<unsigned int>(MB::KeyBag::kMaxRecords));
        }
        records.push_back(readRecord(blob));
        blob = blob.subspan(kHeadSize + records.back().second.size());
    }
    return records;
}

} // namespace Kelvane::keybag
