// The length-prefixed byte strings of the binary manifest.
#include "Kelvane/SharedState.hpp"

#include <vector>

namespace {

constexpr long kPrefixSize = 2;
constexpr long kAbsent = 0xFFFF; // as a length: no bytes follow

long readPrefix(const std::uint8_t *bytes) { return bytes[0] << 8 | bytes[1]; }

} // namespace

namespace Kelvane {

CF::Data CreateDataFromDeviceRepresentation(const std::uint8_t *bytes, long length, long *offset) {
    const long start = offset == nullptr ? 0 : *offset;
    if (bytes == nullptr || start < 0 || start > length || length - start < kPrefixSize) {
        return nullptr;
    }
    long size = readPrefix(bytes + start);
    if (size == kAbsent) {
        size = 0;
    }
    if (length - start - kPrefixSize < size) {
        return nullptr;
    }
    const auto *const content = bytes + start + kPrefixSize;
    if (offset != nullptr) {
        *offset = start + kPrefixSize + size;
    }
    return CF::Data(std::span(content, static_cast<std::size_t>(size)));
}

CF::Data CopyDeviceRepresentation(const CF::Data &data) {
    const CFIndex size = data.GetLength();
    if (size >= kAbsent) {
        return nullptr;
    }
    const auto content = data.GetBytes();
    std::vector<std::uint8_t> bytes;
    bytes.reserve(content.size() + kPrefixSize);
    bytes.push_back(static_cast<std::uint8_t>(size >> 8));
    bytes.push_back(static_cast<std::uint8_t>(size & 0xFF));
    bytes.insert(bytes.end(), content.begin(), content.end());
    return CF::Data(bytes);
}

} // namespace Kelvane
