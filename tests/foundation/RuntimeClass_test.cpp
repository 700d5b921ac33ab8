#include "foundation/RuntimeClass.hpp"

#include "support/cf/CF.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

int gConstructed = 0;
int gDestroyed = 0;

struct Sample {
    CFRuntimeBase base;
    std::vector<int> numbers{1, 2, 3};
    CF::String name{"sample"};
    std::uint64_t untouched = 0;
    Sample() { ++gConstructed; }
    ~Sample() { ++gDestroyed; }
};

using Body = Kelvane::RuntimeBody<Sample>;

CFStringRef describe(CFTypeRef object) {
    return CF::String::Format(CFSTR("<sample %@>"), static_cast<const Sample *>(object)->name.get())
        .detach();
}

const CFRuntimeClass kSampleClass = Body::Record(
    "Sample",
    {nullptr, [](CFTypeRef object, CFDictionaryRef) { return describe(object); }, &describe});

CFTypeID sampleTypeID() {
    static const CFTypeID typeID = Kelvane::RegisterRuntimeClass(&kSampleClass, "sample.cpp", 7);
    return typeID;
}

TEST(RuntimeBody, ConstructsAndDestroysOnce) {
    gConstructed = gDestroyed = 0;
    Sample *const sample = Body::Create(kCFAllocatorDefault, sampleTypeID());
    EXPECT_EQ(gConstructed, 1);
    EXPECT_EQ(sample->numbers, (std::vector<int>{1, 2, 3}));
    CFRetain(sample);
    CFRelease(sample);
    EXPECT_EQ(gDestroyed, 0);
    CFRelease(sample);
    EXPECT_EQ(gDestroyed, 1);
}

TEST(RuntimeBody, KeepsTheHeader) {
    Sample *const sample = Body::Create(kCFAllocatorDefault, sampleTypeID());
    EXPECT_EQ(CFGetTypeID(sample), sampleTypeID());
    EXPECT_EQ(CFGetRetainCount(sample), 1);
    CFRelease(sample);
}

TEST(RuntimeBody, DescribesThroughItsCallbacks) {
    Sample *const sample = Body::Create(kCFAllocatorDefault, sampleTypeID());
    EXPECT_EQ(CF::String::Adopt(CFCopyDescription(sample)).GetUTF8(), "<sample sample>");
    EXPECT_EQ(CF::String::Format(CFSTR("%@!"), sample).GetUTF8(), "<sample sample>!");
    CFRelease(sample);
}

TEST(RuntimeBody, ComparesByIdentityWithoutACallback) {
    Sample *const one = Body::Create(kCFAllocatorDefault, sampleTypeID());
    Sample *const other = Body::Create(kCFAllocatorDefault, sampleTypeID());
    EXPECT_TRUE(CFEqual(one, one));
    EXPECT_FALSE(CFEqual(one, other));
    CFRelease(one);
    CFRelease(other);
}

TEST(RuntimeBody, ReleasesTheObjectsThatItHolds) {
    const CF::String name = CF::String::Format(CFSTR("held %d"), 1);
    Sample *const sample = Body::Create(kCFAllocatorDefault, sampleTypeID());
    sample->name = name;
    const CFIndex while_held = CFGetRetainCount(name.get());
    CFRelease(sample);
    EXPECT_EQ(CFGetRetainCount(name.get()), while_held - 1);
}

TEST(RuntimeClass, NamesItself) {
    const auto text = CF::String::Adopt(CFCopyTypeIDDescription(sampleTypeID()));
    EXPECT_EQ(text.GetUTF8(), "Sample");
}

TEST(RuntimeClass, HasEmptyCopyAndHashSlots) {
    EXPECT_EQ(kSampleClass.copy, nullptr);
    EXPECT_EQ(kSampleClass.hash, nullptr);
    EXPECT_EQ(kSampleClass.version, 0);
}

TEST(RuntimeClassDeathTest, ARefusedRegistrationEndsTheProcess) {
    EXPECT_DEATH(Kelvane::RegisterRuntimeClass(nullptr, "Kelvane/KVFile.cpp", 143),
                 "Kelvane/KVFile.cpp:143:  operator\\(\\) Assertion typeID != "
                 "_kCFRuntimeNotATypeID failed\\.");
}

} // namespace
