#include "corefoundation/plist/XMLValues.hpp"

#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>

namespace CFInternal::PropertyList {

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
// 2001-01-01 counted in days from 0000-03-01, where the years of the arithmetic below begin: in
// March, so that the leap day comes last. 400 years have 146097 days.
constexpr std::int64_t kReferenceDay = 730791;
constexpr std::int64_t kDaysPerEra = 146097;
// Some 146 billion years either way, within which 64 bits hold every step of the arithmetic.
constexpr double kSecondsLimit = 0x1p62;
// Longer numbers of years are beyond that limit.
constexpr std::size_t kMaxYearDigits = 12;

struct Date {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

std::int64_t FloorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

// Days from 2001-01-01.
std::int64_t DaysTo(const Date &date) {
    const bool isAfterFebruary = date.month > 2;
    const std::int64_t year = date.year - (isAfterFebruary ? 0 : 1);
    const std::int64_t month = std::int64_t{date.month} + (isAfterFebruary ? -3 : 9);
    const std::int64_t era = FloorDivide(year, 400);
    const std::int64_t ofEra = year - era * 400;
    const std::int64_t ofYear = (153 * month + 2) / 5 + date.day - 1;
    return era * kDaysPerEra + ofEra * 365 + ofEra / 4 - ofEra / 100 + ofYear - kReferenceDay;
}

Date DateAfter(std::int64_t days) {
    days += kReferenceDay;
    const std::int64_t era = FloorDivide(days, kDaysPerEra);
    const std::int64_t ofEra = days - era * kDaysPerEra;
    const std::int64_t year =
        (ofEra - ofEra / 1460 + ofEra / 36524 - ofEra / (kDaysPerEra - 1)) / 365;
    const std::int64_t ofYear = ofEra - (365 * year + year / 4 - year / 100);
    const std::int64_t month = (5 * ofYear + 2) / 153;
    const std::int64_t civilMonth = month < 10 ? month + 3 : month - 9;
    return {era * 400 + year + (civilMonth <= 2 ? 1 : 0), static_cast<unsigned>(civilMonth),
            static_cast<unsigned>(ofYear - (153 * month + 2) / 5 + 1)};
}

bool IsValid(const Date &date) {
    constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool isLeap = date.year % 4 == 0 && (date.year % 100 != 0 || date.year % 400 == 0);
    return date.month >= 1 && date.month <= 12 && date.day >= 1 &&
           date.day <= kDays[date.month - 1] + (date.month == 2 && isLeap ? 1U : 0U);
}

// So written, NaN is not.
bool IsWithinLimit(double seconds) { return std::fabs(seconds) < kSecondsLimit; }

// Takes the parts of a date off a text; after the first that is missing, nothing.
class DateParser {
  public:
    explicit DateParser(std::string_view text) : text_(text) {}

    bool Take(char c) {
        const bool found = text_.starts_with(c);
        valid_ = valid_ && found;
        text_.remove_prefix(found ? 1 : 0);
        return found;
    }
    bool TakeIf(char c) { return text_.starts_with(c) && Take(c); }

    std::string_view Digits(std::size_t least, std::size_t most) {
        std::size_t count = 0;
        while (count < text_.size() && text_[count] >= '0' && text_[count] <= '9') {
            ++count;
        }
        valid_ = valid_ && count >= least && count <= most;
        const std::string_view digits = text_.substr(0, count);
        text_.remove_prefix(count);
        return digits;
    }
    template <class Number>
    Number TakeNumber(std::size_t least, std::size_t most) {
        const std::string_view digits = Digits(least, most);
        Number number = 0;
        if (valid_) {
            std::from_chars(digits.data(), digits.data() + digits.size(), number);
        }
        return number;
    }
    bool IsValid() const { return valid_ && text_.empty(); }

  private:
    std::string_view text_;
    bool valid_ = true;
};

// 0 when there is none.
double TakeFraction(DateParser &parser) {
    if (!parser.TakeIf('.')) {
        return 0;
    }
    const std::string digits = "0." + std::string(parser.Digits(1, std::string_view::npos));
    double fraction = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), fraction);
    return fraction;
}

} // namespace

std::optional<double> ParseDate(std::string_view text) {
    DateParser parser(TrimXMLSpace(text));
    Date date{};
    const bool isNegative = parser.TakeIf('-');
    const auto year = parser.TakeNumber<std::int64_t>(1, kMaxYearDigits);
    date.year = isNegative ? -year : year;
    parser.Take('-');
    date.month = parser.TakeNumber<unsigned>(2, 2);
    parser.Take('-');
    date.day = parser.TakeNumber<unsigned>(2, 2);
    parser.Take('T');
    const auto hour = parser.TakeNumber<unsigned>(2, 2);
    parser.Take(':');
    const auto minute = parser.TakeNumber<unsigned>(2, 2);
    parser.Take(':');
    const auto second = parser.TakeNumber<unsigned>(2, 2);
    const double fraction = TakeFraction(parser);
    parser.Take('Z');
    if (!parser.IsValid() || !IsValid(date) || hour > 23 || minute > 59 || second > 60) {
        return std::nullopt;
    }
    std::int64_t seconds = 0;
    if (__builtin_mul_overflow(DaysTo(date), kSecondsPerDay, &seconds) ||
        __builtin_add_overflow(seconds, hour * 3600 + minute * 60 + second, &seconds) ||
        !IsWithinLimit(static_cast<double>(seconds))) {
        return std::nullopt;
    }
    return static_cast<double>(seconds) + fraction;
}

bool AppendDateText(std::string &out, double seconds) {
    if (!IsWithinLimit(seconds)) {
        return false;
    }
    const auto whole = static_cast<std::int64_t>(std::floor(seconds));
    const std::int64_t days = FloorDivide(whole, kSecondsPerDay);
    const Date date = DateAfter(days);
    const auto ofDay = static_cast<int>(whole - days * kSecondsPerDay);
    char text[64];
    // Four digits of the year, whatever its sign.
    const int length = std::snprintf(text, sizeof text, "%0*" PRId64 "-%02u-%02uT%02d:%02d:%02dZ",
                                     date.year < 0 ? 5 : 4, date.year, date.month, date.day,
                                     ofDay / 3600, ofDay / 60 % 60, ofDay % 60);
    out.append(text, static_cast<std::size_t>(length));
    return true;
}

} // namespace CFInternal::PropertyList
