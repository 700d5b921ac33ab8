// Whole files and texts, against the openssl program.
#include "KeyBagFixture.hpp"
#include "support/cf/Extensions.hpp"
#include "tests/support/FailingCalls.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <gmock/gmock.h>

#include <sys/stat.h>

namespace {

using namespace keybag_fixture;
using MB::ManifestEncryption;
using testing::StartsWith;
using testing_support::ReadFile;
using testing_support::TemporaryDirectory;
using Path = ZK::filesystem::path;

const Key kKey = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80, 0x91, 0xA2};
const ManifestEncryption::Key128 kKey128 = {9, 8, 7, 6, 5, 4, 3, 2, 1};

Bytes content(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
    }
    return bytes;
}

// openssl's view of the same cipher: zero initial value, no salt, the key as it is.
template <std::size_t N>
void runOpenSSL(const char *mode, const std::array<std::uint8_t, N> &key, const Path &source,
                const Path &destination) {
    oracle::outputOf({"openssl", "enc", mode, N == 16 ? "-aes-128-cbc" : "-aes-256-cbc", "-K",
                      oracle::toHex(key), "-iv", std::string(32, '0'), "-in", source.string(),
                      "-out", destination.string()});
}

class CryptedFile : public testing::TestWithParam<std::size_t> {
  protected:
    template <std::size_t N>
    void expectDecryption(const std::array<std::uint8_t, N> &key) {
        const Bytes plain = content(GetParam());
        const Path source = directory_.write("plain", plain);
        runOpenSSL("-e", key, source, directory_ / "encrypted");
        ManifestEncryption::DecryptFile(directory_ / "encrypted", directory_ / "decrypted", key);
        EXPECT_EQ(ReadFile(directory_ / "decrypted"), plain);
    }
    template <std::size_t N>
    void expectEncryption(const std::array<std::uint8_t, N> &key) {
        const Bytes plain = content(GetParam());
        const Path source = directory_.write("plain", plain);
        ManifestEncryption::EncryptFile(source, directory_ / "encrypted", key);
        runOpenSSL("-d", key, directory_ / "encrypted", directory_ / "decrypted");
        EXPECT_EQ(ReadFile(directory_ / "decrypted"), plain);
        EXPECT_EQ(ReadFile(directory_ / "encrypted").size(), (plain.size() / 16 + 1) * 16);
    }
    TemporaryDirectory directory_;
};
INSTANTIATE_TEST_SUITE_P(OfSize, CryptedFile,
                         testing::Values(0, 1, 15, 16, 17, 4095, 4096, 32767, 32768, 32769, 65536,
                                         100000, 1048576 + 5));

TEST_P(CryptedFile, IsDecryptedWith32ByteKey) { expectDecryption(kKey); }
TEST_P(CryptedFile, IsDecryptedWith16ByteKey) { expectDecryption(kKey128); }
TEST_P(CryptedFile, IsEncryptedWith32ByteKey) { expectEncryption(kKey); }
TEST_P(CryptedFile, IsEncryptedWith16ByteKey) { expectEncryption(kKey128); }

class FileCrypt : public testing::Test {
  protected:
    CF::Error decryptingError(const Path &source, const Path &destination) {
        return errorOf([&] { ManifestEncryption::DecryptFile(source, destination, kKey); });
    }
    void expectFilesystemError(const CF::Error &error, int errnum) {
        ASSERT_TRUE(error);
        EXPECT_TRUE(CFEqual(error.GetDomain(), kKVErrorDomain));
        EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
        EXPECT_THAT(error.GetFailureReason().GetUTF8(), StartsWith("Failed to decrypt/encrypt: "));
        EXPECT_TRUE(
            CFErrorDomainAndCodeMatch(error.GetUnderlying().get(), kCFErrorDomainPOSIX, errnum));
    }
    void expectCryptoError(const CF::Error &error) {
        ASSERT_TRUE(error);
        EXPECT_TRUE(CFEqual(error.GetDomain(), kKVErrorDomain));
        EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorCrypto));
        EXPECT_THAT(error.GetFailureReason().GetUTF8(), StartsWith("Failed to decrypt/encrypt: "));
        EXPECT_FALSE(error.GetUnderlying());
    }
    TemporaryDirectory directory_;
};

TEST_F(FileCrypt, DecryptsAFileWithoutContentToNothing) {
    ManifestEncryption::DecryptFile(directory_.write("empty", Bytes()), directory_ / "out", kKey);
    EXPECT_EQ(ReadFile(directory_ / "out"), Bytes());
}

TEST_F(FileCrypt, TruncatesADestinationThatExists) {
    const Path source = directory_.write("plain", content(10));
    const Path destination = directory_.write("out", content(1000));
    ManifestEncryption::EncryptFile(source, destination, kKey);
    EXPECT_EQ(ReadFile(destination).size(), 16U);
}

TEST_F(FileCrypt, CreatesFilesThatNobodyElseReads) {
    ManifestEncryption::EncryptFile(directory_.write("plain", content(10)), directory_ / "out",
                                    kKey);
    struct stat status {};
    ASSERT_EQ(::stat((directory_ / "out").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(FileCrypt, ReportsAMissingSource) {
    expectFilesystemError(decryptingError(directory_ / "missing", directory_ / "out"), ENOENT);
}

TEST_F(FileCrypt, ReportsADestinationThatCannotBeCreated) {
    const Path source = directory_.write("source", content(16));
    expectFilesystemError(decryptingError(source, directory_ / "missing" / "out"), ENOENT);
}

TEST_F(FileCrypt, RefusesAFIFOWithoutWaiting) {
    const Path fifo = directory_ / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const CF::Error error = decryptingError(fifo, directory_ / "out");
    EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorFilesystem));
}

TEST_F(FileCrypt, ReportsContentOfTheWrongLength) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{15}, std::size_t{33}}) {
        const Path source = directory_.write("source", content(size));
        expectCryptoError(decryptingError(source, directory_ / "out"));
    }
}

TEST_F(FileCrypt, ReportsWrongPadding) {
    // The last block decrypts to sixteen zeros, which no padding ends with.
    ManifestEncryption::EncryptFile(directory_.write("plain", Bytes(16)), directory_ / "whole",
                                    kKey);
    Bytes encrypted = ReadFile(directory_ / "whole");
    encrypted.resize(16);
    const Path source = directory_.write("source", encrypted);
    expectCryptoError(decryptingError(source, directory_ / "out"));
}

TEST_F(FileCrypt, LeavesNoPlaintextOfContentThatDoesNotDecrypt) {
    const Path source = directory_.write("source", content(1000001));
    expectCryptoError(decryptingError(source, directory_ / "out"));
    EXPECT_FALSE(boost::filesystem::exists(directory_ / "out"));
}

TEST_F(FileCrypt, LeavesADestinationThatWasThere) {
    const Path source = directory_.write("source", content(33));
    const Path destination = directory_.write("out", content(10));
    expectCryptoError(decryptingError(source, destination));
    EXPECT_TRUE(boost::filesystem::exists(destination));
}

TEST_F(FileCrypt, ReportsAFileThatCannotBeClosedAndLeavesNone) {
    const Path source = directory_.write("plain", content(100));
    const testing_support::FailingCall closing(testing_support::Call::Close, EDQUOT);
    const CF::Error error =
        errorOf([&] { ManifestEncryption::EncryptFile(source, directory_ / "out", kKey); });
    expectFilesystemError(error, EDQUOT);
    EXPECT_FALSE(boost::filesystem::exists(directory_ / "out"));
}

TEST_F(FileCrypt, ReleasesItsLocksOnEveryPath) {
    const Path source = directory_.write("source", content(15));
    const Path destination = directory_ / "out";
    expectCryptoError(decryptingError(source, destination));
    ManifestEncryption::EncryptFile(source, destination, kKey);
    ManifestEncryption::DecryptFile(destination, source, kKey);
    EXPECT_EQ(ReadFile(source), content(15));
}

// ---- Texts ----------------------------------------------------------------------

std::string encryptedText(const TemporaryDirectory &directory, std::string_view text) {
    const Path source = directory.write("text", text);
    return oracle::outputOf({"openssl", "enc", "-e", "-aes-128-cbc", "-a", "-K",
                             oracle::toHex(kKey128), "-iv", std::string(32, '0'), "-in",
                             source.string()});
}

TEST(DecryptString, DecryptsWhatOpenSSLEncrypted) {
    const TemporaryDirectory directory;
    for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 1000U}) {
        const std::string text(size, 'x');
        EXPECT_EQ(ManifestEncryption::DecryptString(encryptedText(directory, text), kKey128),
                  oracle::bytesOf(text));
    }
}

TEST(DecryptString, GivesNothingForNothing) {
    EXPECT_EQ(ManifestEncryption::DecryptString("", kKey128), Bytes());
}

TEST(DecryptString, ReportsTextThatCannotBeDecrypted) {
    for (const char *text : {"AAAA", "no base64!", "A", "AAAAAAAAAAAAAAAAAAAAAA=="}) {
        const CF::Error error = errorOf([&] { ManifestEncryption::DecryptString(text, kKey128); });
        ASSERT_TRUE(error) << text;
        EXPECT_TRUE(CFEqual(error.GetDomain(), kKVErrorDomain));
        EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorCrypto));
        EXPECT_THAT(error.GetFailureReason().GetUTF8(), StartsWith("Decrypt failed: "));
    }
}

} // namespace
