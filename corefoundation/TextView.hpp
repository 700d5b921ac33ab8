// Borrowed text in either of the two forms that strings are stored in.
#pragma once

#include <CoreFoundation/CFBase.h>

#include <cstdint>
#include <cstring>

namespace CFInternal {

// Longest text in units: what is added to a size anywhere below cannot overflow.
inline constexpr CFIndex kMaxTextLength = INT64_MAX / 8;

constexpr bool isHighSurrogate(std::uint32_t unit) { return (unit & 0xFFFFFC00) == 0xD800; }
constexpr bool isLowSurrogate(std::uint32_t unit) { return (unit & 0xFFFFFC00) == 0xDC00; }
constexpr bool isSurrogate(std::uint32_t unit) { return (unit & 0xFFFFF800) == 0xD800; }
constexpr std::uint32_t scalarFromPair(std::uint32_t high, std::uint32_t low) {
    return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}
constexpr UniChar highSurrogate(std::uint32_t scalar) {
    return static_cast<UniChar>(0xD7C0 + (scalar >> 10));
}
constexpr UniChar lowSurrogate(std::uint32_t scalar) {
    return static_cast<UniChar>(0xDC00 + (scalar & 0x3FF));
}

// Units that are either one byte each, ASCII only, or two bytes each. Wide text may
// well be all ASCII: callers hand us UTF-16 buffers.
struct TextView {
    const void *data = nullptr;
    CFIndex length = 0;
    bool wide = false;

    const std::uint8_t *narrowUnits() const { return static_cast<const std::uint8_t *>(data); }
    const UniChar *wideUnits() const { return static_cast<const UniChar *>(data); }
    UniChar at(CFIndex i) const { return wide ? wideUnits()[i] : narrowUnits()[i]; }
    std::size_t byteSize() const { return static_cast<std::size_t>(length) << (wide ? 1 : 0); }

    // The range must lie within the text.
    TextView sub(CFIndex location, CFIndex count) const {
        return {static_cast<const char *>(data) + (wide ? location * 2 : location), count, wide};
    }
    TextView sub(CFRange range) const { return sub(range.location, range.length); }
};

// Calls work(units, length) with units of the type that the text is stored in.
template <class Work>
auto withUnits(const TextView &text, Work work) {
    return text.wide ? work(text.wideUnits(), text.length) : work(text.narrowUnits(), text.length);
}

inline TextView narrowView(const void *ascii, std::size_t length) {
    return {ascii, static_cast<CFIndex>(length), false};
}

// Whether all bytes are below 0x80.
inline bool isASCII(const std::uint8_t *bytes, std::size_t length) noexcept {
    constexpr std::uint64_t highBits = 0x8080808080808080;
    std::uint64_t seen = 0;
    const auto wordAt = [bytes](std::size_t i) {
        std::uint64_t word;
        std::memcpy(&word, bytes + i, sizeof(word));
        return word;
    };
    std::size_t i = 0;
    for (; length - i >= 32; i += 32) {
        seen |= wordAt(i) | wordAt(i + 8) | wordAt(i + 16) | wordAt(i + 24);
    }
    for (; length - i >= 8; i += 8) {
        seen |= wordAt(i);
    }
    if (length >= 8) {
        seen |= wordAt(length - 8); // the rest, and some bytes again
        i = length;
    }
    for (; i < length; ++i) {
        seen |= bytes[i];
    }
    return (seen & highBits) == 0;
}

// Whether all units are below 0x80.
inline bool isASCII(const UniChar *units, CFIndex length) noexcept {
    std::uint32_t seen = 0;
    for (CFIndex i = 0; i < length; ++i) {
        seen |= units[i];
    }
    return seen < 0x80;
}

} // namespace CFInternal
