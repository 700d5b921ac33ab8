#include "corefoundation/plist/XMLValues.hpp"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace CFInternal::PropertyList {

namespace {

using std::chrono::sys_days;

constexpr std::string_view kDatePattern = "dddd-dd-ddTdd:dd:ddZ";
constexpr sys_days kReferenceDay = std::chrono::year(2001) / 1 / 1;
constexpr std::int64_t kSecondsPerDay = 86400;
constexpr int kMinYear = 1;
constexpr int kMaxYear = 9999;

bool MatchesPattern(std::string_view text) {
    if (text.size() != kDatePattern.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (kDatePattern[i] == 'd' ? !isDigit : text[i] != kDatePattern[i]) {
            return false;
        }
    }
    return true;
}

// The number of the digits at a place of a text that matches the pattern.
unsigned Digits(std::string_view text, std::size_t at, std::size_t length) {
    unsigned value = 0;
    for (const char digit : text.substr(at, length)) {
        value = 10 * value + static_cast<unsigned>(digit - '0');
    }
    return value;
}

constexpr std::int64_t SecondsTo(sys_days day) {
    return (day - kReferenceDay).count() * kSecondsPerDay;
}

} // namespace

std::optional<double> ParseDate(std::string_view text) {
    text = TrimXMLSpace(text);
    if (!MatchesPattern(text)) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(Digits(text, 0, 4))),
                                           std::chrono::month(Digits(text, 5, 2)),
                                           std::chrono::day(Digits(text, 8, 2))};
    const unsigned hour = Digits(text, 11, 2);
    const unsigned minute = Digits(text, 14, 2);
    const unsigned second = Digits(text, 17, 2);
    if (static_cast<int>(date.year()) < kMinYear || !date.ok() || hour > 23 || minute > 59 ||
        second > 59) {
        return std::nullopt;
    }
    return static_cast<double>(SecondsTo(date) + hour * 3600 + minute * 60 + second);
}

bool AppendDateText(std::string &out, double seconds) {
    constexpr auto kFirst = SecondsTo(std::chrono::year(kMinYear) / 1 / 1);
    constexpr auto kEnd = SecondsTo(std::chrono::year(kMaxYear + 1) / 1 / 1);
    // So written, NaN fails too.
    if (!(seconds >= static_cast<double>(kFirst) && seconds < static_cast<double>(kEnd))) {
        return false;
    }
    const auto whole = static_cast<std::int64_t>(std::floor(seconds));
    const auto time = std::chrono::floor<std::chrono::days>(std::chrono::seconds(whole));
    const std::chrono::year_month_day date(kReferenceDay + time);
    const auto ofDay = static_cast<int>(whole - time.count() * kSecondsPerDay);
    char text[64];
    const int length =
        std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ",
                      static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                      static_cast<unsigned>(date.day()), ofDay / 3600, ofDay / 60 % 60, ofDay % 60);
    out.append(text, static_cast<std::size_t>(length));
    return true;
}

} // namespace CFInternal::PropertyList
