#include <CoreFoundation/CFDate.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Description.hpp"
#include "corefoundation/MixHash.hpp"

#include <array>
#include <bit>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>

struct __CFDate {
    CFRuntimeBase base;
    CFAbsoluteTime time;
};

using namespace CFInternal;

namespace {

// The constants again, for the compiler to fold.
constexpr CFTimeInterval kSince1970 = 978307200;
constexpr std::int64_t kSecondsPerDay = 86400;
// 2001-01-01 counted in days from 0000-03-01 of the proleptic Gregorian calendar.
constexpr std::int64_t kReferenceDay = 730791;

struct CalendarDay {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

// From days since 0000-03-01. Years begin in March, so that the leap day comes last; 400
// years have 146097 days.
CalendarDay calendarDay(std::int64_t days) {
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const std::int64_t dayOfEra = days - era * 146097;
    const std::int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t month = (5 * dayOfYear + 2) / 153;
    const auto day = static_cast<unsigned>(dayOfYear - (153 * month + 2) / 5 + 1);
    const auto civilMonth = static_cast<unsigned>(month < 10 ? month + 3 : month - 9);
    return {yearOfEra + era * 400 + (civilMonth <= 2 ? 1 : 0), civilMonth, day};
}

std::string calendarText(std::int64_t seconds) {
    const std::int64_t days =
        (seconds >= 0 ? seconds : seconds - (kSecondsPerDay - 1)) / kSecondsPerDay;
    const auto inDay = static_cast<int>(seconds - days * kSecondsPerDay);
    const CalendarDay date = calendarDay(days + kReferenceDay);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04" PRId64 "-%02u-%02u %02d:%02d:%02d +0000",
                  date.year, date.month, date.day, inDay / 3600, inDay / 60 % 60, inDay % 60);
    return text.data();
}

CFStringRef describeDate(CFTypeRef cf, CFDictionaryRef) {
    // 30 million years either way; beyond that and for NaN a calendar says nothing.
    constexpr double kCalendarLimit = 1e15;
    const CFAbsoluteTime time = static_cast<CFDateRef>(cf)->time;
    if (std::fabs(time) <= kCalendarLimit) {
        return createString(calendarText(static_cast<std::int64_t>(std::floor(time))));
    }
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "<absolute time %g>", time);
    return createString(text.data());
}

bool equalTimes(CFAbsoluteTime a, CFAbsoluteTime b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

Boolean equalDates(CFTypeRef cf1, CFTypeRef cf2) {
    return equalTimes(static_cast<CFDateRef>(cf1)->time, static_cast<CFDateRef>(cf2)->time);
}

CFHashCode hashDate(CFTypeRef cf) {
    const CFAbsoluteTime time = static_cast<CFDateRef>(cf)->time;
    if (time == 0 || std::isnan(time)) { // both zeros are equal, and all NaNs
        return 0;
    }
    return mixHash(std::bit_cast<std::uint64_t>(time));
}

CFDateRef checked(CFDateRef date, const char *function) {
    requireType(date, kDateTypeID, function);
    return date;
}

} // namespace

constinit const CFRuntimeClass CFInternal::kDateClass = {
    0, "CFDate", nullptr, nullptr, nullptr, equalDates, hashDate, describeDate, nullptr};

constinit const CFTimeInterval kCFAbsoluteTimeIntervalSince1970 = kSince1970;
constinit const CFTimeInterval kCFAbsoluteTimeIntervalSince1904 = 3061152000;

CFAbsoluteTime CFAbsoluteTimeGetCurrent(void) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) - kSince1970 + static_cast<double>(now.tv_nsec) * 1e-9;
}

CFTypeID CFDateGetTypeID(void) { return kDateTypeID; }

CFDateRef CFDateCreate(CFAllocatorRef allocator, CFAbsoluteTime at) {
    auto *date = static_cast<__CFDate *>(
        allocateInstance(allocator, kDateTypeID, sizeof(__CFDate) - sizeof(CFRuntimeBase)));
    if (date != nullptr) {
        date->time = at;
    }
    return date;
}

CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef theDate) { return checked(theDate, __func__)->time; }

CFTimeInterval CFDateGetTimeIntervalSinceDate(CFDateRef theDate, CFDateRef otherDate) {
    return checked(theDate, __func__)->time - checked(otherDate, __func__)->time;
}

CFComparisonResult CFDateCompare(CFDateRef theDate, CFDateRef otherDate, void *) {
    const CFAbsoluteTime a = checked(theDate, __func__)->time;
    const CFAbsoluteTime b = checked(otherDate, __func__)->time;
    if (equalTimes(a, b)) {
        return kCFCompareEqualTo;
    }
    // NaN comes first, so that sorting has an order to work with.
    return a < b || std::isnan(a) ? kCFCompareLessThan : kCFCompareGreaterThan;
}
