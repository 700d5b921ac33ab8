#include "support/zk/Math.hpp"

#include "tests/support/Bytes.hpp"
#include "tests/support/RunCommand.hpp"

#include <gtest/gtest.h>

namespace {

using testing_support::Bytes;
using testing_support::BytesOf;
using testing_support::Pattern;
using ZK::Math::base64_decode;
using ZK::Math::base64_encode;
using ZK::Math::hex_encode;

TEST(HexEncode, WritesTwoLowerCaseDigitsAByte) {
    EXPECT_EQ(hex_encode(Bytes{0x00, 0x0A, 0xAF, 0xFF}), "000aafff");
}

TEST(HexEncode, OfNothingIsEmpty) { EXPECT_EQ(hex_encode(Bytes{}), ""); }

struct Base64Case {
    const char *plain;
    const char *text;
};

// RFC 4648, section 10.
class Base64Vectors : public ::testing::TestWithParam<Base64Case> {};

TEST_P(Base64Vectors, Encode) {
    EXPECT_EQ(base64_encode(BytesOf(GetParam().plain)), GetParam().text);
}

TEST_P(Base64Vectors, Decode) {
    EXPECT_EQ(base64_decode(GetParam().text), BytesOf(GetParam().plain));
}

INSTANTIATE_TEST_SUITE_P(RFC4648, Base64Vectors,
                         ::testing::Values(Base64Case{"", ""}, Base64Case{"f", "Zg=="},
                                           Base64Case{"fo", "Zm8="}, Base64Case{"foo", "Zm9v"},
                                           Base64Case{"foob", "Zm9vYg=="},
                                           Base64Case{"fooba", "Zm9vYmE="},
                                           Base64Case{"foobar", "Zm9vYmFy"}));

TEST(Base64, EncodesAsPythonDoes) {
    const Bytes bytes = Pattern(1000);
    const auto result = testing_support::RunPython(
        "import sys,base64; sys.stdout.write(base64.b64encode(sys.stdin.buffer.read()).decode())",
        {}, testing_support::TextOf(bytes));
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(base64_encode(bytes), result.output);
}

TEST(Base64, EveryLengthComesBack) {
    for (std::size_t length = 0; length < 100; ++length) {
        const Bytes bytes = Pattern(length, static_cast<std::uint32_t>(length));
        EXPECT_EQ(base64_decode(base64_encode(bytes)), bytes) << length;
    }
}

TEST(Base64Decode, PassesOverWhiteSpace) {
    EXPECT_EQ(base64_decode(" Zm9v\n\tYm\r\nFy "), BytesOf("foobar"));
}

TEST(Base64Decode, TakesMissingPadding) {
    EXPECT_EQ(base64_decode("Zg"), BytesOf("f"));
    EXPECT_EQ(base64_decode("Zm8"), BytesOf("fo"));
}

class Base64Refused : public ::testing::TestWithParam<const char *> {};

TEST_P(Base64Refused, ThrowsInvalidArgument) {
    EXPECT_THROW(base64_decode(GetParam()), std::invalid_argument) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(Malformed, Base64Refused,
                         ::testing::Values("Z", "Zm9vZ", "Zg=", "Zg===", "Zm9v=", "Zg==Zg==", "=",
                                           "====", "Zm9-", "Zm_v", "Zm9v\x80", "Zm,v"));

} // namespace
