#include "tests/filestore/StoreFixture.hpp"

#include "support/zk/Math.hpp"
#include "tests/support/RunCommand.hpp"

namespace {

using namespace testing_support;
namespace FileManager = Kelvane::FileManager;

const FileKey kKey = KeyOf(5);
constexpr const char *kEmptyHash = "da39a3ee5e6b4b0d3255bfef95601890afd80709";

class CryptSizes : public Store, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(CryptSizes, DecryptionDeliversThePlaintextBothWays) {
    const Bytes plain = Pattern(GetParam());
    const Bytes stored = Encrypted(plain, kKey);
    const auto file = fileOf(stored);
    KVFileEnableDecryption(file.get(), kKey);
    EXPECT_EQ(KVFileGetSize(file.get()), plain.size());
    EXPECT_EQ(KVFileGetHash(file.get()), ZK::Encryption::Hash(plain));
    EXPECT_EQ(KVFileGetReferenceHash(file.get()), ZK::Encryption::Hash(stored));
    EXPECT_EQ(Contents(file), plain);
    EXPECT_EQ(Contents(file, 7), plain);
    const auto quick = KVFileGetDataQuickly(file.get());
    EXPECT_EQ(quick.has_value(), plain.empty() || stored.size() <= 32768);
    EXPECT_EQ(quick.value_or(plain), plain);
}

TEST_P(CryptSizes, EncryptionDeliversTheCiphertextBothWays) {
    const Bytes plain = Pattern(GetParam());
    const Bytes cipher = plain.empty() ? Bytes{} : Encrypted(plain, kKey);
    const auto file = fileOf(plain);
    KVFileEnableEncryption(file.get(), kKey);
    EXPECT_EQ(KVFileGetSize(file.get()), cipher.size());
    EXPECT_EQ(KVFileGetHash(file.get()), ZK::Encryption::Hash(cipher));
    EXPECT_EQ(KVFileGetReferenceHash(file.get()), ZK::Encryption::Hash(plain));
    EXPECT_EQ(Contents(file), cipher);
    EXPECT_EQ(KVFileGetDataQuickly(file.get()).value_or(cipher), cipher);
}

INSTANTIATE_TEST_SUITE_P(Sizes, CryptSizes,
                         ::testing::Values(0, 1, 15, 16, 17, 32751, 32752, 32767, 32768, 32769,
                                           65536, 100000));

class Crypt : public Store {
  protected:
    ~Crypt() override { FileManager::SetMaxMemorySize(FileManager::kDefaultMaxMemorySize); }
};

TEST_F(Crypt, AFileOfNoBytesDecryptsToNothing) {
    const auto file = fileOf(Bytes{});
    KVFileEnableDecryption(file.get(), kKey);
    EXPECT_EQ(KVFileGetSize(file.get()), 0U);
    EXPECT_EQ(ZK::Math::hex_encode(KVFileGetHash(file.get())), kEmptyHash);
    EXPECT_EQ(KVFileGetDataQuickly(file.get()), Bytes{});
    EXPECT_EQ(Contents(file), Bytes{});
}

TEST_F(Crypt, AFileOfNoBytesStaysEmptyWhenEncrypted) {
    const auto file = fileOf(Bytes{});
    KVFileEnableEncryption(file.get(), kKey);
    EXPECT_EQ(KVFileGetSize(file.get()), 0U);
    EXPECT_EQ(KVFileGetDataQuickly(file.get()), Bytes{});
    EXPECT_EQ(Contents(file), Bytes{});
}

TEST_F(Crypt, EndsWithACallForWhatTheCipherHeld) {
    const auto file = fileOf(Encrypted(Pattern(16), kKey));
    KVFileEnableDecryption(file.get(), kKey);
    std::vector<std::size_t> sizes;
    KVFileGetData(file.get(), 16, [&](const Bytes &bytes) {
        sizes.push_back(bytes.size());
        return sizes.size() < 3; // the last result is not looked at
    });
    EXPECT_EQ(sizes, (std::vector<std::size_t>{0, 16, 0}));
}

TEST_F(Crypt, WithoutIsNotFollowedByThatCall) {
    int calls = 0;
    KVFileGetData(fileOf(Pattern(16)).get(), 16, [&](const Bytes &) {
        ++calls;
        return true;
    });
    EXPECT_EQ(calls, 1);
}

TEST_F(Crypt, OnlyTheFirstSettingCounts) {
    const Bytes plain = Pattern(50);
    const auto file = fileOf(Encrypted(plain, kKey));
    KVFileEnableDecryption(file.get(), kKey);
    KVFileEnableDecryption(file.get(), KeyOf(99));
    KVFileEnableEncryption(file.get(), KeyOf(98));
    EXPECT_EQ(Contents(file), plain);
    EXPECT_EQ(file.get()->key.get(), kKey);
}

TEST_F(Crypt, StaysRegisteredUnderTheStoredBytes) {
    const Bytes stored = Encrypted(Pattern(60, 900), kKey);
    const Bytes hash = ZK::Encryption::Hash(stored);
    {
        const auto file = fileOf(stored);
        KVFileEnableDecryption(file.get(), kKey);
        EXPECT_EQ(FileManager::ReferenceCount(hash), 1U);
    }
    EXPECT_EQ(FileManager::ReferenceCount(hash), 0U);
}

TEST_F(Crypt, EqualityComparesWhatIsDelivered) {
    const Bytes plain = Pattern(50);
    const auto file = fileOf(Encrypted(plain, kKey));
    EXPECT_FALSE(CFEqual(file.get(), fileOf(plain).get()));
    KVFileEnableDecryption(file.get(), kKey);
    EXPECT_TRUE(CFEqual(file.get(), fileOf(plain).get()));
}

TEST_F(Crypt, WorksWhenTheMemoryLimitForbidsTheQuickWay) {
    FileManager::SetMaxMemorySize(0);
    const Bytes plain = Pattern(50);
    const auto file = fileOf(Encrypted(plain, kKey));
    KVFileEnableDecryption(file.get(), kKey);
    EXPECT_EQ(KVFileGetHash(file.get()), ZK::Encryption::Hash(plain));
    EXPECT_EQ(KVFileGetSize(file.get()), 50U);
}

TEST_F(Crypt, ASmallFileOfTheWrongLengthCannotBeDecrypted) {
    const auto file = fileOf(Pattern(17));
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { KVFileEnableDecryption(file.get(), kKey); }),
                        kKVErrorCrypto,
                        "Failed to rehash crypted file data: wrong final block length"));
}

TEST_F(Crypt, ALargeFileOfTheWrongLengthCannotBeDecrypted) {
    const auto file = fileOf(Pattern(100001));
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { KVFileEnableDecryption(file.get(), kKey); }),
                        kKVErrorCrypto, "Cryptor finalize failed: wrong final block length"));
}

TEST_F(Crypt, AfterAFailureCiphertextIsNeverDelivered) {
    const auto file = fileOf(Pattern(17));
    EXPECT_TRUE(ErrorThrownBy([&] { KVFileEnableDecryption(file.get(), kKey); }));
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { KVFileGetDataQuickly(file.get()); }), kKVErrorCrypto,
                        "Cryptor failed: wrong final block length"));
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { Contents(file); }), kKVErrorCrypto,
                        "Cryptor finalize failed: wrong final block length"));
    Kelvane::LocalError error;
    const auto ignore = [](const uint8_t *, CFIndex, void *) -> Boolean { return true; };
    EXPECT_FALSE(KVFileReadData(file.get(), 0, ignore, nullptr, error.out()));
    EXPECT_TRUE(
        IsError(error.get(), kKVErrorCrypto, "Cryptor finalize failed: wrong final block length"));
}

TEST_F(Crypt, DamagedPaddingIsNoticed) {
    Bytes stored = Encrypted(Pattern(40000), kKey);
    stored[stored.size() - 17] ^= 0x80; // makes the last byte of plaintext 0x80 too large
    const auto file = fileOf(stored);
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { KVFileEnableDecryption(file.get(), kKey); }),
                        kKVErrorCrypto, "Cryptor finalize failed: bad decrypt"));
}

TEST_F(Crypt, RefusesANullFile) {
    EXPECT_TRUE(IsError(ErrorThrownBy([] { KVFileEnableDecryption(nullptr, kKey); }),
                        kKVErrorInvalidArgument, ""));
    EXPECT_TRUE(IsError(ErrorThrownBy([] { KVFileEnableEncryption(nullptr, kKey); }),
                        kKVErrorInvalidArgument, ""));
}

TEST_F(Crypt, ReadsWhatTheOpenSSLToolEncrypted) {
    const Bytes plain = Pattern(123457);
    const auto path = directory.write("plain", plain);
    const auto result = RunCommand({"openssl", "enc", "-aes-256-cbc", "-K",
                                    ZK::Math::hex_encode(kKey), "-iv", std::string(32, '0'), "-in",
                                    path.string(), "-out", (directory / "cipher").string()});
    ASSERT_EQ(result.status, 0) << result.errors;
    const auto file = fileAt(directory / "cipher");
    KVFileEnableDecryption(file.get(), kKey);
    EXPECT_EQ(Contents(file), plain);
    EXPECT_EQ(KVFileGetHash(file.get()), ZK::Encryption::Hash(plain));
}

TEST_F(Crypt, KeysAreWipedWithTheFile) {
    // The body is destroyed in place, so that its memory can be looked at afterwards.
    alignas(KVFileClass) unsigned char memory[sizeof(KVFileClass)]{};
    auto *const file = ::new (memory) KVFileClass();
    file->key = kKey;
    const auto offset = static_cast<std::size_t>(
        reinterpret_cast<const unsigned char *>(file->key.get().data()) - memory);
    file->~KVFileClass();
    for (std::size_t i = 0; i < kKey.size(); ++i) {
        EXPECT_EQ(memory[offset + i], 0) << i;
    }
}

} // namespace
