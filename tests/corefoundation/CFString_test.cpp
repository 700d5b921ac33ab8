#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>

namespace {

using Objects::Adopt;
using Objects::CountingAllocator;
using Objects::String;
using Objects::UTF8;
using StringPointer = CF::Pointer<CFStringRef>;

// Compiled here so that initialisation at namespace scope is exercised.
const CFStringRef kStaticConstant = CFSTR("static constant");

std::u16string units(CFStringRef string) {
    std::u16string result(static_cast<std::size_t>(CFStringGetLength(string)), u'\0');
    CFStringGetCharacters(string, CFRangeMake(0, CFStringGetLength(string)),
                          reinterpret_cast<UniChar *>(result.data()));
    return result;
}

const UniChar *unichars(const std::u16string &text) {
    return reinterpret_cast<const UniChar *>(text.data());
}

StringPointer fromUnits(const std::u16string &text) {
    return Adopt(
        CFStringCreateWithCharacters(nullptr, unichars(text), static_cast<CFIndex>(text.size())));
}

StringPointer mutableCopy(CFStringRef string) {
    return Adopt<CFStringRef>(CFStringCreateMutableCopy(nullptr, 0, string));
}

// ---- constants ----

TEST(CFStringConstant, IsOneObjectForOneText) {
    const std::string copy = "static constant";
    EXPECT_EQ(CFSTR("static constant"), kStaticConstant);
    EXPECT_EQ(__CFStringMakeConstantString(copy.c_str()), kStaticConstant);
    EXPECT_NE(CFSTR("another"), kStaticConstant);
}

TEST(CFStringConstant, IsImmortal) {
    const CFIndex count = CFGetRetainCount(kStaticConstant);
    CFRelease(kStaticConstant);
    CFRelease(kStaticConstant);
    EXPECT_EQ(CFGetRetainCount(kStaticConstant), count);
    EXPECT_EQ(UTF8(kStaticConstant), "static constant");
}

TEST(CFStringConstant, HoldsUnicode) {
    EXPECT_EQ(units(CFSTR("h\u00e9\U0001F600")), u"h\u00e9\U0001F600");
    EXPECT_EQ(units(CFSTR("a\xff")), u"a\uFFFD");
    EXPECT_EQ(CFStringGetLength(CFSTR("")), 0);
}

TEST(CFStringConstant, IsMadeOnceByManyThreads) {
    std::vector<CFStringRef> found(8);
    std::vector<std::thread> workers;
    for (CFStringRef &slot : found) {
        workers.emplace_back([&slot] {
            for (int i = 0; i < 200; ++i) {
                slot = __CFStringMakeConstantString(("race " + std::to_string(i)).c_str());
            }
        });
    }
    for (std::thread &worker : workers) {
        worker.join();
    }
    for (CFStringRef string : found) {
        EXPECT_EQ(string, __CFStringMakeConstantString("race 199"));
    }
}

// ---- creation and storage ----

TEST(CFString, CountsUTF16Units) {
    const auto string = String("a\u00e9\U0001F600");
    EXPECT_EQ(CFStringGetLength(string.get()), 4);
    EXPECT_EQ(CFStringGetCharacterAtIndex(string.get(), 0), u'a');
    EXPECT_EQ(CFStringGetCharacterAtIndex(string.get(), 1), 0xE9);
    EXPECT_EQ(CFStringGetCharacterAtIndex(string.get(), 2), 0xD83D);
    EXPECT_EQ(CFStringGetCharacterAtIndex(string.get(), 3), 0xDE00);
}

TEST(CFString, TakesOneAllocation) {
    for (const char *text : {"ASCII text", "not ASCII: \u00e9\U0001F600"}) {
        CountingAllocator allocator;
        const auto string =
            Adopt(CFStringCreateWithCString(allocator.get(), text, kCFStringEncodingUTF8));
        EXPECT_EQ(allocator.allocations, 1) << text;
        EXPECT_EQ(UTF8(string.get()), text);
    }
}

TEST(CFString, KeepsNULs) {
    const auto string = String(std::string_view("a\0b", 3));
    EXPECT_EQ(CFStringGetLength(string.get()), 3);
    EXPECT_EQ(UTF8(string.get()), std::string("a\0b", 3));
}

TEST(CFString, IsNotMadeOfNullOrNegativeLengths) {
    const UInt8 byte = 'a';
    const UniChar unit = 'a';
    EXPECT_EQ(CFStringCreateWithBytes(nullptr, &byte, -1, kCFStringEncodingUTF8, false), nullptr);
    EXPECT_EQ(CFStringCreateWithBytes(nullptr, nullptr, 1, kCFStringEncodingUTF8, false), nullptr);
    EXPECT_EQ(CFStringCreateWithBytesNoCopy(nullptr, &byte, -1, kCFStringEncodingUTF8, false,
                                            kCFAllocatorNull),
              nullptr);
    EXPECT_EQ(CFStringCreateWithCharacters(nullptr, &unit, -1), nullptr);
    EXPECT_EQ(CFStringCreateWithCharacters(nullptr, nullptr, 1), nullptr);
    EXPECT_EQ(CFStringCreateWithCharactersNoCopy(nullptr, nullptr, 1, kCFAllocatorNull), nullptr);
    EXPECT_EQ(CFStringCreateWithCString(nullptr, nullptr, kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(
        CFStringCreateWithCStringNoCopy(nullptr, nullptr, kCFStringEncodingUTF8, kCFAllocatorNull),
        nullptr);
}

TEST(CFString, IsEmptyOfNothing) {
    for (const auto &string :
         {Adopt(CFStringCreateWithBytes(nullptr, nullptr, 0, kCFStringEncodingUTF8, false)),
          Adopt(CFStringCreateWithCharacters(nullptr, nullptr, 0)), String(""),
          Adopt(CFStringCreateWithCharactersNoCopy(nullptr, nullptr, 0, kCFAllocatorNull))}) {
        EXPECT_EQ(CFStringGetLength(string.get()), 0);
        EXPECT_TRUE(CFEqual(string.get(), CFSTR("")));
        EXPECT_EQ(CFHash(string.get()), CFHash(CFSTR("")));
    }
}

TEST(CFString, KeepsLoneSurrogates) {
    const std::u16string text = {u'a', char16_t{0xD800}, u'b', char16_t{0xDC00}};
    EXPECT_EQ(units(fromUnits(text).get()), text);
}

// The same text in every way it can be stored.
std::vector<StringPointer> allStorages(const std::u16string &text) {
    const auto length = static_cast<CFIndex>(text.size());
    std::vector<StringPointer> result;
    result.push_back(fromUnits(text));
    result.push_back(Adopt(
        CFStringCreateWithCharactersNoCopy(nullptr, unichars(text), length, kCFAllocatorNull)));
    result.push_back(mutableCopy(result[0].get()));
    // A mutable string that has become wide keeps two bytes a unit.
    CFMutableStringRef widened = CFStringCreateMutable(nullptr, 0);
    CFStringAppend(widened, CFSTR("\u00e9"));
    CFStringAppendCharacters(widened, unichars(text), length);
    CFStringDelete(widened, CFRangeMake(0, 1));
    result.push_back(Adopt<CFStringRef>(widened));
    const auto padded = fromUnits(u"x" + text + u"\u00e9");
    result.push_back(
        Adopt(CFStringCreateWithSubstring(nullptr, padded.get(), CFRangeMake(1, length))));
    return result;
}

TEST(CFString, IsEqualHoweverStored) {
    std::u16string text;
    for (const char16_t last : {u'z', u'\u00e9', char16_t{0xD800}}) {
        for (std::size_t length = 1; length < 70; ++length) {
            text.assign(length - 1, u'q');
            text += last;
            const auto strings = allStorages(text);
            for (const auto &string : strings) {
                ASSERT_TRUE(CFEqual(strings[0].get(), string.get())) << length;
                ASSERT_TRUE(CFEqual(string.get(), strings[0].get())) << length;
                ASSERT_EQ(CFHash(strings[0].get()), CFHash(string.get())) << length;
                ASSERT_EQ(units(string.get()), text);
            }
        }
    }
}

TEST(CFString, DiffersWhenAnyUnitDoes) {
    for (std::size_t length = 1; length < 70; ++length) {
        const std::u16string text(length, u'q');
        const auto strings = allStorages(text);
        for (std::size_t i = 0; i < length; ++i) {
            std::u16string changed = text;
            changed[i] = u'r';
            for (const auto &other : allStorages(changed)) {
                ASSERT_FALSE(CFEqual(strings[i % strings.size()].get(), other.get()));
                ASSERT_NE(CFHash(strings[0].get()), CFHash(other.get()));
            }
        }
    }
}

TEST(CFString, HashesSpread) {
    std::vector<CFHashCode> hashes;
    for (int i = 0; i < 20000; ++i) {
        hashes.push_back(CFHash(String(std::to_string(i)).get()) & 0xFFFFFFFF);
    }
    std::sort(hashes.begin(), hashes.end());
    const auto repeats = hashes.end() - std::unique(hashes.begin(), hashes.end());
    EXPECT_LE(repeats, 3); // one in twenty runs has one
}

// ---- no-copy strings ----

TEST(CFStringNoCopy, UsesTheCallersBytesInPlace) {
    char text[] = "caller's";
    const auto string = Adopt(
        CFStringCreateWithCStringNoCopy(nullptr, text, kCFStringEncodingASCII, kCFAllocatorNull));
    EXPECT_EQ(CFStringGetCStringPtr(string.get(), kCFStringEncodingUTF8), text);
}

TEST(CFStringNoCopy, UsesTheCallersUnitsInPlace) {
    const std::u16string text = u"caller's";
    const auto string = Adopt(CFStringCreateWithCharactersNoCopy(
        nullptr, unichars(text), static_cast<CFIndex>(text.size()), kCFAllocatorNull));
    EXPECT_EQ(CFStringGetCharactersPtr(string.get()), unichars(text));
}

TEST(CFStringNoCopy, FreesItsContentsWithTheDeallocator) {
    CountingAllocator deallocator;
    auto *bytes = static_cast<UInt8 *>(CFAllocatorAllocate(deallocator.get(), 4, 0));
    std::memcpy(bytes, "text", 4);
    {
        const auto string = Adopt(CFStringCreateWithBytesNoCopy(
            nullptr, bytes, 4, kCFStringEncodingUTF8, false, deallocator.get()));
        EXPECT_EQ(UTF8(string.get()), "text");
        EXPECT_EQ(deallocator.live, 1);
    }
    EXPECT_EQ(deallocator.live, 0);
}

TEST(CFStringNoCopy, FreesBytesAtOnceThatItHadToConvert) {
    CountingAllocator deallocator;
    auto *bytes = static_cast<UInt8 *>(CFAllocatorAllocate(deallocator.get(), 2, 0));
    std::memcpy(bytes, "\xc3\xa9", 2);
    const auto string = Adopt(CFStringCreateWithBytesNoCopy(
        nullptr, bytes, 2, kCFStringEncodingUTF8, false, deallocator.get()));
    EXPECT_EQ(deallocator.live, 0);
    EXPECT_EQ(UTF8(string.get()), "\u00e9");
}

TEST(CFStringNoCopy, LeavesBytesAloneWhenItFails) {
    CountingAllocator deallocator;
    auto *bytes = static_cast<UInt8 *>(CFAllocatorAllocate(deallocator.get(), 1, 0));
    *bytes = 0xFF;
    EXPECT_EQ(CFStringCreateWithBytesNoCopy(nullptr, bytes, 1, kCFStringEncodingUTF8, false,
                                            deallocator.get()),
              nullptr);
    EXPECT_EQ(deallocator.live, 1);
    CFAllocatorDeallocate(deallocator.get(), bytes);
}

TEST(CFStringNoCopy, FreesWithTheDefaultAllocatorWhenGivenNone) {
    auto *bytes = static_cast<UInt8 *>(std::malloc(4));
    std::memcpy(bytes, "text", 4);
    const auto string = Adopt(
        CFStringCreateWithBytesNoCopy(nullptr, bytes, 4, kCFStringEncodingUTF8, false, nullptr));
    EXPECT_EQ(UTF8(string.get()), "text"); // the leak checker sees the rest
}

// ---- copies ----

TEST(CFString, CopiesImmutableTextByRetaining) {
    const auto string = String("text");
    const auto copy = Adopt(CFStringCreateCopy(nullptr, string.get()));
    EXPECT_EQ(copy.get(), string.get());
    EXPECT_EQ(CFGetRetainCount(string.get()), 2);
}

TEST(CFString, CopiesWhatMayChangeOrGoAway) {
    char text[] = "text";
    const auto borrowed = Adopt(
        CFStringCreateWithCStringNoCopy(nullptr, text, kCFStringEncodingUTF8, kCFAllocatorNull));
    const auto copy = Adopt(CFStringCreateCopy(nullptr, borrowed.get()));
    text[0] = 'T';
    EXPECT_EQ(UTF8(copy.get()), "text");
    const auto changing = mutableCopy(copy.get());
    EXPECT_NE(Adopt(CFStringCreateCopy(nullptr, changing.get())).get(), changing.get());
}

TEST(CFString, CopiesIntoAnotherAllocator) {
    const auto string = String("text");
    CountingAllocator allocator;
    const auto copy = Adopt(CFStringCreateCopy(allocator.get(), string.get()));
    EXPECT_NE(copy.get(), string.get());
    EXPECT_EQ(allocator.live, 1);
}

TEST(CFString, CreatesSubstrings) {
    const auto string = String("ab\u00e9cd");
    const auto sub = [&](CFIndex location, CFIndex length) {
        return UTF8(
            Adopt(CFStringCreateWithSubstring(nullptr, string.get(), CFRangeMake(location, length)))
                .get());
    };
    EXPECT_EQ(sub(0, 5), "ab\u00e9cd");
    EXPECT_EQ(sub(1, 2), "b\u00e9");
    EXPECT_EQ(sub(3, 2), "cd");
    EXPECT_EQ(sub(5, 0), "");
}

// ---- description and misuse ----

TEST(CFString, DescribesItselfWithItsContents) {
    const std::string text = Objects::Description(CFSTR("a \"b\""));
    EXPECT_EQ(text.find("<CFString 0x"), 0U) << text;
    EXPECT_NE(text.find("{contents = \"a \"b\"\"}"), std::string::npos) << text;
    EXPECT_EQ(Objects::Description(mutableCopy(CFSTR("a")).get()).find("<CFMutableString 0x"), 0U);
}

TEST(CFStringDeathTest, AbortsOnWhatIsNoString) {
    EXPECT_DEATH(CFStringGetLength(nullptr), "CFStringGetLength: null object");
    const auto *other = reinterpret_cast<CFStringRef>(kCFNull);
    EXPECT_DEATH(CFStringGetLength(other), "CFStringGetLength: object of another type");
    EXPECT_DEATH(CFStringCompare(CFSTR("a"), nullptr, 0), "CFStringCompare: null object");
    EXPECT_DEATH(__CFStringMakeConstantString(nullptr), "null text");
}

TEST(CFStringDeathTest, AbortsOnRangesOutside) {
    CFStringRef string = CFSTR("abc");
    UniChar buffer[8];
    EXPECT_DEATH(CFStringGetCharacterAtIndex(string, 3), "range outside");
    EXPECT_DEATH(CFStringGetCharacterAtIndex(string, -1), "range outside");
    for (const CFRange range :
         {CFRangeMake(0, 4), CFRangeMake(4, 0), CFRangeMake(-1, 1), CFRangeMake(1, -1),
          CFRangeMake(1, INT64_MAX), CFRangeMake(INT64_MAX, INT64_MAX)}) {
        EXPECT_DEATH(CFStringGetCharacters(string, range, buffer), "range outside");
        EXPECT_DEATH(CFStringCreateWithSubstring(nullptr, string, range), "range outside");
    }
}

// ---- joining and splitting ----

TEST(CFStringComponents, JoinsWithASeparator) {
    const void *values[] = {CFSTR("a"), CFSTR(""), CFSTR("\u00e9")};
    const auto array = Adopt(CFArrayCreate(nullptr, values, 3, &kCFTypeArrayCallBacks));
    const auto joined = [&](CFStringRef separator) {
        return UTF8(Adopt(CFStringCreateByCombiningStrings(nullptr, array.get(), separator)).get());
    };
    EXPECT_EQ(joined(CFSTR(", ")), "a, , \u00e9");
    EXPECT_EQ(joined(CFSTR("")), "a\u00e9");
    EXPECT_EQ(joined(nullptr), "a\u00e9");
}

TEST(CFStringComponents, JoinsNothingToNothing) {
    const auto array = Adopt(CFArrayCreate(nullptr, nullptr, 0, &kCFTypeArrayCallBacks));
    EXPECT_EQ(UTF8(Adopt(CFStringCreateByCombiningStrings(nullptr, array.get(), CFSTR(","))).get()),
              "");
}

TEST(CFStringComponentsDeathTest, AbortsOnElementsThatAreNoStrings) {
    const void *values[] = {kCFNull};
    const auto array = Adopt(CFArrayCreate(nullptr, values, 1, &kCFTypeArrayCallBacks));
    EXPECT_DEATH(CFStringCreateByCombiningStrings(nullptr, array.get(), CFSTR(",")),
                 "object of another type");
}

std::vector<std::string> split(const char *text, CFStringRef separator) {
    const auto pieces =
        Adopt(CFStringCreateArrayBySeparatingStrings(nullptr, String(text).get(), separator));
    std::vector<std::string> result;
    for (CFIndex i = 0; i < CFArrayGetCount(pieces.get()); ++i) {
        result.push_back(UTF8(static_cast<CFStringRef>(CFArrayGetValueAtIndex(pieces.get(), i))));
    }
    return result;
}

TEST(CFStringComponents, SplitsAtEverySeparator) {
    using List = std::vector<std::string>;
    EXPECT_EQ(split("a/b/c", CFSTR("/")), (List{"a", "b", "c"}));
    EXPECT_EQ(split("/a//b/", CFSTR("/")), (List{"", "a", "", "b", ""}));
    EXPECT_EQ(split("a::\u00e9", CFSTR("::")), (List{"a", "\u00e9"}));
    EXPECT_EQ(split("abc", CFSTR("/")), (List{"abc"}));
    EXPECT_EQ(split("abc", CFSTR("")), (List{"abc"}));
    EXPECT_EQ(split("", CFSTR("/")), (List{""}));
}

} // namespace
