#include "support/zk/Encryption.hpp"

#include "support/zk/Math.hpp"
#include "tests/support/Bytes.hpp"
#include "tests/support/RunCommand.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include <sys/stat.h>

namespace {

using testing_support::Bytes;
using testing_support::BytesOf;
using testing_support::Pattern;
using testing_support::TemporaryDirectory;
using namespace ZK::Encryption;

std::string hexHash(const std::string &text) { return ZK::Math::hex_encode(Hash(BytesOf(text))); }

struct HashCase {
    std::string text;
    const char *digest;
};

// FIPS 180 examples.
class SHA1Vectors : public ::testing::TestWithParam<HashCase> {};

TEST_P(SHA1Vectors, InOnePiece) { EXPECT_EQ(hexHash(GetParam().text), GetParam().digest); }

TEST_P(SHA1Vectors, InManyPieces) {
    const Bytes bytes = BytesOf(GetParam().text);
    Hasher hasher;
    for (std::size_t at = 0; at < bytes.size(); at += 7) {
        hasher.Update(std::span(bytes).subspan(at, std::min<std::size_t>(7, bytes.size() - at)));
    }
    EXPECT_EQ(ZK::Math::hex_encode(hasher.Finalize()), GetParam().digest);
}

TEST_P(SHA1Vectors, OfAFile) {
    const TemporaryDirectory directory;
    const auto path = directory.write("file", GetParam().text);
    EXPECT_EQ(ZK::Math::hex_encode(HashOfFile(path)), GetParam().digest);
}

INSTANTIATE_TEST_SUITE_P(
    FIPS180, SHA1Vectors,
    ::testing::Values(HashCase{"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
                      HashCase{"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
                      HashCase{"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                               "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
                      HashCase{std::string(1000000, 'a'),
                               "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}));

TEST(SHA1, AgreesWithPythonOverManyLengths) {
    const Bytes bytes = Pattern(300);
    std::string ours;
    for (std::size_t length = 0; length <= bytes.size(); ++length) {
        ours += ZK::Math::hex_encode(SHA1(std::span(bytes).first(length))) + "\n";
    }
    const auto result = testing_support::RunPython(
        "import sys,hashlib\nb=sys.stdin.buffer.read()\n"
        "for n in range(len(b)+1): print(hashlib.sha1(b[:n]).hexdigest())",
        {}, testing_support::TextOf(bytes));
    EXPECT_EQ(ours, result.output) << result.errors;
}

TEST(SHA1, WorksOnSeveralThreads) {
    std::vector<std::string> digests(4);
    std::vector<std::thread> threads;
    for (std::string &digest : digests) {
        threads.emplace_back([&digest] { digest = hexHash("abc"); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(digests, std::vector<std::string>(4, "a9993e364706816aba3e25717850c26c9cd0d89d"));
}

TEST(Hash, RefusesAnUnknownAlgorithm) {
    EXPECT_THROW(Hash(Bytes{}, static_cast<HashAlgorithm>(9)), std::invalid_argument);
    EXPECT_THROW(Hasher(static_cast<HashAlgorithm>(0)), std::invalid_argument);
}

TEST(HashOfFile, GoesOverSeveralBuffers) {
    const TemporaryDirectory directory;
    const Bytes bytes = Pattern(3 * 256 * 1024 + 5);
    EXPECT_EQ(HashOfFile(directory.write("large", bytes)), Hash(bytes));
}

TEST(HashOfFile, FailsForAMissingFile) {
    const TemporaryDirectory directory;
    try {
        HashOfFile(directory / "none");
        FAIL() << "no exception";
    } catch (const boost::system::system_error &error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_STREQ(error.what(), "open: No such file or directory");
    }
}

TEST(HashOfFile, RefusesAFifoWithoutWaiting) {
    const TemporaryDirectory directory;
    const auto path = directory / "fifo";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    try {
        HashOfFile(path);
        FAIL() << "no exception";
    } catch (const boost::system::system_error &error) {
        EXPECT_EQ(error.code().value(), EOPNOTSUPP);
    }
}

TEST(HashOfFile, RefusesADirectory) {
    const TemporaryDirectory directory;
    try {
        HashOfFile(directory.path());
        FAIL() << "no exception";
    } catch (const boost::system::system_error &error) {
        EXPECT_EQ(error.code().value(), EISDIR);
    }
}

} // namespace
