#include "corefoundation/plist/XMLValues.hpp"

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
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    std::uint64_t magnitude = 0;
    const char *end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, magnitude, base);
    if (fault != std::errc() || stop != end) {
        return std::nullopt;
    }
    if (!negative || magnitude == 0) {
        return WideInteger{0, magnitude};
    }
    if (magnitude > std::uint64_t{1} << 63) {
        return std::nullopt;
    }
    return WideInteger{-1, 0 - magnitude};
}

bool AppendIntegerText(std::string &out, WideInteger value) {
    const bool negative = value.high < 0;
    if (negative ? value.high != -1 || value.low <= INT64_MAX : value.high != 0) {
        return false;
    }
    if (negative) {
        out += '-';
    }
    out += std::to_string(negative ? 0 - value.low : value.low);
    return true;
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
