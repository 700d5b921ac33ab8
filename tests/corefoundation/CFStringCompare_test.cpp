#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <random>

namespace {

using Objects::Adopt;
using Objects::String;

CFComparisonResult compare(const char *a, const char *b, CFStringCompareFlags options = 0) {
    const CFComparisonResult result = CFStringCompare(String(a).get(), String(b).get(), options);
    EXPECT_EQ(CFStringCompare(String(b).get(), String(a).get(), options), -result);
    return result;
}

TEST(CFStringCompare, OrdersByUTF16Units) {
    EXPECT_EQ(compare("a", "b"), kCFCompareLessThan);
    EXPECT_EQ(compare("b", "a"), kCFCompareGreaterThan);
    EXPECT_EQ(compare("a", "a"), kCFCompareEqualTo);
    EXPECT_EQ(compare("", ""), kCFCompareEqualTo);
    EXPECT_EQ(compare("A", "a"), kCFCompareLessThan);
    EXPECT_EQ(compare("z", "\u00e9"), kCFCompareLessThan);
}

TEST(CFStringCompare, PutsEmojiBeforeFullWidthLetters) {
    // By their UTF-8 bytes it is the other way round.
    EXPECT_EQ(compare("\U0001F600", "\uFF41"), kCFCompareLessThan);
    EXPECT_EQ(compare("x\U0001F600", "x\uFF41"), kCFCompareLessThan);
}

TEST(CFStringCompare, PutsAPrefixFirst) {
    EXPECT_EQ(compare("ab", "abc"), kCFCompareLessThan);
    EXPECT_EQ(compare("", "a"), kCFCompareLessThan);
    EXPECT_EQ(compare("ab", "ab\u00e9"), kCFCompareLessThan);
}

TEST(CFStringCompare, OrdersMixedStorageAsItsUnits) {
    std::mt19937 random(7);
    const std::u16string alphabet = u"ab\u00e9\uFF41\xD83D";
    const auto make = [&] {
        std::u16string text;
        for (auto left = random() % 4; left > 0; --left) {
            text += alphabet[random() % alphabet.size()];
        }
        return text;
    };
    for (int round = 0; round < 3000; ++round) {
        const std::u16string a = make();
        const std::u16string b = make();
        const auto object = [](const std::u16string &text) {
            return Adopt(CFStringCreateWithCharacters(
                nullptr, reinterpret_cast<const UniChar *>(text.data()),
                static_cast<CFIndex>(text.size())));
        };
        const int expected = a.compare(b);
        ASSERT_EQ(CFStringCompare(object(a).get(), object(b).get(), 0),
                  expected < 0 ? -1 : static_cast<CFIndex>(expected > 0));
    }
}

TEST(CFStringCompare, IgnoresCaseOnRequest) {
    constexpr auto option = kCFCompareCaseInsensitive;
    EXPECT_EQ(compare("HeLLo", "hEllO", option), kCFCompareEqualTo);
    EXPECT_EQ(compare("\u00c9\u0416", "\u00e9\u0436", option), kCFCompareEqualTo);
    EXPECT_EQ(compare("\U00010400", "\U00010428", option), kCFCompareEqualTo);
    EXPECT_EQ(compare("\u03c3", "\u03c2", option), kCFCompareEqualTo);
    EXPECT_EQ(compare("B", "a", option), kCFCompareGreaterThan);
    EXPECT_EQ(compare("[", "a", option), kCFCompareLessThan);
    EXPECT_EQ(compare("abc", "ABCD", option), kCFCompareLessThan);
}

TEST(CFStringCompare, OrdersNumbersByValueOnRequest) {
    constexpr auto option = kCFCompareNumerically;
    EXPECT_EQ(compare("file2", "file10", option), kCFCompareLessThan);
    EXPECT_EQ(compare("file10", "file10", option), kCFCompareEqualTo);
    EXPECT_EQ(compare("a010b", "a10c", option), kCFCompareLessThan);
    EXPECT_EQ(compare("007", "7", option), kCFCompareEqualTo);
    EXPECT_EQ(compare("1.9", "1.10", option), kCFCompareLessThan);
    EXPECT_EQ(compare("0", "", option), kCFCompareGreaterThan);
    EXPECT_EQ(compare("99999999999999999999998", "99999999999999999999999", option),
              kCFCompareLessThan);
    EXPECT_EQ(compare("A2", "a10", option | kCFCompareCaseInsensitive), kCFCompareLessThan);
}

TEST(CFStringCompare, BreaksTiesOnRequest) {
    EXPECT_EQ(compare("a", "A", kCFCompareCaseInsensitive | kCFCompareForcedOrdering),
              kCFCompareGreaterThan);
    EXPECT_EQ(compare("007", "7", kCFCompareNumerically | kCFCompareForcedOrdering),
              kCFCompareLessThan);
}

TEST(CFStringCompare, ComparesARangeOfTheFirstString) {
    EXPECT_EQ(CFStringCompareWithOptions(CFSTR("xaby"), CFSTR("ab"), CFRangeMake(1, 2), 0),
              kCFCompareEqualTo);
    EXPECT_EQ(CFStringCompareWithOptions(CFSTR("xaby"), CFSTR("ab"), CFRangeMake(1, 3), 0),
              kCFCompareGreaterThan);
}

// ---- searching ----

CFIndex find(const char *text, const char *pattern, CFStringCompareFlags options = 0) {
    const auto string = String(text);
    const auto wanted = String(pattern);
    const CFRange found = CFStringFind(string.get(), wanted.get(), options);
    EXPECT_EQ(found.length, found.location == kCFNotFound ? 0 : CFStringGetLength(wanted.get()));
    return found.location;
}

TEST(CFStringFind, FindsTheFirstOccurrence) {
    EXPECT_EQ(find("abcabc", "bc"), 1);
    EXPECT_EQ(find("abcabc", "abcabc"), 0);
    EXPECT_EQ(find("abcabc", "x"), kCFNotFound);
    EXPECT_EQ(find("ab", "abc"), kCFNotFound);
    EXPECT_EQ(find("\u00e9abc", "bc"), 2);
    EXPECT_EQ(find("a\u00e9b\u00e9b", "\u00e9b"), 1);
    EXPECT_EQ(find("ab", "\u00e9"), kCFNotFound);
}

TEST(CFStringFind, FindsTheLastOccurrenceBackwards) {
    EXPECT_EQ(find("abcabc", "bc", kCFCompareBackwards), 4);
    EXPECT_EQ(find("\u00e9bc\u00e9bc", "bc", kCFCompareBackwards), 4);
    EXPECT_EQ(find("abc", "x", kCFCompareBackwards), kCFNotFound);
}

TEST(CFStringFind, NeverFindsTheEmptyString) {
    EXPECT_EQ(find("abc", ""), kCFNotFound);
    EXPECT_EQ(find("", ""), kCFNotFound);
    EXPECT_EQ(find("abc", "", kCFCompareAnchored), kCFNotFound);
}

TEST(CFStringFind, MatchesOnlyAtTheEndsWhenAnchored) {
    constexpr auto anchoredBackwards = kCFCompareAnchored | kCFCompareBackwards;
    EXPECT_EQ(find("abcab", "ab", kCFCompareAnchored), 0);
    EXPECT_EQ(find("abcab", "bc", kCFCompareAnchored), kCFNotFound);
    EXPECT_EQ(find("abcab", "ab", anchoredBackwards), 3);
    EXPECT_EQ(find("abcab", "bc", anchoredBackwards), kCFNotFound);
}

TEST(CFStringFind, IgnoresCaseOnRequest) {
    EXPECT_EQ(find("xABy", "ab", kCFCompareCaseInsensitive), 1);
    EXPECT_EQ(find("x\u00c9y", "\u00e9Y", kCFCompareCaseInsensitive), 1);
    EXPECT_EQ(find("x\U00010400y", "\U00010428", kCFCompareCaseInsensitive), 1);
}

TEST(CFStringFind, StaysWithinItsRange) {
    CFStringRef text = CFSTR("abcabcabc");
    CFRange found = CFRangeMake(-7, -7);
    EXPECT_TRUE(CFStringFindWithOptions(text, CFSTR("abc"), CFRangeMake(1, 8), 0, &found));
    EXPECT_EQ(found.location, 3);
    EXPECT_TRUE(CFStringFindWithOptions(text, CFSTR("abc"), CFRangeMake(0, 8), kCFCompareBackwards,
                                        &found));
    EXPECT_EQ(found.location, 3);
    EXPECT_FALSE(CFStringFindWithOptions(text, CFSTR("abc"), CFRangeMake(1, 4), 0, &found));
    EXPECT_EQ(found.location, 3); // left alone
    EXPECT_TRUE(CFStringFindWithOptions(text, CFSTR("abc"), CFRangeMake(3, 3), 0, nullptr));
}

TEST(CFStringFind, AgreesWithASearchByHand) {
    std::mt19937 random(11);
    for (int round = 0; round < 2000; ++round) {
        std::string text;
        std::string pattern;
        for (auto left = random() % 12; left > 0; --left) {
            text += static_cast<char>('a' + random() % 2);
        }
        for (auto left = 1 + random() % 3; left > 0; --left) {
            pattern += static_cast<char>('a' + random() % 2);
        }
        const auto index = [](std::size_t at) {
            return at == std::string::npos ? CFIndex{kCFNotFound} : static_cast<CFIndex>(at);
        };
        ASSERT_EQ(find(text.c_str(), pattern.c_str()), index(text.find(pattern)));
        ASSERT_EQ(find(text.c_str(), pattern.c_str(), kCFCompareBackwards),
                  index(text.rfind(pattern)));
        // The same with text that is stored wide.
        ASSERT_EQ(find((text + "\u00e9").c_str(), pattern.c_str()), index(text.find(pattern)));
    }
}

TEST(CFStringFind, KnowsPrefixesAndSuffixes) {
    EXPECT_TRUE(CFStringHasPrefix(CFSTR("abc"), CFSTR("ab")));
    EXPECT_TRUE(CFStringHasPrefix(CFSTR("abc"), CFSTR("abc")));
    EXPECT_FALSE(CFStringHasPrefix(CFSTR("abc"), CFSTR("bc")));
    EXPECT_FALSE(CFStringHasPrefix(CFSTR("ab"), CFSTR("abc")));
    EXPECT_FALSE(CFStringHasPrefix(CFSTR("abc"), CFSTR("")));
    EXPECT_TRUE(CFStringHasSuffix(CFSTR("abc"), CFSTR("bc")));
    EXPECT_FALSE(CFStringHasSuffix(CFSTR("abc"), CFSTR("ab")));
    EXPECT_FALSE(CFStringHasSuffix(CFSTR("abc"), CFSTR("")));
}

} // namespace
