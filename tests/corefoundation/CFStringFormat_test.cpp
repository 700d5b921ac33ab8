#include "tests/corefoundation/TestClass.hpp"

#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <cfloat>
#include <cinttypes>
#include <climits>
#include <clocale>
#include <cstdio>

namespace {

using Objects::Adopt;
using Objects::String;
using Objects::UTF8;

template <class... Args>
std::string format(const char *pattern, Args... args) {
    return UTF8(
        Adopt(CFStringCreateWithFormat(nullptr, nullptr, String(pattern).get(), args...)).get());
}

// What the C library makes of the same format.
template <class... Args>
std::string printed(const char *pattern, Args... args) {
    char text[2048];
    std::snprintf(text, sizeof(text), pattern, args...);
    return text;
}

template <class... Args>
void expectAsPrintf(const char *pattern, Args... args) {
    EXPECT_EQ(format(pattern, args...), printed(pattern, args...)) << pattern;
}

TEST(CFStringFormat, CopiesPlainText) {
    EXPECT_EQ(format(""), "");
    EXPECT_EQ(format("plain \u00e9\U0001F600"), "plain \u00e9\U0001F600");
    EXPECT_EQ(format("100%% of 5%%"), "100% of 5%");
}

TEST(CFStringFormat, FormatsSignedIntegersAsPrintf) {
    for (const char *pattern : {"%d", "%i", "%5d|", "%-5d|", "%05d|", "%+d", "% d", "%.4d",
                                "%8.4d|", "%-8.4d|", "%08.4d|", "%.0d"}) {
        for (const int value : {0, 1, -1, 42, INT_MAX, INT_MIN}) {
            expectAsPrintf(pattern, value);
        }
    }
}

TEST(CFStringFormat, FormatsUnsignedIntegersAsPrintf) {
    for (const char *pattern :
         {"%u", "%x", "%X", "%o", "%#x", "%#X", "%#o", "%08x", "%-8x|", "%#10x|", "%.8x", "%.0x"}) {
        for (const unsigned value : {0U, 1U, 42U, 0xDEADBEEFU, UINT_MAX}) {
            expectAsPrintf(pattern, value);
        }
    }
}

TEST(CFStringFormat, HonoursLengthModifiers) {
    for (const char *pattern : {"%hhd", "%hd", "%hhu", "%hu", "%hhx", "%ho"}) {
        for (const int value : {0, 127, 128, 255, 256, -1, 32768, 65535, 65536}) {
            expectAsPrintf(pattern, value);
        }
    }
    for (const char *pattern : {"%ld", "%lu", "%lx", "%lX", "%lo", "%li"}) {
        for (const long value : {0L, -1L, LONG_MAX, LONG_MIN}) {
            expectAsPrintf(pattern, value);
        }
    }
    for (const char *pattern : {"%lld", "%llu", "%llx", "%qd", "%020lld"}) {
        for (const long long value : {0LL, -1LL, LLONG_MAX, LLONG_MIN}) {
            expectAsPrintf(pattern, value);
        }
    }
    expectAsPrintf("%zu %zd %jd %td", ~std::size_t{0}, ssize_t{-5}, INTMAX_MIN, PTRDIFF_MAX);
    EXPECT_EQ(format("%D %U %O", -1L, 8L, 8L), "-1 8 10");
}

TEST(CFStringFormat, FormatsRealNumbersAsPrintf) {
    for (const char *pattern :
         {"%f", "%F", "%e", "%E", "%g", "%G", "%a", "%A", "%.0f", "%.1f", "%10.3f|", "%-10.3f|",
          "%010.3f|", "%+f", "% f", "%#.0f", "%#g", "%.20g", "%.300f"}) {
        for (const double value : {0.0, -0.0, 1.0, -1.5, 3.14159, 1e100, 1e-100, DBL_MAX, DBL_MIN,
                                   1.0 / 0.0, -1.0 / 0.0}) {
            expectAsPrintf(pattern, value);
        }
    }
    expectAsPrintf("%Lf %.3Lg %d", 1.25L, 1e300L, 7);
}

TEST(CFStringFormat, KeepsThePointInEveryLocale) {
    const char *before = std::setlocale(LC_NUMERIC, nullptr);
    const std::string kept = before;
    for (const char *name : {"de_DE.UTF-8", "fr_FR.UTF-8", "C"}) {
        std::setlocale(LC_NUMERIC, name); // may not be installed
        EXPECT_EQ(format("%.1f", 1.5), "1.5");
    }
    std::setlocale(LC_NUMERIC, kept.c_str());
}

TEST(CFStringFormat, TakesWidthAndPrecisionFromArguments) {
    expectAsPrintf("%*d|%-*d|%.*f|%*.*f|", 6, 1, 6, 2, 2, 1.2345, 8, 3, 2.5);
    expectAsPrintf("%*d|", -6, 1);
    expectAsPrintf("%.*d|", -1, 1);
    EXPECT_EQ(format("%*s|%.*s|%*@|", 4, "ab", 1, "cd", 5, CFSTR("xy")), "  ab|c|   xy|");
}

TEST(CFStringFormat, FormatsWidthsBeyondAnyFixedBuffer) {
    const std::string wide = format("%5000d|", 7);
    EXPECT_EQ(wide, std::string(4999, ' ') + "7|");
    EXPECT_EQ(format("%-5000s|", "a"), "a" + std::string(4999, ' ') + "|");
    EXPECT_EQ(format("%.3000d", 1), std::string(2999, '0') + "1");
}

TEST(CFStringFormat, FormatsPointers) {
    EXPECT_EQ(format("%p", reinterpret_cast<void *>(std::uintptr_t{0x1F})), "0x1f");
    EXPECT_EQ(format("%p", static_cast<void *>(nullptr)), "0x0");
    EXPECT_EQ(format("%8p|%-8p|", reinterpret_cast<void *>(std::uintptr_t{1}),
                     reinterpret_cast<void *>(std::uintptr_t{2})),
              "     0x1|0x2     |");
    EXPECT_EQ(format("%p", reinterpret_cast<void *>(UINTPTR_MAX)), "0xffffffffffffffff");
}

TEST(CFStringFormat, FormatsCharacters) {
    EXPECT_EQ(format("%c%c%c", 'a', 0xE9, 'c'), "a\u00e9c");
    EXPECT_EQ(format("%C%lc", 0x20AC, 0x41), "\u20acA");
    EXPECT_EQ(format("%3c|%-3c|", 'x', 'y'), "  x|y  |");
    EXPECT_EQ(format("a%cb", 0), std::string("a\0b", 3));
}

TEST(CFStringFormat, FormatsCStrings) {
    EXPECT_EQ(format("%s", "h\u00e9\U0001F600"), "h\u00e9\U0001F600");
    EXPECT_EQ(format("%s|%5s|%-5s|%.2s|", "abc", "abc", "abc", "abc"), "abc|  abc|abc  |ab|");
    EXPECT_EQ(format("%s", static_cast<const char *>(nullptr)), "(null)");
}

TEST(CFStringFormat, ReplacesIllFormedBytesOfCStrings) {
    EXPECT_EQ(format("%s", "a\xff"
                           "b"),
              "a\uFFFDb");
    EXPECT_EQ(format("%s", "\xe2\x82"), "\uFFFD");
    EXPECT_EQ(format("%s", "\xed\xa0\x80"), "\uFFFD\uFFFD\uFFFD");
}

TEST(CFStringFormat, CutsCStringsBetweenCharacters) {
    const char *text = "a\u20acb"; // 1, 3 and 1 bytes
    EXPECT_EQ(format("%.1s", text), "a");
    EXPECT_EQ(format("%.2s", text), "a");
    EXPECT_EQ(format("%.3s", text), "a");
    EXPECT_EQ(format("%.4s", text), "a\u20ac");
    EXPECT_EQ(format("%.2s", "\xff\xff\xff"), "\uFFFD\uFFFD");
}

TEST(CFStringFormat, ReadsNoMoreBytesThanThePrecisionAllows) {
    const std::vector<char> unterminated = {'a', 'b', 'c'};
    EXPECT_EQ(format("%.3s", unterminated.data()), "abc");
    EXPECT_EQ(format("%.0s", unterminated.data() + 3), "");
}

TEST(CFStringFormat, FormatsUnitStrings) {
    EXPECT_EQ(format("%S|%ls|%.1S|%3S|", u"\u00e9x", u"y", u"zz", u"w"), "\u00e9x|y|z|  w|");
    EXPECT_EQ(format("%S", static_cast<const UniChar *>(nullptr)), "(null)");
}

TEST(CFStringFormat, FormatsStringObjectsAsTheirText) {
    EXPECT_EQ(format("[%@]", CFSTR("h\u00e9\U0001F600")), "[h\u00e9\U0001F600]");
    const auto changing = Adopt(CFStringCreateMutableCopy(nullptr, 0, CFSTR("mutable")));
    EXPECT_EQ(format("%@", changing.get()), "mutable");
    EXPECT_EQ(format("%@", CFTypeRef{nullptr}), "(null)");
}

TEST(CFStringFormat, PadsAndCutsObjectsByUnits) {
    EXPECT_EQ(format("%5@|%-5@|%.2@|", CFSTR("abc"), CFSTR("abc"), CFSTR("abc")),
              "  abc|abc  |ab|");
    EXPECT_EQ(format("%.2@|", CFSTR("a\U0001F600")), "a|");
    EXPECT_EQ(format("%.3@|", CFSTR("a\U0001F600")), "a\U0001F600|");
    EXPECT_EQ(format("%.3@|", CFTypeRef{nullptr}), "(nu|");
}

TEST(CFStringFormat, FormatsOtherObjectsByTheirDescription) {
    EXPECT_EQ(format("%@", kCFNull), "<null>");
    static constexpr CFRuntimeClass record = {
        0,       "TestFormatted",          nullptr, nullptr, nullptr, nullptr,
        nullptr, TestClass::CopyFormatted, nullptr};
    const auto object = Adopt(TestClass::Create(_CFRuntimeRegisterClass(&record), 3));
    EXPECT_EQ(format("%@ %d", object.get(), 1), "formatted 3 1");
}

TEST(CFStringFormat, HandsItsOptionsToTheCallback) {
    static constexpr CFRuntimeClass record = {
        0,       "TestOptions", nullptr, nullptr,
        nullptr, nullptr,       nullptr, TestClass::CopyFormatted,
        nullptr};
    const auto object = Adopt(TestClass::Create(_CFRuntimeRegisterClass(&record), 3));
    const auto options =
        Adopt(CFDictionaryCreate(nullptr, nullptr, nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                 &kCFTypeDictionaryValueCallBacks));
    const auto text =
        Adopt(CFStringCreateWithFormat(nullptr, options.get(), CFSTR("%@"), object.get()));
    EXPECT_EQ(UTF8(text.get()), "formatted 3 with options");
}

TEST(CFStringFormat, FormatsAClassWithoutDescriptionByNameAndAddress) {
    static constexpr CFRuntimeClass record = {0,       "TestBare", nullptr, nullptr, nullptr,
                                              nullptr, nullptr,    nullptr, nullptr};
    const auto object = Adopt(TestClass::Create(_CFRuntimeRegisterClass(&record)));
    EXPECT_EQ(format("%@", object.get()), printed("<TestBare %p>", object.get()));
}

TEST(CFStringFormat, TakesArgumentsByPosition) {
    EXPECT_EQ(format("%2$@ %1$d", 7, CFSTR("x")), "x 7");
    EXPECT_EQ(format("%1$s %1$s %2$s", "a", "b"), "a a b");
    EXPECT_EQ(format("%3$s %1$f %2$lld", 1.5, -1LL, "c"), "c 1.500000 -1");
    EXPECT_EQ(format("%1$*2$d|%1$-*2$d|%3$.*4$f", 5, 4, 1.25, 1), "   5|5   |1.2");
    EXPECT_EQ(format("%2$d", 1, 2), "2");
}

TEST(CFStringFormat, TakesManyArgumentsOfEveryKind) {
    EXPECT_EQ(format("%d %f %d %s %d %f %@ %lld %d %f %c %u %Lf %d %s", 1, 2.0, 3, "4", 5, 6.0,
                     CFSTR("7"), 8LL, 9, 10.0, 'b', 12U, 13.0L, 14, "15"),
              "1 2.000000 3 4 5 6.000000 7 8 9 10.000000 b 12 13.000000 14 15");
}

TEST(CFStringFormat, CopiesUnknownConversionsWithoutTakingAnArgument) {
    EXPECT_EQ(format("%n|%d", 5), "%n|5");
    EXPECT_EQ(format("%y %d", 5), "%y 5");
    EXPECT_EQ(format("%5.3w|%d", 5), "%5.3w|5");
    EXPECT_EQ(format("%*y%d", 5), "%*y5");
    EXPECT_EQ(format("end%"), "end%");
    EXPECT_EQ(format("end%5"), "end%5");
    EXPECT_EQ(format("end%ll"), "end%ll");
    EXPECT_EQ(format("%\u00e9%d", 5), "%\u00e95");
    EXPECT_EQ(format("%0$d%d", 5), "%0$d5");
}

TEST(CFStringFormat, BoundsPositions) {
    EXPECT_EQ(format("%257$d|%d", 5), "%257$d|5");
    EXPECT_EQ(format("%99999999999999999999$d|%d", 5), "%99999999999999999999$d|5");
    EXPECT_EQ(format("%1$*300$d"), "%1$*300$d");
}

TEST(CFStringFormat, BoundsWidthsAndDigits) {
    constexpr std::size_t bound = 1 << 20;
    EXPECT_EQ(format("%2147483647d", 1).size(), bound);
    EXPECT_EQ(format("%99999999999999999999s", "a").size(), bound);
    EXPECT_EQ(format("%*d", INT_MIN, 1).size(), bound);
    EXPECT_EQ(format("%.2147483647d", 1).size(), bound);
    EXPECT_EQ(format("%.*f", INT_MAX, 0.5).size(), bound + 2);
}

TEST(CFStringFormat, DoesNotBoundTextByItsPrecision) {
    const std::string text(3 << 20, 'x');
    EXPECT_EQ(format("%.2147483647s", text.c_str()).size(), text.size());
    EXPECT_EQ(format("%.3000000@", String(text).get()).size(), 3000000U);
}

TEST(CFStringFormat, AppendsToMutableStrings) {
    const auto text = Adopt(CFStringCreateMutableCopy(nullptr, 0, CFSTR("a")));
    CFStringAppendFormat(text.get(), nullptr, CFSTR("%d%s"), 1, "\u00e9");
    CFStringAppendFormat(text.get(), nullptr, CFSTR("[%@]"), text.get());
    EXPECT_EQ(UTF8(text.get()), "a1\u00e9[a1\u00e9]");
}

TEST(CFStringFormat, AcceptsFormatsThatAreNotASCII) {
    EXPECT_EQ(format("\u00e9%d\u20ac%s\U0001F600", 1, "x"), "\u00e91\u20acx\U0001F600");
}

} // namespace
