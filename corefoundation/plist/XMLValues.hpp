// The text of the values of an XML property list. Readers take white space around a
// value and nothing else beside it.
#pragma once

#include "corefoundation/plist/Common.hpp"

#include <optional>
#include <string_view>
#include <vector>

namespace CFInternal::PropertyList {

// White space of XML: blank, tab, line feed, carriage return.
[[nodiscard]] constexpr bool IsXMLSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
[[nodiscard]] std::string_view TrimXMLSpace(std::string_view text);

// high * 2^64 + low. The platform reads no more than -2^63 to 2^64-1 in XML; binary property
// lists hold more, which we keep.
struct WideInteger {
    std::int64_t high;
    std::uint64_t low;
};
// Decimal, or hexadecimal after 0x; an optional sign first.
[[nodiscard]] std::optional<WideInteger> ParseInteger(std::string_view text);
void AppendIntegerText(std::string &out, WideInteger value);

// Decimal with optional fraction and exponent, or nan, inf, infinity with an optional
// sign, in any case. Values too large or too small for a double are refused.
[[nodiscard]] std::optional<double> ParseReal(std::string_view text);
// The shortest text that reads back as the same value; nan, +infinity, -infinity.
void AppendRealText(std::string &out, double value);

// YYYY-MM-DDTHH:MM:SSZ as seconds from 2001-01-01 00:00:00 UTC. The year, of the proleptic
// Gregorian calendar, is any number with as many digits as it takes; the seconds may have a
// fraction, which some programs write, and be 60.
[[nodiscard]] std::optional<double> ParseDate(std::string_view text);
// False for times more than 2^62 seconds, some 146 billion years, from 2001. A fraction of a
// second is cut off, towards the past: the platform reads none.
[[nodiscard]] bool AppendDateText(std::string &out, double seconds);

// RFC 4648 with padding; white space anywhere.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> ParseBase64(std::string_view text);
void AppendBase64(std::string &out, Bytes bytes);

} // namespace CFInternal::PropertyList
