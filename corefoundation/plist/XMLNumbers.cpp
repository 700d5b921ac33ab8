#include "corefoundation/plist/XMLValues.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace CFInternal::PropertyList {

namespace {

// Takes a sign off the text.
bool TakeSign(std::string_view &text) {
    const bool negative = !text.empty() && text.front() == '-';
    if (negative || (!text.empty() && text.front() == '+')) {
        text.remove_prefix(1);
    }
    return negative;
}

__extension__ typedef unsigned __int128 UInt128;

// from_chars, for more bits than it takes.
std::optional<UInt128> ParseMagnitude(std::string_view text, unsigned base) {
    UInt128 value = 0;
    for (const char c : text) {
        unsigned digit = 0;
        const auto [stop, fault] = std::from_chars(&c, &c + 1, digit, static_cast<int>(base));
        if (fault != std::errc() || __builtin_mul_overflow(value, base, &value) ||
            __builtin_add_overflow(value, digit, &value)) {
            return std::nullopt;
        }
    }
    return text.empty() ? std::nullopt : std::optional(value);
}

// What from_chars takes and we do: digits or a point, inf, infinity, nan. Not a second
// sign, nor nan(...).
bool BeginsLikeReal(std::string_view unsignedText) {
    const bool hasPayload = unsignedText.find('(') != std::string_view::npos;
    return !unsignedText.empty() && unsignedText.front() != '-' && !hasPayload;
}

} // namespace

std::string_view TrimXMLSpace(std::string_view text) {
    while (!text.empty() && IsXMLSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && IsXMLSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

std::optional<WideInteger> ParseInteger(std::string_view text) {
    text = TrimXMLSpace(text);
    const bool negative = TakeSign(text);
    const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (isHexadecimal) {
        text.remove_prefix(2);
    }
    const auto magnitude = ParseMagnitude(text, isHexadecimal ? 16 : 10);
    constexpr UInt128 kLimit = UInt128{1} << 127;
    if (!magnitude || *magnitude > kLimit || (*magnitude == kLimit && !negative)) {
        return std::nullopt;
    }
    const UInt128 value = negative ? 0 - *magnitude : *magnitude;
    return WideInteger{static_cast<std::int64_t>(static_cast<std::uint64_t>(value >> 64)),
                       static_cast<std::uint64_t>(value)};
}

void AppendIntegerText(std::string &out, WideInteger value) {
    const bool negative = value.high < 0;
    UInt128 magnitude =
        static_cast<UInt128>(static_cast<std::uint64_t>(value.high)) << 64 | value.low;
    if (negative) {
        out += '-';
        magnitude = 0 - magnitude;
    }
    const std::size_t start = out.size();
    do {
        out += static_cast<char>('0' + static_cast<int>(magnitude % 10));
        magnitude /= 10;
    } while (magnitude != 0);
    std::reverse(out.begin() + static_cast<std::ptrdiff_t>(start), out.end());
}

std::optional<double> ParseReal(std::string_view text) {
    text = TrimXMLSpace(text);
    const bool negative = TakeSign(text);
    if (!BeginsLikeReal(text)) {
        return std::nullopt;
    }
    double value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, value);
    if (fault != std::errc() || stop != end) {
        return std::nullopt;
    }
    return negative ? -value : value;
}

void AppendRealText(std::string &out, double value) {
    if (std::isnan(value)) {
        out += "nan";
        return;
    }
    if (std::isinf(value)) {
        out += value > 0 ? "+infinity" : "-infinity";
        return;
    }
    char text[std::numeric_limits<double>::max_digits10 + 16];
    const auto result = std::to_chars(text, text + sizeof text, value);
    out.append(text, result.ptr);
}

} // namespace CFInternal::PropertyList
