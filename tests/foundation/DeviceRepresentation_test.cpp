#include "Kelvane/SharedState.hpp"

#include "tests/support/Bytes.hpp"

#include <gtest/gtest.h>

#include <limits>

namespace {

using testing_support::Bytes;
using testing_support::BytesOf;
using testing_support::FromHex;
using testing_support::Pattern;

CF::Data decode(const Bytes &bytes, long *offset) {
    return Kelvane::CreateDataFromDeviceRepresentation(bytes.data(),
                                                       static_cast<long>(bytes.size()), offset);
}

Bytes encode(const Bytes &bytes) {
    return Kelvane::CopyDeviceRepresentation(CF::Data(bytes)).GetVector();
}

TEST(DeviceRepresentation, ReadsTheBytesAndMovesOn) {
    const Bytes input = FromHex("0002 4142 0001 43");
    long offset = 0;
    EXPECT_EQ(decode(input, &offset).GetVector(), BytesOf("AB"));
    EXPECT_EQ(offset, 4);
    EXPECT_EQ(decode(input, &offset).GetVector(), BytesOf("C"));
    EXPECT_EQ(offset, 7);
}

TEST(DeviceRepresentation, NullOffsetStartsAtTheFirstByte) {
    EXPECT_EQ(decode(FromHex("0002 4142"), nullptr).GetVector(), BytesOf("AB"));
}

TEST(DeviceRepresentation, AbsentAndEmptyReadAlike) {
    for (const char *input : {"FFFF", "0000", "FFFF41", "000041"}) {
        long offset = 0;
        const CF::Data data = decode(FromHex(input), &offset);
        ASSERT_TRUE(data) << input;
        EXPECT_EQ(data.GetLength(), 0);
        EXPECT_EQ(offset, 2);
    }
}

TEST(DeviceRepresentation, TruncatedInputGivesNullAndLeavesTheOffset) {
    const Bytes whole = FromHex("0005 4142434445");
    for (std::size_t length = 0; length < whole.size(); ++length) {
        long offset = 0;
        EXPECT_FALSE(Kelvane::CreateDataFromDeviceRepresentation(
            whole.data(), static_cast<long>(length), &offset))
            << length;
        EXPECT_EQ(offset, 0);
    }
}

TEST(DeviceRepresentation, TooShortForItsLengthGivesNull) {
    long offset = 0;
    EXPECT_FALSE(decode(FromHex("0005 4142"), &offset));
    EXPECT_EQ(offset, 0);
}

TEST(DeviceRepresentation, OffsetsOutsideTheInputGiveNull) {
    const Bytes input = FromHex("0001 41");
    for (const long start :
         {-1L, 2L, 3L, 4L, std::numeric_limits<long>::max(), std::numeric_limits<long>::min()}) {
        long offset = start;
        EXPECT_FALSE(decode(input, &offset)) << start;
        EXPECT_EQ(offset, start);
    }
}

TEST(DeviceRepresentation, NullBytesGiveNull) {
    EXPECT_FALSE(Kelvane::CreateDataFromDeviceRepresentation(nullptr, 0, nullptr));
}

TEST(DeviceRepresentation, WritesABigEndianLength) {
    EXPECT_EQ(encode(BytesOf("AB")), FromHex("0002 4142"));
    EXPECT_EQ(encode(Pattern(0x1234)).at(0), 0x12);
    EXPECT_EQ(encode(Pattern(0x1234)).at(1), 0x34);
}

TEST(DeviceRepresentation, WritesEmptyAndNullAsLengthZero) {
    EXPECT_EQ(encode(Bytes{}), FromHex("0000"));
    EXPECT_EQ(Kelvane::CopyDeviceRepresentation(nullptr).GetVector(), FromHex("0000"));
}

TEST(DeviceRepresentation, TheLongestIs65534Bytes) {
    const Bytes longest = Pattern(65534);
    const Bytes encoded = encode(longest);
    EXPECT_EQ(encoded.size(), 65536U);
    EXPECT_EQ(decode(encoded, nullptr).GetVector(), longest);
}

TEST(DeviceRepresentation, LongerOnesCannotBeWritten) {
    EXPECT_FALSE(Kelvane::CopyDeviceRepresentation(CF::Data(Pattern(65535))));
    EXPECT_FALSE(Kelvane::CopyDeviceRepresentation(CF::Data(Pattern(65536))));
}

} // namespace
