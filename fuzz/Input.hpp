// An input as a sequence of choices, for drivers that build what they test.
#pragma once

#include "support/cf/CF.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <span>
#include <string>
#include <vector>

namespace Fuzz {

// Hands out the input piece by piece, and zeros behind its end.
class Input {
  public:
    Input(const std::uint8_t *bytes, std::size_t size) : left_(bytes, size) {}

    std::uint8_t Byte() {
        const auto piece = Take(1);
        return piece.empty() ? std::uint8_t{0} : piece[0];
    }
    // Of as many bytes as the input says, so that small numbers are not rare.
    template <class Integer>
    Integer Number() {
        std::uint64_t value = 0;
        for (const std::uint8_t byte : Take(Byte() % 9)) {
            value = value << 8 | byte;
        }
        return static_cast<Integer>(value);
    }
    std::span<const std::uint8_t> Piece() { return Take(Number<std::uint16_t>()); }
    std::string PieceAsText() {
        const auto piece = Piece();
        return {piece.begin(), piece.end()};
    }
    std::span<const std::uint8_t> Rest() { return Take(left_.size()); }
    bool AtEnd() const noexcept { return left_.empty(); }

  private:
    std::span<const std::uint8_t> Take(std::size_t count) {
        const auto piece = left_.first(std::min(count, left_.size()));
        left_ = left_.subspan(piece.size());
        return piece;
    }
    std::span<const std::uint8_t> left_;
};

// Any UTF-16 units, halves of surrogate pairs among them.
inline CF::String UnitsOf(std::span<const std::uint8_t> bytes) {
    std::vector<UniChar> units;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        units.push_back(static_cast<UniChar>(bytes[i] << 8 | bytes[i + 1]));
    }
    return CF::String::Adopt(
        CFStringCreateWithCharacters(nullptr, units.data(), static_cast<CFIndex>(units.size())));
}

// Absent, bytes as Latin-1, units, or a name that every archive has.
inline CF::String Text(Input &input) {
    constexpr const char *kNames[] = {"$null", "root", "MBFile", "CF$UID", "Target", "$classes"};
    const std::uint8_t kind = input.Byte();
    const auto piece = input.Piece();
    switch (kind % 4) {
    case 0:
        return {};
    case 1:
        return CF::String::Adopt(CFStringCreateWithBytes(nullptr, piece.data(),
                                                         static_cast<CFIndex>(piece.size()),
                                                         kCFStringEncodingISOLatin1, false));
    case 2:
        return UnitsOf(piece);
    default:
        return kNames[kind / 4 % std::size(kNames)];
    }
}

inline CF::Data Bytes(Input &input) {
    const bool present = input.Byte() % 2 == 1;
    const auto piece = input.Piece();
    return present ? CF::Data(piece) : CF::Data();
}

} // namespace Fuzz
