// References to one object that several threads take and give back, for every kind of object.
#include "Kelvane.h"
#include "Kelvane/Error.hpp"
#include "support/cf/CF.hpp"
#include "tests/container/BackupFixture.hpp"
#include "tests/threads/AtOnce.hpp"

#include <functional>
#include <string>

namespace {

using threads_tests::AtOnce;
using threads_tests::kThreads;

struct Kind {
    std::string name;
    std::function<CFTypeRef()> make;
};

CFTypeRef makeError() {
    const CF::Error error = Kelvane::Error(kKVErrorIO, nullptr, CFSTR("text %d"), 7);
    return CFRetain(error.get());
}

CFTypeRef makeDictionary() {
    const auto dictionary = CF::Dictionary::MutableCopy(nullptr);
    dictionary.Set(CFSTR("key"), CF::String("a value of some length").get());
    return CFDictionaryCreateCopy(nullptr, dictionary.get());
}

CFTypeRef makeArray() {
    const std::array<CFTypeRef, 2> values = {CFSTR("one"), CFSTR("two")};
    return CFArrayCreate(nullptr, const_cast<const void **>(values.data()), 2,
                         &kCFTypeArrayCallBacks);
}

CFTypeRef makeNumber() {
    const std::int64_t value = std::int64_t{1} << 40;
    return CFNumberCreate(nullptr, kCFNumberSInt64Type, &value);
}

CFTypeRef makeFile() {
    testing_support::LibraryTemporaryPath();
    return KVFileCreateFromData(std::vector<std::uint8_t>{1, 2, 3}, nullptr);
}

CFTypeRef makeContainer() {
    return CFRetain(container_tests::OpenSample(container_tests::kPlain).get());
}

const std::vector<Kind> &kinds() {
    static const std::vector<Kind> all = {
        {"String", [] { return CFTypeRef(CFRetain(CF::String("some text of its own").get())); }},
        {"ConstantString", [] { return CFTypeRef(CFRetain(CFSTR("constant"))); }},
        {"Data",
         [] { return CFTypeRef(CFRetain(CF::Data(std::vector<std::uint8_t>(100, 7)).get())); }},
        {"Array", makeArray},
        {"Dictionary", makeDictionary},
        {"Number", makeNumber},
        {"Date", [] { return CFTypeRef(CFDateCreate(nullptr, 1000.5)); }},
        {"UUID", [] { return CFTypeRef(CFUUIDCreate(nullptr)); }},
        {"Error", makeError},
        {"File", makeFile},
        {"Entry",
         [] {
             return CFTypeRef(KVManifestEntryCreateForDirectory(nullptr, CFSTR("D"), CFSTR("p")));
         }},
        {"Manifest", [] { return CFTypeRef(KVManifestCreateEmpty(nullptr)); }},
        {"Container", makeContainer},
    };
    return all;
}

class ReferenceCounts : public testing::TestWithParam<Kind> {};

TEST_P(ReferenceCounts, AreExactAfterManyThreadsTookAndGaveThem) {
    const CF::AutoPointer object(CF::adopt, GetParam().make());
    ASSERT_TRUE(object);
    const CFIndex before = CFGetRetainCount(object.get());
    AtOnce([&](int) {
        constexpr int kRounds = 2000;
        for (int i = 0; i < kRounds; ++i) {
            CFRetain(object.get());
            CFRelease(object.get());
        }
    });
    EXPECT_EQ(CFGetRetainCount(object.get()), before);
}

// What one thread did with an object happens before another one destroys it.
TEST_P(ReferenceCounts, LetWhicheverThreadIsLastDestroyTheObject) {
    const int rounds = GetParam().name == "Container" ? 3 : 50;
    for (int i = 0; i < rounds; ++i) {
        const CFTypeRef object = GetParam().make();
        ASSERT_NE(object, nullptr);
        for (int extra = 1; extra < kThreads; ++extra) {
            CFRetain(object);
        }
        AtOnce([&](int) {
            EXPECT_GE(CFGetRetainCount(object), 1);
            CFRelease(object);
        });
    }
}

// Values that do not change may be read by all.
TEST_P(ReferenceCounts, ObjectIsReadByAllThreadsAtOnce) {
    const CF::AutoPointer object(CF::adopt, GetParam().make());
    const std::string wanted = CF::String::Adopt(CFCopyDescription(object.get())).GetUTF8();
    const CFHashCode hash = CFHash(object.get());
    AtOnce([&](int) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(CF::String::Adopt(CFCopyDescription(object.get())).GetUTF8(), wanted);
            EXPECT_EQ(CFHash(object.get()), hash);
            EXPECT_TRUE(CFEqual(object.get(), object.get()));
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Of, ReferenceCounts, testing::ValuesIn(kinds()),
                         [](const auto &kind) { return kind.param.name; });

TEST(ConstantStrings, AreOneObjectOnAllThreads) {
    std::array<CFStringRef, kThreads> found{};
    AtOnce([&](int number) {
        CFStringRef text = nullptr;
        for (int i = 0; i < 200; ++i) {
            // A name that no other test has made yet, and many that all have.
            text = __CFStringMakeConstantString("made by several threads at once");
            __CFStringMakeConstantString(("constant " + std::to_string(i % 7)).c_str());
        }
        found[static_cast<std::size_t>(number)] = text;
    });
    for (const CFStringRef text : found) {
        EXPECT_EQ(text, found.front());
    }
}

TEST(ConstantUUIDs, AreOneObjectOnAllThreads) {
    constexpr int kValues = 200;
    std::array<std::vector<CFUUIDRef>, kThreads> found;
    AtOnce([&](int number) {
        for (int i = 0; i < kValues; ++i) {
            found[static_cast<std::size_t>(number)].push_back(CFUUIDGetConstantUUIDWithBytes(
                nullptr, static_cast<UInt8>(i), 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
        }
    });
    for (const auto &some : found) {
        EXPECT_EQ(some, found.front());
    }
}

} // namespace
