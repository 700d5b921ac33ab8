// Conversion between bytes in an encoding and UTF-16 units.
#pragma once

#include "corefoundation/TextView.hpp"

#include <CoreFoundation/CFString.h>

#include <array>
#include <bit>
#include <cstdint>
#include <optional>
#include <span>

namespace CFInternal {

using Bytes = std::span<const std::uint8_t>;

inline constexpr std::uint32_t kReplacementCharacter = 0xFFFD;
inline constexpr std::uint32_t kMaxScalar = 0x10FFFF;
inline constexpr std::uint32_t kByteOrderMark = 0xFEFF;

// The families that encodings fall into.
enum class Form { ASCII, Latin1, MacRoman, UTF8, UTF16, UTF32 };

struct Encoding {
    Form form;
    bool bigEndian;   // for the wider forms
    bool orderStated; // the encoding's name says the byte order: no mark is written

    static std::optional<Encoding> find(CFStringEncoding encoding) noexcept;
    bool isByteOriented() const { return form < Form::UTF16; }
};

// Whether the encoding's units are bytes, of which those below 0x80 are ASCII.
constexpr bool isByteOriented(CFStringEncoding encoding) noexcept {
    return encoding == kCFStringEncodingUTF8 || encoding == kCFStringEncodingASCII ||
           encoding == kCFStringEncodingISOLatin1 || encoding == kCFStringEncodingMacRoman;
}

inline constexpr bool kHostBigEndian = std::endian::native == std::endian::big;

// One step of decoding. An ill-formed sequence has a length too: the part that a decoder
// replaces by one U+FFFD (the maximal subpart of Unicode, section 3.9).
struct DecodedScalar {
    std::uint32_t scalar;
    std::uint32_t length;
    bool wellFormed;
};

// The UTF-8 sequence at the start of bytes, which must not be empty.
DecodedScalar decodeUTF8(Bytes bytes) noexcept;

// U+0080 to U+00FF of Mac OS Roman, and back.
UniChar macRomanToUnit(std::uint8_t byte) noexcept;
std::optional<std::uint8_t> unitToMacRoman(std::uint32_t scalar) noexcept;

// Drops a byte order mark and notes the order that it states.
void consumeByteOrderMark(Bytes &bytes, Encoding &encoding) noexcept;

// Calls emit(unit) for each UTF-16 unit that the bytes stand for. False, possibly after
// some calls, when they are ill-formed.
template <class Emit>
bool decodeUnits(Bytes bytes, const Encoding &encoding, Emit emit);

// The bytes of one character.
struct EncodedScalar {
    std::array<std::uint8_t, 4> bytes;
    std::uint32_t length; // 0: no form in the encoding
};
// A lone surrogate may be passed: UTF-16 keeps it, nothing else can.
EncodedScalar encodeScalar(std::uint32_t scalar, const Encoding &encoding) noexcept;

// ---- implementation of the template ----

template <class Emit>
void emitScalar(std::uint32_t scalar, Emit &emit) {
    if (scalar < 0x10000) {
        emit(static_cast<UniChar>(scalar));
    } else {
        emit(highSurrogate(scalar));
        emit(lowSurrogate(scalar));
    }
}

template <class Emit>
bool decodeUTF8Units(Bytes bytes, Emit &emit) {
    while (!bytes.empty()) {
        const DecodedScalar next = decodeUTF8(bytes);
        if (!next.wellFormed) {
            return false;
        }
        emitScalar(next.scalar, emit);
        bytes = bytes.subspan(next.length);
    }
    return true;
}

// As decodeUTF8Units, with U+FFFD for what is ill-formed.
template <class Emit>
void decodeUTF8Lossy(Bytes bytes, Emit emit) {
    while (!bytes.empty()) {
        const DecodedScalar next = decodeUTF8(bytes);
        emitScalar(next.wellFormed ? next.scalar : kReplacementCharacter, emit);
        bytes = bytes.subspan(next.length);
    }
}

template <class Emit>
bool decodeByteUnits(Bytes bytes, Form form, Emit &emit) {
    for (const std::uint8_t byte : bytes) {
        if (byte >= 0x80 && form == Form::ASCII) {
            return false;
        }
        emit(form == Form::MacRoman ? macRomanToUnit(byte) : UniChar{byte});
    }
    return true;
}

template <class Emit>
bool decodeUTF16Units(Bytes bytes, bool bigEndian, Emit &emit) {
    if (bytes.size() % 2 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        const unsigned high = bytes[bigEndian ? i : i + 1];
        const unsigned low = bytes[bigEndian ? i + 1 : i];
        emit(static_cast<UniChar>(high << 8 | low));
    }
    return true;
}

template <class Emit>
bool decodeUTF32Units(Bytes bytes, bool bigEndian, Emit &emit) {
    if (bytes.size() % 4 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < bytes.size(); i += 4) {
        std::uint32_t scalar = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            scalar = scalar << 8 | bytes[bigEndian ? i + k : i + 3 - k];
        }
        if (scalar > kMaxScalar || isSurrogate(scalar)) {
            return false;
        }
        emitScalar(scalar, emit);
    }
    return true;
}

template <class Emit>
bool decodeUnits(Bytes bytes, const Encoding &encoding, Emit emit) {
    switch (encoding.form) {
    case Form::UTF8:
        return decodeUTF8Units(bytes, emit);
    case Form::UTF16:
        return decodeUTF16Units(bytes, encoding.bigEndian, emit);
    case Form::UTF32:
        return decodeUTF32Units(bytes, encoding.bigEndian, emit);
    case Form::ASCII:
    case Form::Latin1:
    case Form::MacRoman:
        break;
    }
    return decodeByteUnits(bytes, encoding.form, emit);
}

} // namespace CFInternal
