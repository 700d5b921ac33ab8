#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <limits>

using namespace Objects;

namespace {

CF::Pointer<CFDateRef> At(CFAbsoluteTime time) { return Adopt(CFDateCreate(nullptr, time)); }

std::string TextAt(CFAbsoluteTime time) { return Description(At(time).get()); }

// The C library's calendar as the oracle.
std::string CalendarText(std::int64_t unixSeconds) {
    const std::time_t seconds = unixSeconds;
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d +0000", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

} // namespace

TEST(CFDate, KeepsItsTime) {
    for (const double time : {0.0, -1e9, 123456789.125, 1e300}) {
        EXPECT_EQ(CFDateGetAbsoluteTime(At(time).get()), time);
    }
    EXPECT_EQ(CFGetTypeID(At(0).get()), CFDateGetTypeID());
}

TEST(CFDate, CountsFromTheReferenceDate) {
    EXPECT_EQ(kCFAbsoluteTimeIntervalSince1970, 978307200.0);
    EXPECT_EQ(kCFAbsoluteTimeIntervalSince1904, 3061152000.0);
    EXPECT_EQ(CalendarText(978307200), "2001-01-01 00:00:00 +0000");
}

TEST(CFDate, ReadsTheSystemsClock) {
    const auto before = static_cast<double>(std::time(nullptr));
    const double now = CFAbsoluteTimeGetCurrent() + kCFAbsoluteTimeIntervalSince1970;
    const auto after = static_cast<double>(std::time(nullptr));
    // time() may lag a clock tick behind.
    EXPECT_GE(now, before);
    EXPECT_LE(now, after + 2);
}

TEST(CFDate, TellsTheTimeBetweenDates) {
    EXPECT_EQ(CFDateGetTimeIntervalSinceDate(At(5).get(), At(7.5).get()), -2.5);
}

TEST(CFDate, OrdersEarlierFirst) {
    EXPECT_EQ(CFDateCompare(At(1).get(), At(2).get(), nullptr), kCFCompareLessThan);
    EXPECT_EQ(CFDateCompare(At(2).get(), At(1).get(), nullptr), kCFCompareGreaterThan);
    EXPECT_EQ(CFDateCompare(At(2).get(), At(2).get(), nullptr), kCFCompareEqualTo);
    EXPECT_EQ(CFDateCompare(At(kNaN).get(), At(-1e9).get(), nullptr), kCFCompareLessThan);
    EXPECT_EQ(CFDateCompare(At(-1e9).get(), At(kNaN).get(), nullptr), kCFCompareGreaterThan);
}

TEST(CFDate, IsEqualByTime) {
    EXPECT_TRUE(CFEqual(At(1.5).get(), At(1.5).get()));
    EXPECT_EQ(CFHash(At(1.5).get()), CFHash(At(1.5).get()));
    EXPECT_FALSE(CFEqual(At(1.5).get(), At(1.25).get()));
    EXPECT_TRUE(CFEqual(At(0.0).get(), At(-0.0).get()));
    EXPECT_EQ(CFHash(At(0.0).get()), CFHash(At(-0.0).get()));
    EXPECT_TRUE(CFEqual(At(kNaN).get(), At(kNaN).get()));
}

TEST(CFDate, DescribesItselfInUTC) {
    EXPECT_EQ(TextAt(0), "2001-01-01 00:00:00 +0000");
    EXPECT_EQ(TextAt(-0.25), "2000-12-31 23:59:59 +0000");
    EXPECT_EQ(TextAt(-978307200), "1970-01-01 00:00:00 +0000");
    EXPECT_EQ(TextAt(1160000000.9), "2037-10-04 22:13:20 +0000");
}

TEST(CFDate, DescribesDaysLikeTheCLibrary) {
    // Over four centuries, at a step that meets every day of the year and hour.
    for (std::int64_t second = -8'000'000'000; second < 8'000'000'000; second += 1'234'567) {
        ASSERT_EQ(TextAt(static_cast<double>(second - 978307200)), CalendarText(second));
    }
}

TEST(CFDate, DescribesTimesWithoutACalendarDay) {
    EXPECT_EQ(TextAt(1e300), "<absolute time 1e+300>");
    EXPECT_EQ(TextAt(-std::numeric_limits<double>::infinity()), "<absolute time -inf>");
    EXPECT_NE(TextAt(kNaN).find("nan"), std::string::npos);
    EXPECT_EQ(TextAt(-1e15), CalendarText(-1'000'000'000'000'000 + 978307200));
}

TEST(CFDate, TakesOneAllocation) {
    CountingAllocator counting;
    CFRelease(CFDateCreate(counting.get(), 5));
    EXPECT_EQ(counting.allocations, 1);
    EXPECT_EQ(counting.live, 0);
}

TEST(CFDateDeathTest, RefusesNull) {
    EXPECT_DEATH(CFDateGetAbsoluteTime(nullptr), "CFDateGetAbsoluteTime|null object");
}
