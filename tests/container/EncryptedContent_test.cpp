// Against the openssl tool, which encrypts and decrypts the same.
#include "container/EncryptedContent.hpp"

#include "support/zk/Encryption.hpp"
#include "tests/container/BackupFixture.hpp"
#include "tests/support/RunCommand.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace container_tests {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Kelvane::ContentKey;
using Kelvane::DecryptedContent;
using Kelvane::EncryptedContent;
using Kelvane::PlainFacts;

constexpr const char *kZeroIV = "00000000000000000000000000000000";

ContentKey someKey() {
    ContentKey key;
    for (std::size_t i = 0; i < key.size(); ++i) {
        key[i] = static_cast<std::uint8_t>(7 * i + 3);
    }
    return key;
}

std::string hexOf(const ContentKey &key) {
    std::string text;
    for (const std::uint8_t byte : key) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

Bytes someBytes(std::size_t size) {
    Bytes bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(i * i / 7));
    }
    return bytes;
}

ZK::file::unique_descriptor opened(const std::string &path) {
    return ZK::file::unique_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

Bytes readAll(const Kelvane::ExportContent &content) {
    Bytes bytes;
    content.Read([&](std::span<const std::uint8_t> piece) {
        bytes.insert(bytes.end(), piece.begin(), piece.end());
    });
    return bytes;
}

class CryptedContent : public testing::TestWithParam<std::size_t> {
  protected:
    std::string write(const char *name, const Bytes &bytes) const {
        directory_.write(name, std::string(bytes.begin(), bytes.end()));
        return (directory_ / name).string();
    }
    Bytes byOpenSSL(const std::string &path, bool decrypt) const {
        const std::string output = (directory_ / "openssl").string();
        const auto result = testing_support::RunCommand(
            {"openssl", "enc", decrypt ? "-d" : "-e", "-aes-256-cbc", "-K", hexOf(someKey()), "-iv",
             kZeroIV, "-in", path, "-out", output});
        EXPECT_EQ(result.status, 0) << result.errors;
        return testing_support::ReadFile(output);
    }

    const testing_support::TemporaryDirectory directory_;
};

TEST_P(CryptedContent, IsEncryptedAsOthersDo) {
    const std::string path = write("plain", someBytes(GetParam()));
    const EncryptedContent content(ZK::file::readable_file(path), someKey());
    const Bytes encrypted = readAll(content);
    EXPECT_EQ(encrypted, byOpenSSL(path, false));
    EXPECT_EQ(content.Size(), encrypted.size());
}

TEST_P(CryptedContent, IsDecryptedWithItsSizeAndDigest) {
    const Bytes plain = someBytes(GetParam());
    const std::string stored = write("stored", byOpenSSL(write("plain", plain), false));
    PlainFacts facts;
    const DecryptedContent content(opened(stored), someKey(), facts);
    EXPECT_EQ(content.Size(), plain.size());
    EXPECT_EQ(readAll(content), plain);
    EXPECT_EQ(facts.size, plain.size());
    EXPECT_EQ(facts.storedSize, (plain.size() / 16 + 1) * 16);
    EXPECT_EQ(facts.digest, ZK::Encryption::SHA1(plain));
}

INSTANTIATE_TEST_SUITE_P(Sizes, CryptedContent,
                         testing::Values(0, 1, 15, 16, 17, 31, 32, 33, 262'143, 262'144, 700'001));

TEST(DecryptedContent, OfNoBytesAtAllIsNothing) {
    const testing_support::TemporaryDirectory directory;
    directory.write("stored", "");
    PlainFacts facts;
    const DecryptedContent content(opened((directory / "stored").string()), someKey(), facts);
    EXPECT_EQ(content.Size(), 0u);
    EXPECT_TRUE(readAll(content).empty());
}

TEST(DecryptedContent, RefusesWhatIsNoCiphertext) {
    const testing_support::TemporaryDirectory directory;
    for (const std::size_t size : {1u, 15u, 16u, 17u, 48u}) {
        const Bytes bytes = someBytes(size);
        directory.write("stored", std::string(bytes.begin(), bytes.end()));
        PlainFacts facts;
        try {
            const DecryptedContent content(opened((directory / "stored").string()), someKey(),
                                           facts);
            ADD_FAILURE() << size;
        } catch (const CF::Error &error) {
            EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorCrypto));
            EXPECT_TRUE(error.GetFailureReason().GetUTF8().starts_with("Failed to decrypt: "));
        }
    }
}

TEST(EncryptedContent, KnowsTheDigestOfAnEmptyFile) {
    const testing_support::TemporaryDirectory directory;
    directory.write("plain", "");
    const EncryptedContent content(ZK::file::readable_file((directory / "plain").string()),
                                   someKey());
    EXPECT_EQ(Kelvane::DigestOfEncryptedNothing(someKey()), ZK::Encryption::SHA1(readAll(content)));
}

} // namespace
} // namespace container_tests
