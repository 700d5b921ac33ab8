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

// -2^63 to 2^64-1: high * 2^64 + low.
struct WideInteger {
    std::int64_t high;
    std::uint64_t low;
};
// Decimal, or hexadecimal after 0x; an optional sign first.
[[nodiscard]] std::optional<WideInteger> ParseInteger(std::string_view text);
// False for values outside the range above, which no reader of XML takes.
[[nodiscard]] bool AppendIntegerText(std::string &out, WideInteger value);

// Decimal with optional fraction and exponent, or nan, inf, infinity with an optional
// sign, in any case. Values too large or too small for a double are refused.
[[nodiscard]] std::optional<double> ParseReal(std::string_view text);
// The shortest text that reads back as the same value; nan, +infinity, -infinity.
void AppendRealText(std::string &out, double value);

// YYYY-MM-DDTHH:MM:SSZ, years 1 to 9999, as seconds from 2001-01-01 00:00:00 UTC.
[[nodiscard]] std::optional<double> ParseDate(std::string_view text);
// False for times outside those years. A fraction of a second is cut off, towards the
// past: the format has no place for it.
[[nodiscard]] bool AppendDateText(std::string &out, double seconds);

// RFC 4648 with padding; white space anywhere.
[[nodiscard]] std::optional<std::vector<std::uint8_t>> ParseBase64(std::string_view text);
void AppendBase64(std::string &out, Bytes bytes);

} // namespace CFInternal::PropertyList
