#include "tests/corefoundation/Objects.hpp"
#include "tests/support/RunCommand.hpp"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

namespace {

using Objects::Adopt;
using Objects::String;
using Objects::UTF8;
using MutablePointer = CF::Pointer<CFMutableStringRef>;

MutablePointer makeMutable(const char *utf8) {
    return Adopt(CFStringCreateMutableCopy(nullptr, 0, String(utf8).get()));
}

TEST(CFMutableString, StartsEmpty) {
    for (const CFIndex maxLength : {0L, 5L, INT64_MAX}) {
        const auto text = Adopt(CFStringCreateMutable(nullptr, maxLength));
        EXPECT_EQ(CFStringGetLength(text.get()), 0);
        EXPECT_TRUE(CFEqual(text.get(), CFSTR("")));
        EXPECT_EQ(CFGetTypeID(text.get()), CFStringGetTypeID());
    }
}

TEST(CFMutableString, Appends) {
    const auto text = makeMutable("a");
    CFStringAppend(text.get(), CFSTR("b"));
    CFStringAppend(text.get(), CFSTR("\u00e9"));
    CFStringAppend(text.get(), CFSTR("c"));
    const UniChar units[] = {'d', 0xD83D, 0xDE00};
    CFStringAppendCharacters(text.get(), units, 3);
    CFStringAppendCharacters(text.get(), nullptr, 0);
    CFStringAppendCString(text.get(), "\xe9", kCFStringEncodingISOLatin1);
    CFStringAppendCString(text.get(), "\xe9", kCFStringEncodingUTF8); // ill-formed: nothing
    EXPECT_EQ(UTF8(text.get()), "ab\u00e9cd\U0001F600\u00e9");
}

TEST(CFMutableString, AppendsItself) {
    const auto text = makeMutable("ab");
    for (int i = 0; i < 8; ++i) {
        CFStringAppend(text.get(), text.get());
    }
    EXPECT_EQ(CFStringGetLength(text.get()), 512);
    EXPECT_EQ(CFStringGetCharacterAtIndex(text.get(), 511), 'b');
}

TEST(CFMutableString, InsertsDeletesAndReplaces) {
    const auto text = makeMutable("abcd");
    CFStringInsert(text.get(), 0, CFSTR("<"));
    CFStringInsert(text.get(), 5, CFSTR(">"));
    EXPECT_EQ(UTF8(text.get()), "<abcd>");
    CFStringDelete(text.get(), CFRangeMake(1, 2));
    EXPECT_EQ(UTF8(text.get()), "<cd>");
    CFStringReplace(text.get(), CFRangeMake(1, 1), CFSTR("\u20acxyz"));
    EXPECT_EQ(UTF8(text.get()), "<\u20acxyzd>");
    CFStringReplace(text.get(), CFRangeMake(1, 5), text.get());
    EXPECT_EQ(UTF8(text.get()), "<<\u20acxyzd>>");
    CFStringReplaceAll(text.get(), CFSTR("new"));
    EXPECT_EQ(UTF8(text.get()), "new");
}

TEST(CFMutableString, BecomesNarrowAgainWhenEmptied) {
    const auto text = makeMutable("\u00e9");
    EXPECT_NE(CFStringGetCharactersPtr(text.get()), nullptr);
    CFStringDelete(text.get(), CFRangeMake(0, 1));
    CFStringAppend(text.get(), CFSTR("ascii"));
    EXPECT_STREQ(CFStringGetCStringPtr(text.get(), kCFStringEncodingUTF8), "ascii");
}

TEST(CFMutableString, ChangesAsAStringOfUnitsWould) {
    std::mt19937 random(3);
    const auto text = Adopt(CFStringCreateMutable(nullptr, 0));
    std::u16string model;
    const std::vector<std::u16string> pieces = {
        u"", u"a", u"bcd", u"\u00e9", u"\U0001F600xyz", std::u16string(100, u'q')};
    for (int step = 0; step < 5000; ++step) {
        const auto location = random() % (model.size() + 1);
        const auto length = std::min<std::size_t>(random() % 40, model.size() - location);
        const std::u16string &piece = pieces[random() % pieces.size()];
        const auto object = Adopt(
            CFStringCreateWithCharacters(nullptr, reinterpret_cast<const UniChar *>(piece.data()),
                                         static_cast<CFIndex>(piece.size())));
        CFStringReplace(text.get(),
                        CFRangeMake(static_cast<CFIndex>(location), static_cast<CFIndex>(length)),
                        object.get());
        model.replace(location, length, piece);
        const auto expected = Adopt(
            CFStringCreateWithCharacters(nullptr, reinterpret_cast<const UniChar *>(model.data()),
                                         static_cast<CFIndex>(model.size())));
        ASSERT_TRUE(CFEqual(text.get(), expected.get())) << step;
        ASSERT_EQ(CFHash(text.get()), CFHash(expected.get())) << step;
    }
}

// ---- find and replace ----

struct Replaced {
    CFIndex count;
    std::string text;
    bool operator==(const Replaced &) const = default;
};

Replaced replaceIn(const char *utf8, CFStringRef find, CFStringRef replacement,
                   CFStringCompareFlags options = 0, CFRange range = {0, -1}) {
    const auto text = makeMutable(utf8);
    if (range.length < 0) {
        range = CFRangeMake(0, CFStringGetLength(text.get()));
    }
    const CFIndex count = CFStringFindAndReplace(text.get(), find, replacement, range, options);
    return {count, UTF8(text.get())};
}

TEST(CFMutableString, ReplacesOccurrences) {
    EXPECT_EQ(replaceIn("a.b.c", CFSTR("."), CFSTR("--")), (Replaced{2, "a--b--c"}));
    EXPECT_EQ(replaceIn("aaa", CFSTR("aa"), CFSTR("b")), (Replaced{1, "ba"}));
    EXPECT_EQ(replaceIn("aaa", CFSTR("aa"), CFSTR("b"), kCFCompareBackwards), (Replaced{1, "ab"}));
    EXPECT_EQ(replaceIn("aXbx", CFSTR("x"), CFSTR("\u00e9"), kCFCompareCaseInsensitive),
              (Replaced{2, "a\u00e9b\u00e9"}));
    EXPECT_EQ(replaceIn("abab", CFSTR("ab"), CFSTR(""), kCFCompareAnchored), (Replaced{1, "ab"}));
    EXPECT_EQ(replaceIn("abc", CFSTR(""), CFSTR("x")), (Replaced{0, "abc"}));
    EXPECT_EQ(replaceIn("a", CFSTR("a"), CFSTR("aa")), (Replaced{1, "aa"}));
}

TEST(CFMutableString, ReplacesWithinARange) {
    EXPECT_EQ(replaceIn("xxxxx", CFSTR("x"), CFSTR("yz"), 0, CFRangeMake(1, 2)),
              (Replaced{2, "xyzyzxx"}));
}

TEST(CFMutableString, ReplacesWithItself) {
    const auto text = makeMutable("ab");
    EXPECT_EQ(CFStringFindAndReplace(text.get(), CFSTR("a"), text.get(), CFRangeMake(0, 2), 0), 1);
    EXPECT_EQ(UTF8(text.get()), "abb");
}

// ---- characters ----

std::string lower(const char *utf8) {
    const auto text = makeMutable(utf8);
    CFStringLowercase(text.get(), nullptr);
    return UTF8(text.get());
}

std::string upper(const char *utf8) {
    const auto text = makeMutable(utf8);
    CFStringUppercase(text.get(), nullptr);
    return UTF8(text.get());
}

TEST(CFMutableString, ChangesCase) {
    EXPECT_EQ(lower("HeLLo 1\u00c9\U00010400"), "hello 1\u00e9\U00010428");
    EXPECT_EQ(upper("HeLLo 1\u00e9\U00010428"), "HELLO 1\u00c9\U00010400");
    EXPECT_EQ(upper("stra\u00dfe \ufb03"), "STRASSE FFI");
    EXPECT_EQ(lower("\u0130"), "i\u0307");
    EXPECT_EQ(lower(""), "");
}

// Every character that has a case, through Python's str methods one by one.
TEST(CFMutableString, ChangesCaseOfAllCharactersAsPythonDoes) {
    const auto oracle = testing_support::RunPython(R"(
import sys
out = sys.stdout.buffer
for c in range(0x110000):
    if 0xD800 <= c < 0xE000: continue
    s = chr(c)
    if s.upper() != s or s.lower() != s:
        out.write((s + ' ' + s.upper() + ' ' + s.lower() + '\n').encode())
)");
    ASSERT_EQ(oracle.status, 0) << oracle.errors;
    std::istringstream lines(oracle.output);
    std::string character;
    std::string expectedUpper;
    std::string expectedLower;
    int count = 0;
    for (; lines >> character >> expectedUpper >> expectedLower; ++count) {
        ASSERT_EQ(upper(character.c_str()), expectedUpper) << character;
        ASSERT_EQ(lower(character.c_str()), expectedLower) << character;
    }
    EXPECT_GT(count, 2500);
}

TEST(CFMutableString, TrimsWhiteSpace) {
    const auto trimmed = [](const char *utf8) {
        const auto text = makeMutable(utf8);
        CFStringTrimWhitespace(text.get());
        return UTF8(text.get());
    };
    EXPECT_EQ(trimmed(" \t\r\na b\n "), "a b");
    EXPECT_EQ(trimmed("\u00a0\u3000x\u2028"), "x");
    EXPECT_EQ(trimmed("   "), "");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed("a"), "a");
}

TEST(CFMutableStringDeathTest, AbortsOnImmutableStrings) {
    auto *constant = const_cast<CFMutableStringRef>(CFSTR("constant"));
    EXPECT_DEATH(CFStringAppend(constant, CFSTR("x")), "CFStringAppend: the string is not mutable");
    EXPECT_DEATH(CFStringDelete(constant, CFRangeMake(0, 1)), "not mutable");
}

TEST(CFMutableStringDeathTest, AbortsOnRangesOutside) {
    const auto text = makeMutable("ab");
    EXPECT_DEATH(CFStringDelete(text.get(), CFRangeMake(1, 2)), "range outside");
    EXPECT_DEATH(CFStringInsert(text.get(), 3, CFSTR("x")), "range outside");
    EXPECT_DEATH(CFStringAppendCharacters(text.get(), nullptr, 1), "no characters");
}

} // namespace
