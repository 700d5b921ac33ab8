#include "support/zk/Encryption.hpp"

#include "support/cf/Error.hpp"
#include "support/zk/Math.hpp"
#include "tests/support/Bytes.hpp"
#include "tests/support/ErrorMatchers.hpp"
#include "tests/support/RunCommand.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace {

using testing_support::Bytes;
using testing_support::FromHex;
using testing_support::Pattern;
using namespace ZK::Encryption;

// 00 01 02 ... 1F, as all examples of the RFC have it.
KeyEncryptionKey countingKey() {
    KeyEncryptionKey key;
    for (std::size_t i = 0; i < key.size(); ++i) {
        key[i] = static_cast<std::uint8_t>(i);
    }
    return key;
}

void expectIntegrityError(const Bytes &wrapped, const KeyEncryptionKey &key) {
    const CF::Error error =
        testing_support::ErrorThrownBy([&] { RFC3394Unwrap(key, std::nullopt, wrapped); });
    ASSERT_TRUE(error);
    EXPECT_EQ(CF::String(error.GetDomain()).GetUTF8(), "ZK.EncryptionErrorDomain");
    EXPECT_EQ(error.GetCode(), kKeyUnwrapIntegrityError);
    EXPECT_EQ(error.GetDescription().GetUTF8(), "Key unwrap failed");
    EXPECT_FALSE(error.GetFailureReason().IsEmpty());
}

struct WrapCase {
    const char *plain;
    const char *wrapped;
};

// RFC 3394, sections 4.3, 4.5 and 4.6: keys of 128, 192 and 256 bits under 256 bits.
class KeyWrapVectors : public ::testing::TestWithParam<WrapCase> {};

TEST_P(KeyWrapVectors, Wrap) {
    EXPECT_EQ(RFC3394Wrap(countingKey(), std::nullopt, FromHex(GetParam().plain)),
              FromHex(GetParam().wrapped));
}

TEST_P(KeyWrapVectors, Unwrap) {
    EXPECT_EQ(RFC3394Unwrap(countingKey(), std::nullopt, FromHex(GetParam().wrapped)),
              FromHex(GetParam().plain));
}

INSTANTIATE_TEST_SUITE_P(
    RFC3394, KeyWrapVectors,
    ::testing::Values(
        WrapCase{"00112233445566778899AABBCCDDEEFF",
                 "64E8C3F9CE0F5BA263E9777905818A2A93C8191E7D6E8AE7"},
        WrapCase{"00112233445566778899AABBCCDDEEFF0001020304050607",
                 "A8F9BC1612C68B3FF6E6F4FBE30E71E4769C8B80A32CB8958CD5D17D6B254DA1"},
        WrapCase{"00112233445566778899AABBCCDDEEFF000102030405060708090A0B0C0D0E0F",
                 "28C9F404C4B810F4CBCCB35CFB87F8263F5786E2D80ED326CBC7F0E71A99F43BFB988B9B7A02DD"
                 "21"}));

TEST(KeyWrap, AgreesWithPythonCryptography) {
    const Bytes plain = Pattern(32);
    const auto key = countingKey();
    const auto result = testing_support::RunPython(
        "import sys\nfrom cryptography.hazmat.primitives.keywrap import aes_key_wrap\n"
        "print(aes_key_wrap(*map(bytes.fromhex, sys.argv[1:])).hex(), end='')",
        {ZK::Math::hex_encode(key), ZK::Math::hex_encode(plain)});
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(ZK::Math::hex_encode(RFC3394Wrap(key, std::nullopt, plain)), result.output);
}

TEST(KeyWrap, TheDefaultInitialValueIsA6EightTimes) {
    WrapInitialValue standard;
    standard.fill(0xA6);
    const Bytes plain = Pattern(32);
    EXPECT_EQ(RFC3394Wrap(countingKey(), standard, plain),
              RFC3394Wrap(countingKey(), std::nullopt, plain));
}

TEST(KeyWrap, AnotherInitialValueOpensOnlyWithItself) {
    const WrapInitialValue own{1, 2, 3, 4, 5, 6, 7, 8};
    const Bytes plain = Pattern(32);
    const Bytes wrapped = RFC3394Wrap(countingKey(), own, plain);
    EXPECT_EQ(RFC3394Unwrap(countingKey(), own, wrapped), plain);
    expectIntegrityError(wrapped, countingKey());
}

TEST(KeyUnwrap, FailsItsIntegrityCheckForAWrongKey) {
    KeyEncryptionKey wrong = countingKey();
    wrong[31] ^= 1;
    expectIntegrityError(RFC3394Wrap(countingKey(), std::nullopt, Pattern(32)), wrong);
}

TEST(KeyUnwrap, FailsItsIntegrityCheckForEveryFlippedBit) {
    const Bytes wrapped = RFC3394Wrap(countingKey(), std::nullopt, Pattern(32));
    for (std::size_t bit = 0; bit < wrapped.size() * 8; ++bit) {
        Bytes damaged = wrapped;
        damaged[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        expectIntegrityError(damaged, countingKey());
    }
}

TEST(KeyUnwrap, RefusesLengthsThatNoWrapProduces) {
    for (const std::size_t length : {0U, 1U, 7U, 8U, 15U, 16U, 23U, 25U, 39U, 41U}) {
        EXPECT_THROW(RFC3394Unwrap(countingKey(), std::nullopt, Bytes(length)),
                     std::invalid_argument)
            << length;
    }
}

TEST(KeyWrap, RefusesLengthsThatItCannotWrap) {
    for (const std::size_t length : {0U, 8U, 15U, 17U, 31U, 33U}) {
        EXPECT_THROW(RFC3394Wrap(countingKey(), std::nullopt, Bytes(length)), std::invalid_argument)
            << length;
    }
}

TEST(RandomBytes, AreAsManyAsAskedForAndDiffer) {
    std::set<Bytes> seen;
    for (int i = 0; i < 100; ++i) {
        const Bytes bytes = RandomBytes(32);
        EXPECT_EQ(bytes.size(), 32U);
        seen.insert(bytes);
    }
    EXPECT_EQ(seen.size(), 100U);
}

TEST(RandomBytes, NoneIsAllowed) { EXPECT_EQ(RandomBytes(0), Bytes{}); }

} // namespace
