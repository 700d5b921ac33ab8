// Byte vectors for tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace testing_support {

using Bytes = std::vector<std::uint8_t>;

inline Bytes BytesOf(std::string_view text) { return {text.begin(), text.end()}; }

// From hexadecimal digits; blanks are passed over.
inline Bytes FromHex(std::string_view text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    Bytes bytes;
    int pending = -1;
    for (const char c : text) {
        if (c == ' ') {
            continue;
        }
        const auto digit = kDigits.find(static_cast<char>(c >= 'A' && c <= 'F' ? c + 32 : c));
        if (digit == std::string_view::npos) {
            throw std::invalid_argument("no hexadecimal digit");
        }
        if (pending < 0) {
            pending = static_cast<int>(digit);
        } else {
            bytes.push_back(static_cast<std::uint8_t>(pending * 16 + static_cast<int>(digit)));
            pending = -1;
        }
    }
    return bytes;
}

// Bytes without a short period, the same for the same seed.
inline Bytes Pattern(std::size_t size, std::uint32_t seed = 1) {
    Bytes bytes(size);
    std::uint32_t state = seed * 2654435761U + 1;
    for (std::uint8_t &byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

inline std::string TextOf(const Bytes &bytes) { return {bytes.begin(), bytes.end()}; }

} // namespace testing_support
