#include "support/zk/Encryption.hpp"

#include "support/zk/Math.hpp"
#include "tests/support/Bytes.hpp"
#include "tests/support/RunCommand.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>
#include <openssl/err.h>

namespace {

using testing_support::Bytes;
using testing_support::BytesOf;
using testing_support::FromHex;
using testing_support::Pattern;
using testing_support::TemporaryDirectory;
using namespace ZK::Encryption;

const Bytes kKey256 = FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
const Bytes kKey128 = FromHex("2b7e151628aed2a6abf7158809cf4f3c");

Bytes encrypt(const Bytes &bytes, const Bytes &key = kKey256, const Bytes &iv = {}) {
    return Cryptor::Crypt(Operation::Encrypt, Algorithm::AES256, key, iv, bytes);
}

Bytes decrypt(const Bytes &bytes, const Bytes &key = kKey256, const Bytes &iv = {}) {
    return Cryptor::Decrypt(Algorithm::AES256, key, iv, bytes);
}

// Feeds the bytes in pieces of a size.
Bytes inPieces(Operation operation, const Bytes &bytes, std::size_t piece) {
    Cryptor cryptor(operation, Algorithm::AES256, kKey256, {});
    Bytes all;
    Bytes output;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        cryptor.Update(std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)), output);
        all.insert(all.end(), output.begin(), output.end());
    }
    const Bytes rest = cryptor.Finalize();
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
}

std::string reasonFor(const Bytes &ciphertext) {
    try {
        decrypt(ciphertext);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "no error";
}

struct CBCCase {
    Algorithm algorithm;
    Bytes key;
    const char *ciphertext;
};

// NIST SP 800-38A, F.2.1 and F.2.5: four blocks, to which PKCS #7 adds a fifth.
class CBCVectors : public ::testing::TestWithParam<CBCCase> {
  protected:
    const Bytes iv = FromHex("000102030405060708090a0b0c0d0e0f");
    const Bytes plain = FromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                                "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
};

TEST_P(CBCVectors, Encrypt) {
    const CBCCase &c = GetParam();
    const Bytes result = Cryptor::Crypt(Operation::Encrypt, c.algorithm, c.key, iv, plain);
    ASSERT_EQ(result.size(), plain.size() + 16);
    EXPECT_EQ(Bytes(result.begin(), result.begin() + 64), FromHex(c.ciphertext));
}

TEST_P(CBCVectors, Decrypt) {
    const CBCCase &c = GetParam();
    Cryptor cryptor(Operation::Decrypt, c.algorithm, c.key, iv);
    // The last block is held back: it may be padding.
    const Bytes result = cryptor.Update(FromHex(c.ciphertext));
    EXPECT_EQ(result, Bytes(plain.begin(), plain.begin() + 48));
}

INSTANTIATE_TEST_SUITE_P(
    SP80038A, CBCVectors,
    ::testing::Values(CBCCase{Algorithm::AES128, kKey128,
                              "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
                              "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
                      CBCCase{Algorithm::AES256, kKey256,
                              "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                              "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"}));

class CryptorLengths : public ::testing::TestWithParam<std::size_t> {};

TEST_P(CryptorLengths, EncryptionPadsToTheNextBlock) {
    EXPECT_EQ(encrypt(Pattern(GetParam())).size(), (GetParam() / 16 + 1) * 16);
}

TEST_P(CryptorLengths, DecryptionReturnsThePlaintext) {
    const Bytes plain = Pattern(GetParam());
    EXPECT_EQ(decrypt(encrypt(plain)), plain);
}

TEST_P(CryptorLengths, PiecesGiveTheSameAsOneShot) {
    const Bytes plain = Pattern(GetParam());
    const Bytes whole = encrypt(plain);
    for (const std::size_t piece : {1U, 15U, 16U, 17U, 4096U}) {
        EXPECT_EQ(inPieces(Operation::Encrypt, plain, piece), whole) << piece;
        EXPECT_EQ(inPieces(Operation::Decrypt, whole, piece), plain) << piece;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, CryptorLengths,
                         ::testing::Values(0, 1, 15, 16, 17, 31, 32, 33, 4095, 4096, 32767, 32768,
                                           32769));

TEST(Cryptor, AgreesWithTheOpenSSLTool) {
    const Bytes plain = Pattern(1000);
    const auto result =
        testing_support::RunCommand({"openssl", "enc", "-aes-256-cbc", "-K",
                                     ZK::Math::hex_encode(kKey256), "-iv", std::string(32, '0')},
                                    testing_support::TextOf(plain));
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(encrypt(plain), BytesOf(result.output));
}

TEST(Cryptor, AgreesWithPythonCryptography) {
    const Bytes plain = Pattern(333);
    const auto result = testing_support::RunPython(
        "import sys\n"
        "from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes\n"
        "d=Cipher(algorithms.AES(bytes.fromhex(sys.argv[1])),modes.CBC(bytes(16))).decryptor()\n"
        "p=d.update(sys.stdin.buffer.read())+d.finalize()\n"
        "sys.stdout.buffer.write(p[:-p[-1]])",
        {ZK::Math::hex_encode(kKey256)}, testing_support::TextOf(encrypt(plain)));
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(BytesOf(result.output), plain);
}

TEST(Cryptor, EmptyInitialValueMeansZeros) {
    const Bytes plain = Pattern(40);
    EXPECT_EQ(encrypt(plain, kKey256, {}), encrypt(plain, kKey256, Bytes(16, 0)));
}

TEST(Cryptor, DecryptorFedNothingFinalisesToNothing) {
    Cryptor cryptor(Operation::Decrypt, Algorithm::AES256, kKey256, {});
    EXPECT_EQ(cryptor.Update(Bytes{}), Bytes{});
    EXPECT_EQ(cryptor.Finalize(), Bytes{});
}

TEST(Cryptor, EncryptorFedNothingGivesABlockOfPadding) {
    EXPECT_EQ(decrypt(encrypt(Bytes{})), Bytes{});
    EXPECT_EQ(encrypt(Bytes{}).size(), 16U);
}

TEST(Cryptor, RefusesTruncatedCiphertextAtEveryLength) {
    const Bytes whole = encrypt(Pattern(40));
    for (std::size_t length = 1; length < whole.size(); ++length) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        if (length % 16 != 0) {
            EXPECT_EQ(reasonFor(cut), "wrong final block length") << length;
        }
    }
}

TEST(Cryptor, RefusesWrongPadding) {
    // Plaintext whose last byte, read as padding, is impossible: 17 and 0.
    Bytes block = Pattern(32);
    for (const std::uint8_t last : {std::uint8_t{17}, std::uint8_t{0}}) {
        block.back() = last;
        Bytes encrypted = encrypt(block);
        encrypted.resize(32); // drops the block of real padding
        EXPECT_EQ(reasonFor(encrypted), "bad decrypt") << int{last};
    }
}

TEST(Cryptor, RefusesAKeyOfTheWrongSize) {
    for (const std::size_t size : {0U, 16U, 31U, 33U}) {
        EXPECT_THROW(Cryptor(Operation::Encrypt, Algorithm::AES256, Bytes(size), {}),
                     std::invalid_argument);
    }
    EXPECT_THROW(Cryptor(Operation::Encrypt, Algorithm::AES128, Bytes(32), {}),
                 std::invalid_argument);
}

TEST(Cryptor, RefusesAnInitialValueOfTheWrongSize) {
    EXPECT_THROW(Cryptor(Operation::Encrypt, Algorithm::AES256, kKey256, Bytes(8)),
                 std::invalid_argument);
}

TEST(Cryptor, RefusesAnUnknownAlgorithm) {
    EXPECT_THROW(Cryptor(Operation::Encrypt, static_cast<Algorithm>(2), kKey256, {}),
                 std::invalid_argument);
}

TEST(Cryptor, StreamsFromFileToFile) {
    const TemporaryDirectory directory;
    const Bytes plain = Pattern(300001);
    ZK::file::readable_file source(directory.write("cipher", encrypt(plain)));
    auto destination = ZK::file::writable_file::create_new(directory / "plain");
    Cryptor::Crypt(Operation::Decrypt, Algorithm::AES256, kKey256, {}, source, destination);
    destination.close();
    EXPECT_EQ(testing_support::ReadFile(directory / "plain"), plain);
}

TEST(Cryptor, LeavesNoErrorsInTheHostsQueue) {
    EXPECT_EQ(reasonFor(Bytes(15)), "wrong final block length");
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

} // namespace
