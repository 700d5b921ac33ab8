#include "corefoundation/TextEncoding.hpp"

#include <algorithm>

namespace CFInternal {

namespace {

// Bytes 0x80 to 0xFF of Mac OS Roman, as of the version that has the euro sign.
constexpr std::array<UniChar, 128> kMacRoman = {
    0x00C4, 0x00C5, 0x00C7, 0x00C9, 0x00D1, 0x00D6, 0x00DC, 0x00E1, 0x00E0, 0x00E2, 0x00E4, 0x00E3,
    0x00E5, 0x00E7, 0x00E9, 0x00E8, 0x00EA, 0x00EB, 0x00ED, 0x00EC, 0x00EE, 0x00EF, 0x00F1, 0x00F3,
    0x00F2, 0x00F4, 0x00F6, 0x00F5, 0x00FA, 0x00F9, 0x00FB, 0x00FC, 0x2020, 0x00B0, 0x00A2, 0x00A3,
    0x00A7, 0x2022, 0x00B6, 0x00DF, 0x00AE, 0x00A9, 0x2122, 0x00B4, 0x00A8, 0x2260, 0x00C6, 0x00D8,
    0x221E, 0x00B1, 0x2264, 0x2265, 0x00A5, 0x00B5, 0x2202, 0x2211, 0x220F, 0x03C0, 0x222B, 0x00AA,
    0x00BA, 0x03A9, 0x00E6, 0x00F8, 0x00BF, 0x00A1, 0x00AC, 0x221A, 0x0192, 0x2248, 0x2206, 0x00AB,
    0x00BB, 0x2026, 0x00A0, 0x00C0, 0x00C3, 0x00D5, 0x0152, 0x0153, 0x2013, 0x2014, 0x201C, 0x201D,
    0x2018, 0x2019, 0x00F7, 0x25CA, 0x00FF, 0x0178, 0x2044, 0x20AC, 0x2039, 0x203A, 0xFB01, 0xFB02,
    0x2021, 0x00B7, 0x201A, 0x201E, 0x2030, 0x00C2, 0x00CA, 0x00C1, 0x00CB, 0x00C8, 0x00CD, 0x00CE,
    0x00CF, 0x00CC, 0x00D3, 0x00D4, 0xF8FF, 0x00D2, 0x00DA, 0x00DB, 0x00D9, 0x0131, 0x02C6, 0x02DC,
    0x00AF, 0x02D8, 0x02D9, 0x02DA, 0x00B8, 0x02DD, 0x02DB, 0x02C7,
};

// What may follow a lead byte: how many bytes, and between which bounds the first of
// them, which is where overlong forms, surrogates and values too large are excluded.
struct Lead {
    std::uint32_t trailing;
    std::uint8_t low;
    std::uint8_t high;
};

constexpr Lead leadOf(std::uint8_t byte) {
    if (byte < 0xC2 || byte > 0xF4) {
        return {0, 0, 0};
    }
    if (byte < 0xE0) {
        return {1, 0x80, 0xBF};
    }
    if (byte < 0xF0) {
        return {2, byte == 0xE0 ? std::uint8_t{0xA0} : std::uint8_t{0x80},
                byte == 0xED ? std::uint8_t{0x9F} : std::uint8_t{0xBF}};
    }
    return {3, byte == 0xF0 ? std::uint8_t{0x90} : std::uint8_t{0x80},
            byte == 0xF4 ? std::uint8_t{0x8F} : std::uint8_t{0xBF}};
}

EncodedScalar encodeUTF8(std::uint32_t scalar) noexcept {
    const auto trail = [scalar](unsigned shift) {
        return static_cast<std::uint8_t>(0x80 | (scalar >> shift & 0x3F));
    };
    const auto lead = [scalar](unsigned mark, unsigned shift) {
        return static_cast<std::uint8_t>(mark | scalar >> shift);
    };
    if (scalar < 0x80) {
        return {{static_cast<std::uint8_t>(scalar)}, 1};
    }
    if (scalar < 0x800) {
        return {{lead(0xC0, 6), trail(0)}, 2};
    }
    if (scalar < 0x10000) {
        return {{lead(0xE0, 12), trail(6), trail(0)}, 3};
    }
    return {{lead(0xF0, 18), trail(12), trail(6), trail(0)}, 4};
}

EncodedScalar encodeUTF16(std::uint32_t scalar, bool bigEndian) noexcept {
    EncodedScalar result{{}, scalar < 0x10000 ? 2U : 4U};
    const std::array<std::uint32_t, 2> units = {scalar < 0x10000 ? scalar : highSurrogate(scalar),
                                                lowSurrogate(scalar)};
    for (std::size_t i = 0; i < result.length / 2; ++i) {
        result.bytes[2 * i + (bigEndian ? 0 : 1)] = static_cast<std::uint8_t>(units[i] >> 8);
        result.bytes[2 * i + (bigEndian ? 1 : 0)] = static_cast<std::uint8_t>(units[i]);
    }
    return result;
}

EncodedScalar encodeUTF32(std::uint32_t scalar, bool bigEndian) noexcept {
    EncodedScalar result{{}, 4};
    for (std::size_t i = 0; i < 4; ++i) {
        result.bytes[bigEndian ? 3 - i : i] = static_cast<std::uint8_t>(scalar >> 8 * i);
    }
    return result;
}

EncodedScalar encodeByte(std::uint32_t scalar, Form form) noexcept {
    if (scalar < 0x80 || (form == Form::Latin1 && scalar < 0x100)) {
        return {{static_cast<std::uint8_t>(scalar)}, 1};
    }
    const auto byte = form == Form::MacRoman ? unitToMacRoman(scalar) : std::nullopt;
    return byte ? EncodedScalar{{*byte}, 1} : EncodedScalar{{}, 0};
}

bool startsWith(Bytes bytes, const EncodedScalar &mark) {
    return bytes.size() >= mark.length &&
           std::equal(mark.bytes.begin(), mark.bytes.begin() + mark.length, bytes.begin());
}

} // namespace

std::optional<Encoding> Encoding::find(CFStringEncoding encoding) noexcept {
    switch (encoding) {
    case kCFStringEncodingASCII:
        return Encoding{Form::ASCII, false, true};
    case kCFStringEncodingISOLatin1:
        return Encoding{Form::Latin1, false, true};
    case kCFStringEncodingMacRoman:
        return Encoding{Form::MacRoman, false, true};
    case kCFStringEncodingUTF8:
        return Encoding{Form::UTF8, false, true};
    case kCFStringEncodingUTF16:
        return Encoding{Form::UTF16, kHostBigEndian, false};
    case kCFStringEncodingUTF16BE:
        return Encoding{Form::UTF16, true, true};
    case kCFStringEncodingUTF16LE:
        return Encoding{Form::UTF16, false, true};
    case kCFStringEncodingUTF32:
        return Encoding{Form::UTF32, kHostBigEndian, false};
    case kCFStringEncodingUTF32BE:
        return Encoding{Form::UTF32, true, true};
    case kCFStringEncodingUTF32LE:
        return Encoding{Form::UTF32, false, true};
    default:
        return std::nullopt;
    }
}

DecodedScalar decodeUTF8(Bytes bytes) noexcept {
    const std::uint8_t first = bytes[0];
    if (first < 0x80) {
        return {first, 1, true};
    }
    const Lead lead = leadOf(first);
    if (lead.trailing == 0) {
        return {0, 1, false};
    }
    std::uint32_t scalar = first & (0x3FU >> lead.trailing);
    for (std::uint32_t i = 1; i <= lead.trailing; ++i) {
        const std::uint8_t low = i == 1 ? lead.low : std::uint8_t{0x80};
        const std::uint8_t high = i == 1 ? lead.high : std::uint8_t{0xBF};
        if (i >= bytes.size() || bytes[i] < low || bytes[i] > high) {
            return {0, i, false};
        }
        scalar = scalar << 6 | (bytes[i] & 0x3FU);
    }
    return {scalar, lead.trailing + 1, true};
}

UniChar macRomanToUnit(std::uint8_t byte) noexcept {
    return byte < 0x80 ? UniChar{byte} : kMacRoman[byte - 0x80U];
}

std::optional<std::uint8_t> unitToMacRoman(std::uint32_t scalar) noexcept {
    const auto *const found = std::find(kMacRoman.begin(), kMacRoman.end(), scalar);
    if (found == kMacRoman.end()) {
        return std::nullopt;
    }
    return static_cast<std::uint8_t>(0x80 + (found - kMacRoman.begin()));
}

void consumeByteOrderMark(Bytes &bytes, Encoding &encoding) noexcept {
    if (encoding.form < Form::UTF8) {
        return;
    }
    for (const bool bigEndian : {false, true}) {
        const Encoding tried{encoding.form, bigEndian, true};
        const EncodedScalar mark = encodeScalar(kByteOrderMark, tried);
        if (startsWith(bytes, mark) && (!encoding.orderStated || bigEndian == encoding.bigEndian)) {
            bytes = bytes.subspan(mark.length);
            encoding.bigEndian = bigEndian;
            return;
        }
    }
}

EncodedScalar encodeScalar(std::uint32_t scalar, const Encoding &encoding) noexcept {
    if (encoding.form == Form::UTF16) {
        return encodeUTF16(scalar, encoding.bigEndian);
    }
    if (isSurrogate(scalar)) {
        return {{}, 0};
    }
    switch (encoding.form) {
    case Form::UTF8:
        return encodeUTF8(scalar);
    case Form::UTF32:
        return encodeUTF32(scalar, encoding.bigEndian);
    default:
        return encodeByte(scalar, encoding.form);
    }
}

} // namespace CFInternal
