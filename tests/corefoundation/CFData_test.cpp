#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <array>
#include <random>

using namespace Objects;

namespace {

CF::Pointer<CFMutableDataRef> Mutable(std::string_view bytes) {
    auto data = Adopt(CFDataCreateMutable(nullptr, 0));
    CFDataAppendBytes(data.get(), reinterpret_cast<const UInt8 *>(bytes.data()),
                      static_cast<CFIndex>(bytes.size()));
    return data;
}

const UInt8 *Raw(std::string_view bytes) { return reinterpret_cast<const UInt8 *>(bytes.data()); }

CFRange Find(std::string_view in, std::string_view what, CFRange range, CFOptionFlags flags = 0) {
    return CFDataFind(Data(in).get(), Data(what).get(), range, flags);
}

} // namespace

TEST(CFData, KeepsACopyOfItsBytes) {
    std::string bytes = "some bytes";
    const auto data = Data(bytes);
    bytes[0] = 'X';
    EXPECT_EQ(Bytes(data.get()), "some bytes");
    EXPECT_EQ(CFGetTypeID(data.get()), CFDataGetTypeID());
}

TEST(CFData, KeepsNulBytes) {
    const std::string bytes("\0a\0", 3);
    EXPECT_EQ(Bytes(Data(bytes).get()), bytes);
}

TEST(CFData, TakesOneAllocationWhenImmutable) {
    CountingAllocator counting;
    const std::array<UInt8, 44> bytes{};
    CFRelease(CFDataCreate(counting.get(), bytes.data(), 44));
    EXPECT_EQ(counting.allocations, 1);
    EXPECT_EQ(counting.live, 0);
}

TEST(CFData, IsEmptyWithoutBytes) {
    const auto data = Adopt(CFDataCreate(nullptr, nullptr, 0));
    EXPECT_EQ(CFDataGetLength(data.get()), 0);
    EXPECT_NE(CFDataGetBytePtr(data.get()), nullptr);
}

TEST(CFData, IsEqualByContentWhateverItsKind) {
    const auto data = Data("abc");
    const auto other = Mutable("abc");
    EXPECT_TRUE(CFEqual(data.get(), other.get()));
    EXPECT_EQ(CFHash(data.get()), CFHash(other.get()));
    EXPECT_FALSE(CFEqual(data.get(), Data("abd").get()));
    EXPECT_FALSE(CFEqual(data.get(), Data("ab").get()));
}

TEST(CFData, HashesEveryByte) {
    std::string bytes(200, 'a');
    const CFHashCode hash = CFHash(Data(bytes).get());
    bytes[150] = 'b';
    EXPECT_NE(CFHash(Data(bytes).get()), hash);
}

TEST(CFData, UsesNoCopyBytesInPlaceAndLeavesThem) {
    const std::string bytes = "in place";
    const auto data = Adopt(CFDataCreateWithBytesNoCopy(nullptr, Raw(bytes), 8, kCFAllocatorNull));
    EXPECT_EQ(CFDataGetBytePtr(data.get()), Raw(bytes));
    EXPECT_EQ(Bytes(data.get()), bytes);
}

TEST(CFData, FreesNoCopyBytesThroughTheirDeallocator) {
    CountingAllocator counting;
    auto *bytes = static_cast<UInt8 *>(CFAllocatorAllocate(counting.get(), 10, 0));
    CFDataRef data = CFDataCreateWithBytesNoCopy(nullptr, bytes, 10, counting.get());
    EXPECT_EQ(counting.live, 1);
    CFRelease(data);
    EXPECT_EQ(counting.live, 0);
}

TEST(CFData, FreesNoCopyBytesByDefault) {
    auto *bytes = static_cast<UInt8 *>(std::calloc(10, 1));
    const auto data = Adopt(CFDataCreateWithBytesNoCopy(nullptr, bytes, 10, nullptr));
    EXPECT_EQ(CFDataGetLength(data.get()), 10);
}

TEST(CFData, CopyOfAnImmutableDataIsTheSameObject) {
    const auto data = Data("abc");
    EXPECT_EQ(Adopt(CFDataCreateCopy(nullptr, data.get())).get(), data.get());
}

TEST(CFData, CopyOfANoCopyDataOwnsItsBytes) {
    std::string bytes = "abc";
    const auto data = Adopt(CFDataCreateWithBytesNoCopy(nullptr, Raw(bytes), 3, kCFAllocatorNull));
    const auto copy = Adopt(CFDataCreateCopy(nullptr, data.get()));
    bytes[0] = 'X';
    EXPECT_EQ(Bytes(copy.get()), "abc");
}

TEST(CFData, CopyOfAMutableDataDoesNotChangeWithIt) {
    const auto data = Mutable("abc");
    const auto copy = Adopt(CFDataCreateCopy(nullptr, data.get()));
    CFDataSetLength(data.get(), 1);
    EXPECT_EQ(Bytes(copy.get()), "abc");
}

TEST(CFData, MutableCopyIsApart) {
    const auto data = Data("abc");
    const auto copy = Adopt(CFDataCreateMutableCopy(nullptr, 0, data.get()));
    CFDataAppendBytes(copy.get(), Raw("d"), 1);
    EXPECT_EQ(Bytes(copy.get()), "abcd");
    EXPECT_EQ(Bytes(data.get()), "abc");
}

TEST(CFData, TakesAnyCapacityAsAHint) {
    const auto data = Adopt(CFDataCreateMutable(nullptr, 3));
    CFDataSetLength(data.get(), 100);
    EXPECT_EQ(CFDataGetLength(data.get()), 100);
    EXPECT_NE(Adopt(CFDataCreateMutable(nullptr, INT64_MAX)).get(), nullptr);
}

TEST(CFData, GrowsWithZeroBytes) {
    const auto data = Mutable("abc");
    CFDataSetLength(data.get(), 1);
    CFDataIncreaseLength(data.get(), 3);
    EXPECT_EQ(Bytes(data.get()), std::string("a\0\0\0", 4));
}

TEST(CFData, ShrinksByANegativeIncrease) {
    const auto data = Mutable("abc");
    CFDataIncreaseLength(data.get(), -2);
    EXPECT_EQ(Bytes(data.get()), "a");
}

TEST(CFData, IsWritableThroughItsMutablePointer) {
    const auto data = Mutable("abc");
    CFDataGetMutableBytePtr(data.get())[1] = 'X';
    EXPECT_EQ(Bytes(data.get()), "aXc");
}

TEST(CFData, ReplacesARangeByFewerOrMoreBytes) {
    const auto data = Mutable("0123456789");
    CFDataReplaceBytes(data.get(), CFRangeMake(2, 6), Raw("ab"), 2);
    EXPECT_EQ(Bytes(data.get()), "01ab89");
    CFDataReplaceBytes(data.get(), CFRangeMake(2, 2), Raw("cdefgh"), 6);
    EXPECT_EQ(Bytes(data.get()), "01cdefgh89");
}

TEST(CFData, DeletesARange) {
    const auto data = Mutable("0123456789");
    CFDataDeleteBytes(data.get(), CFRangeMake(0, 8));
    EXPECT_EQ(Bytes(data.get()), "89");
}

TEST(CFData, AppendsItsOwnBytes) {
    const auto data = Mutable("0123456789");
    for (int i = 0; i < 6; ++i) {
        CFDataAppendBytes(data.get(), CFDataGetBytePtr(data.get()), CFDataGetLength(data.get()));
    }
    EXPECT_EQ(CFDataGetLength(data.get()), 640);
    EXPECT_EQ(Bytes(data.get()).substr(630), "0123456789");
}

TEST(CFData, ReplacesARangeByItsOwnBytes) {
    const auto data = Mutable("0123456789");
    CFDataReplaceBytes(data.get(), CFRangeMake(0, 2), CFDataGetBytePtr(data.get()) + 1, 8);
    EXPECT_EQ(Bytes(data.get()), "1234567823456789");
}

TEST(CFData, CopiesARangeOut) {
    std::string buffer = "____";
    CFDataGetBytes(Data("0123456789").get(), CFRangeMake(3, 3),
                   reinterpret_cast<UInt8 *>(buffer.data()));
    EXPECT_EQ(buffer, "345_");
}

TEST(CFData, FindsTheFirstOrLastMatchInARange) {
    EXPECT_EQ(Find("abcabcabc", "bc", CFRangeMake(0, 9)).location, 1);
    EXPECT_EQ(Find("abcabcabc", "bc", CFRangeMake(2, 7)).location, 4);
    EXPECT_EQ(Find("abcabcabc", "bc", CFRangeMake(0, 9), kCFDataSearchBackwards).location, 7);
    EXPECT_EQ(Find("abcabcabc", "bc", CFRangeMake(0, 8), kCFDataSearchBackwards).location, 4);
    EXPECT_EQ(Find("abcabcabc", "bc", CFRangeMake(0, 9)).length, 2);
}

TEST(CFData, FindsOnlyAtTheEndsWhenAnchored) {
    EXPECT_EQ(Find("abcabc", "bc", CFRangeMake(0, 6), kCFDataSearchAnchored).location, kCFNotFound);
    EXPECT_EQ(Find("abcabc", "bc", CFRangeMake(1, 5), kCFDataSearchAnchored).location, 1);
    EXPECT_EQ(
        Find("abcabc", "bc", CFRangeMake(0, 6), kCFDataSearchAnchored | kCFDataSearchBackwards)
            .location,
        4);
}

TEST(CFData, FindsNothingEmptyOrLongerThanTheRange) {
    EXPECT_EQ(Find("abc", "", CFRangeMake(0, 3)).location, kCFNotFound);
    EXPECT_EQ(Find("abc", "abc", CFRangeMake(0, 2)).location, kCFNotFound);
    EXPECT_EQ(Find("abc", "x", CFRangeMake(0, 3)).length, 0);
}

TEST(CFData, DescribesLengthAndFirstBytes) {
    EXPECT_EQ(Description(Data("\x01\xAB").get()), "{length = 2, bytes = 0x01ab}");
    EXPECT_EQ(Description(Data(std::string(25, 'a')).get()),
              "{length = 25, bytes = 0x616161616161616161616161616161616161616161616161...}");
}

TEST(CFData, BehavesLikeAByteStringUnderRandomEdits) {
    std::mt19937 random(7);
    std::string model;
    const auto data = Mutable("");
    for (int step = 0; step < 5000; ++step) {
        const std::size_t at = random() % (model.size() + 1);
        const std::size_t count = random() % (model.size() - at + 1);
        const std::string bytes(random() % 20, static_cast<char>('a' + step % 26));
        model.replace(at, count, bytes);
        CFDataReplaceBytes(data.get(),
                           CFRangeMake(static_cast<CFIndex>(at), static_cast<CFIndex>(count)),
                           Raw(bytes), static_cast<CFIndex>(bytes.size()));
        ASSERT_EQ(Bytes(data.get()), model);
    }
}

TEST(CFDataDeathTest, RefusesRangesOutside) {
    const auto data = Data("abc");
    UInt8 buffer[16];
    EXPECT_DEATH(CFDataGetBytes(data.get(), CFRangeMake(2, 2), buffer), "range outside");
    EXPECT_DEATH(CFDataGetBytes(data.get(), CFRangeMake(-1, 1), buffer), "range outside");
    EXPECT_DEATH(CFDataGetBytes(data.get(), CFRangeMake(1, INT64_MAX), buffer), "range outside");
    EXPECT_DEATH(CFDataDeleteBytes(Mutable("abc").get(), CFRangeMake(4, 0)), "range outside");
}

TEST(CFDataDeathTest, RefusesToChangeAnImmutableData) {
    auto *data = const_cast<CFMutableDataRef>(Data("abc").detach());
    EXPECT_DEATH(CFDataSetLength(data, 1), "CFDataSetLength.*immutable data");
    EXPECT_DEATH(CFDataGetMutableBytePtr(data), "immutable data");
    CFRelease(data);
}

TEST(CFDataDeathTest, RefusesBadArguments) {
    EXPECT_DEATH(CFDataCreate(nullptr, nullptr, 1), "null bytes");
    EXPECT_DEATH(CFDataCreate(nullptr, Raw("a"), -1), "negative length");
    EXPECT_DEATH(CFDataGetLength(nullptr), "CFDataGetLength|null");
    EXPECT_DEATH(CFDataSetLength(Mutable("a").get(), -1), "negative length");
    EXPECT_DEATH(CFDataIncreaseLength(Mutable("a").get(), INT64_MAX), "length beyond");
}
