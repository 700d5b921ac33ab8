#include "fastpbkdf2.h"

#include "Oracle.hpp"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <limits>
#include <sstream>
#include <string>

namespace {

using oracle::Bytes;
using oracle::bytesOf;
using oracle::fromHex;
using oracle::toHex;

using DeriveFunction = decltype(&fastpbkdf2_hmac_sha1);

struct Variant {
    const char *name;
    DeriveFunction derive;
    std::size_t blockSize;
    std::size_t digestSize;
};
constexpr Variant kSHA1 = {"sha1", fastpbkdf2_hmac_sha1, 64, 20};
constexpr Variant kSHA256 = {"sha256", fastpbkdf2_hmac_sha256, 64, 32};
constexpr Variant kSHA512 = {"sha512", fastpbkdf2_hmac_sha512, 128, 64};

Bytes derive(const Variant &variant, const Bytes &password, const Bytes &salt,
             std::uint32_t iterations, std::size_t length) {
    Bytes output(length);
    variant.derive(password.data(), password.size(), salt.data(), salt.size(), iterations,
                   output.data(), output.size());
    return output;
}

// RFC 6070 (SHA-1), RFC 7914 section 11 (SHA-256), and the SHA-512 results that
// implementations publish for the inputs of RFC 6070.
struct Vector {
    Variant variant;
    std::string_view password;
    std::string_view salt;
    std::uint32_t iterations;
    const char *result;
};
using namespace std::string_view_literals;
const Vector kVectors[] = {
    {kSHA1, "password", "salt", 1, "0c60c80f961f0e71f3a9b524af6012062fe037a6"},
    {kSHA1, "password", "salt", 2, "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957"},
    {kSHA1, "password", "salt", 4096, "4b007901b765489abead49d926f721d065a429c1"},
    {kSHA1, "passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096,
     "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"},
    {kSHA1, "pass\0word"sv, "sa\0lt"sv, 4096, "56fa6aa75548099dcc37d7f03425e0c3"},
    {kSHA256, "passwd", "salt", 1,
     "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
     "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783"},
    {kSHA256, "Password", "NaCl", 80000,
     "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"
     "a1d425a1225833549adb841b51c9b3176a272bdebba1d078478f62b397f33c8d"},
    {kSHA512, "password", "salt", 1,
     "867f70cf1ade02cff3752599a3a53dc4af34c7a669815ae5d513554e1c8cf252"
     "c02d470a285a0501bad999bfe943c08f050235d7d68b1da55e63f73b60a57fce"},
    {kSHA512, "password", "salt", 2,
     "e1d9c16aa681708a45f5c7c4e215ceb66e011a2e9f0040713f18aefdb866d53c"
     "f76cab2868a39b9f7840edce4fef5a82be67335c77a6068e04112754f27ccf4e"},
    {kSHA512, "password", "salt", 4096,
     "d197b1b33db0143e018b12f3d1d1479e6cdebdcc97c5c0f87f6902e072f457b5"
     "143f30602641b3d55cd335988cb36b84376060ecd532e039b742a239434af2d5"},
};

class PublishedVector : public testing::TestWithParam<Vector> {};

TEST_P(PublishedVector, IsReproduced) {
    const Vector &vector = GetParam();
    const std::size_t length = std::string_view(vector.result).size() / 2;
    EXPECT_EQ(toHex(derive(vector.variant, bytesOf(vector.password), bytesOf(vector.salt),
                           vector.iterations, length)),
              vector.result);
}
INSTANTIATE_TEST_SUITE_P(PBKDF2, PublishedVector, testing::ValuesIn(kVectors));

class PBKDF2 : public testing::TestWithParam<Variant> {
  protected:
    Bytes derived(const Bytes &password, std::uint32_t iterations, std::size_t length) const {
        return derive(GetParam(), password, bytesOf("some salt"), iterations, length);
    }
    Bytes hashed(const Bytes &bytes) const {
        Bytes digest(GetParam().digestSize);
        EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr,
                   EVP_get_digestbyname(GetParam().name), nullptr);
        return digest;
    }
};
INSTANTIATE_TEST_SUITE_P(Hash, PBKDF2, testing::Values(kSHA1, kSHA256, kSHA512),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_P(PBKDF2, AgreesWithHashlibOnRandomInputs) {
    std::istringstream cases(
        oracle::outputOfTool("pbkdf2_oracle.py", {GetParam().name, "20260801", "300"}));
    int count = 0;
    std::string password, salt, result;
    for (std::uint32_t iterations; cases >> password >> salt >> iterations >> result; ++count) {
        SCOPED_TRACE(password + " " + salt + " " + std::to_string(iterations));
        ASSERT_EQ(toHex(derive(GetParam(), fromHex(password), fromHex(salt), iterations,
                               result.size() / 2)),
                  result);
    }
    EXPECT_EQ(count, 300);
}

TEST_P(PBKDF2, TakesZeroIterationsForOne) {
    EXPECT_EQ(derived(bytesOf("password"), 0, 70), derived(bytesOf("password"), 1, 70));
    EXPECT_NE(derived(bytesOf("password"), 1, 70), derived(bytesOf("password"), 2, 70));
}

TEST_P(PBKDF2, GivesLeadingBytesForShorterOutput) {
    const std::size_t longest = 3 * GetParam().digestSize + 1;
    const Bytes whole = derived(bytesOf("password"), 3, longest);
    for (std::size_t length = 0; length <= longest; ++length) {
        const Bytes start(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        ASSERT_EQ(derived(bytesOf("password"), 3, length), start) << length;
    }
}

TEST_P(PBKDF2, WritesNoByteBeyondTheOutput) {
    for (std::size_t length :
         {std::size_t{0}, std::size_t{1}, GetParam().digestSize - 1, GetParam().digestSize + 1}) {
        Bytes output(length + 8, 0xEE);
        GetParam().derive(nullptr, 0, nullptr, 0, 2, output.data(), length);
        EXPECT_EQ(Bytes(output.end() - 8, output.end()), Bytes(8, 0xEE)) << length;
    }
}

TEST_P(PBKDF2, UsesPasswordOfOneBlockAsItIs) {
    const Bytes password(GetParam().blockSize, 'p');
    EXPECT_NE(derived(password, 2, 20), derived(hashed(password), 2, 20));
}

TEST_P(PBKDF2, HashesPasswordLongerThanOneBlock) {
    const Bytes password(GetParam().blockSize + 1, 'p');
    EXPECT_EQ(derived(password, 2, 20), derived(hashed(password), 2, 20));
}

TEST_P(PBKDF2, TreatsNullPasswordAndSaltAsEmpty) {
    Bytes output(20);
    GetParam().derive(nullptr, 0, nullptr, 0, 2, output.data(), output.size());
    EXPECT_EQ(output, derive(GetParam(), Bytes(), Bytes(), 2, 20));
}

// The number of blocks comes from (length + digest - 1) modulo 2^32.
TEST_P(PBKDF2, WritesNothingWhereTheBlockCountWrapsToZero) {
    Bytes output(128, 0xEE);
    const std::size_t wrapping = std::size_t{1} << 32;
    GetParam().derive(nullptr, 0, nullptr, 0, 1, output.data(), wrapping);
    GetParam().derive(nullptr, 0, nullptr, 0, 1, output.data(),
                      wrapping - GetParam().digestSize + 1);
    EXPECT_EQ(output, Bytes(128, 0xEE));
}

TEST_P(PBKDF2, WritesOneBlockWhereTheBlockCountWrapsToOne) {
    Bytes output(GetParam().digestSize + 8, 0xEE);
    GetParam().derive(nullptr, 0, nullptr, 0, 1, output.data(), (std::size_t{1} << 32) + 1);
    Bytes expected = derive(GetParam(), Bytes(), Bytes(), 1, GetParam().digestSize);
    expected.insert(expected.end(), 8, 0xEE);
    EXPECT_EQ(output, expected);
}

} // namespace
