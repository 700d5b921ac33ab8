#include "KeyBagFixture.hpp"

#include <new>
#include <stdexcept>

namespace {

using namespace keybag_fixture;
using MB::KeyBag;

KeyBag::DeviceKey deviceKeyOf(const OracleKeyBag &oracle) {
    KeyBag::DeviceKey key{};
    std::copy(oracle["device"].begin(), oracle["device"].end(), key.begin());
    return key;
}

// The class block of a keybag that has only this one class.
KeyBag::LockedKey lockedKeyOf(const OracleKeyBag &oracle) {
    Records records = recordsOf(oracle.blob());
    return KeyBag::LockedKey(KeyBag::Block(records.begin() + kHeaderRecords, records.end()));
}

struct Fixture : testing::Test {
    const OracleKeyBag oracle{{"--classes", "2"}};
    const OracleKeyBag boundOracle{{"--classes", "", "--device-bound", "9"}};
    KeyBag::LockedKey locked = lockedKeyOf(oracle);
    KeyBag::LockedKey bound = lockedKeyOf(boundOracle);

    CF::Error unlockingError(const KeyBag::LockedKey &key, const Key &kek,
                             const std::optional<KeyBag::DeviceKey> &device = std::nullopt) {
        return errorOf([&] { KeyBag::UnlockedKey(key, kek, device); });
    }
};
using LockedKey = Fixture;
using UnlockedKey = Fixture;

TEST_F(LockedKey, ReadsItsBlock) {
    EXPECT_EQ(locked.protectionClass, 2U);
    EXPECT_EQ(locked.wrap, KeyBag::kWrappedUnderPassword);
    EXPECT_EQ(locked.keyType, 1U);
    EXPECT_EQ(bound.wrap, KeyBag::kWrappedUnderPassword | KeyBag::kWrappedUnderDeviceKey);
}

TEST_F(UnlockedKey, TakesThePasswordsWrapOff) {
    const KeyBag::UnlockedKey key(locked, oracle.key("kek"), std::nullopt);
    EXPECT_EQ(key.key, oracle.classKey(2));
    EXPECT_EQ(key.uuid, locked.uuid);
    EXPECT_EQ(key.keyType, locked.keyType);
}

TEST_F(UnlockedKey, NeedsNoDeviceKeyWithoutItsBit) {
    const KeyBag::UnlockedKey key(locked, oracle.key("kek"), KeyBag::DeviceKey{1});
    EXPECT_EQ(key.key, oracle.classKey(2));
}

TEST_F(UnlockedKey, TakesBothWrapsOff) {
    const KeyBag::UnlockedKey key(bound, boundOracle.key("kek"), deviceKeyOf(boundOracle));
    EXPECT_EQ(key.key, boundOracle.classKey(9));
}

TEST_F(UnlockedKey, RequiresTheDeviceKeyForItsBit) {
    try {
        KeyBag::UnlockedKey(bound, boundOracle.key("kek"), std::nullopt);
        FAIL() << "no exception";
    } catch (const std::invalid_argument &exception) {
        EXPECT_STREQ(exception.what(), "Cannot decode without deviceKey");
    }
}

TEST_F(UnlockedKey, TellsAWrongKeyEncryptionKey) {
    const CF::Error error = unlockingError(locked, Key{1});
    expectError(error, kKVErrorIncorrectPassword, "Key unwrap failed");
    EXPECT_EQ(CF::String(error.GetUnderlying().GetDomain()).GetUTF8(), "ZK.EncryptionErrorDomain");
}

TEST_F(UnlockedKey, RefusesAWrappedKeyAsTheKey) {
    locked.wrap = 0;
    expectLoneError(unlockingError(locked, oracle.key("kek")), kKVErrorInvalidKeyBag,
                    "Unwrapped bad key length");
}

TEST_F(UnlockedKey, IgnoresOtherBitsOfTheWrapFlags) {
    locked.wrap |= 0xFFFFFFFC;
    EXPECT_EQ(KeyBag::UnlockedKey(locked, oracle.key("kek"), std::nullopt).key, oracle.classKey(2));
}

TEST_F(UnlockedKey, OverwritesTheKeyWhenItGoes) {
    alignas(KeyBag::UnlockedKey) std::array<std::uint8_t, sizeof(KeyBag::UnlockedKey)> memory{};
    auto *key = ::new (memory.data()) KeyBag::UnlockedKey(locked, oracle.key("kek"), std::nullopt);
    const Key expected = oracle.classKey(2);
    const auto holdsKey = [&] {
        return std::search(memory.begin(), memory.end(), expected.begin(), expected.end()) !=
               memory.end();
    };
    EXPECT_TRUE(holdsKey());
    key->~UnlockedKey();
    EXPECT_FALSE(holdsKey());
}

// 40 bytes are no whole number of cipher blocks.
TEST_F(UnlockedKey, FailsToDecryptAKeyUnderTheDeviceKeyAlone) {
    bound.wrap = KeyBag::kWrappedUnderDeviceKey;
    const CF::Error error = unlockingError(bound, boundOracle.key("kek"), deviceKeyOf(boundOracle));
    ASSERT_TRUE(error);
    EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(kKVErrorCrypto));
    EXPECT_EQ(error.GetFailureReason().GetUTF8().rfind("Decrypt failed: ", 0), 0U);
}

} // namespace
