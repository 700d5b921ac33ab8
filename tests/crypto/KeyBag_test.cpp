#include "KeyBagFixture.hpp"

#include <thread>

namespace {

using namespace keybag_fixture;
using MB::DeviceBoundKeys;
using MB::KeyBag;

// ---- Opening --------------------------------------------------------------------

struct Flavour {
    const char *name;
    std::vector<std::string> options;
};
class KeyBagFlavour : public testing::TestWithParam<Flavour> {};

TEST_P(KeyBagFlavour, OpensEveryClassKey) {
    const OracleKeyBag oracle(GetParam().options);
    const KeyBag keyBag = opened(oracle.blob());
    EXPECT_EQ(keyBag.GetClassKeys().size(), 7U);
    for (const unsigned int number : {1U, 2U, 3U, 4U, 6U, 7U, 8U}) {
        const auto *found = keyBag.FindClassKey(number);
        ASSERT_NE(found, nullptr) << number;
        EXPECT_EQ(found->key, oracle.classKey(number)) << number;
    }
}
INSTANTIATE_TEST_SUITE_P(
    Devices, KeyBagFlavour,
    testing::Values(Flavour{"current", {}}, Flavour{"older", {"--version", "3"}},
                    Flavour{"shuffled", {"--shuffle", "--seed", "7"}},
                    Flavour{"type0", {"--type", "0"}}, Flavour{"type2", {"--type", "2"}},
                    Flavour{"type3", {"--type", "3"}}, Flavour{"noDPIC", {"--dpic", "0"}},
                    Flavour{"noITER", {"--iter", "0"}}, Flavour{"oneOfEach", {"--dpic", "1"}}),
    [](const auto &test) { return std::string(test.param.name); });

TEST(KeyBag, KeepsVersionTypeAndHeader) {
    const OracleKeyBag oracle({"--version", "3", "--type", "2", "--dpic", "21", "--iter", "11"});
    Records records = recordsOf(oracle.blob());
    find(records, "WRAP")->second = bigEndian(6);
    find(records, "DPWT")->second = bigEndian(7);
    const KeyBag keyBag = opened(blobOf(records));
    EXPECT_EQ(keyBag.GetVersion(), 3U);
    EXPECT_EQ(keyBag.GetType(), 2U);
    const KeyBag::ManifestInfo &info = keyBag.GetManifestInfo();
    EXPECT_EQ(Bytes(info.uuid.begin(), info.uuid.end()), find(records, "UUID")->second);
    EXPECT_EQ(Bytes(info.hmck.begin(), info.hmck.end()), find(records, "HMCK")->second);
    EXPECT_EQ(Bytes(info.salt.begin(), info.salt.end()), find(records, "SALT")->second);
    EXPECT_EQ(Bytes(info.dpsl.begin(), info.dpsl.end()), find(records, "DPSL")->second);
    EXPECT_EQ(info.wrap, 6U);
    EXPECT_EQ(info.dpwt, 7U);
    EXPECT_EQ(info.dpic, 21U);
    EXPECT_EQ(info.iterations, 11U);
}

TEST(KeyBag, KeepsUUIDAndTypeOfClassKeys) {
    const OracleKeyBag oracle({"--classes", "1,2"});
    Records records = recordsOf(oracle.blob());
    const KeyBag keyBag = opened(oracle.blob());
    const auto *found = keyBag.FindClassKey(2);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->keyType, 1U);
    EXPECT_EQ(Bytes(found->uuid.begin(), found->uuid.end()),
              find(records, "UUID", kHeaderRecords + 5)->second);
}

TEST(KeyBag, HasNoKeyOfClassesThatItDoesNotHold) {
    EXPECT_EQ(opened(OracleKeyBag({"--classes", "4"}).blob()).FindClassKey(3), nullptr);
}

TEST(KeyBag, TakesFieldsOfABlockInAnyOrder) {
    const OracleKeyBag oracle({"--classes", "4"});
    Records records = recordsOf(oracle.blob());
    std::reverse(records.begin() + 3, records.begin() + kHeaderRecords);
    std::reverse(records.begin() + kHeaderRecords + 1, records.end());
    EXPECT_EQ(opened(blobOf(records)).FindClassKey(4)->key, oracle.classKey(4));
}

TEST(KeyBag, PassesOverTagsThatItDoesNotKnow) {
    const OracleKeyBag oracle({"--classes", "4"});
    Records records = recordsOf(oracle.blob());
    records.insert(records.begin() + 3, {"XTRA", Bytes(100, 1)});
    records.emplace_back("PBKY", Bytes(32, 2));
    records.emplace_back(std::string("\0\xFF\x80z", 4), Bytes());
    EXPECT_EQ(opened(blobOf(records)).FindClassKey(4)->key, oracle.classKey(4));
}

TEST(KeyBag, TakesTheFirstOfFieldsThatRepeat) {
    const OracleKeyBag oracle({"--classes", "4"});
    Records records = recordsOf(oracle.blob());
    records.insert(records.begin() + kHeaderRecords, {"SALT", Bytes(20, 9)});
    records.emplace_back("WPKY", Bytes(40, 9));
    records.emplace_back("CLAS", bigEndian(5));
    EXPECT_EQ(opened(blobOf(records)).FindClassKey(4)->key, oracle.classKey(4));
}

TEST(KeyBag, TakesTheFirstOfClassesThatRepeat) {
    const OracleKeyBag oracle({"--classes", "3,4"});
    Records records = recordsOf(oracle.blob());
    find(records, "CLAS", kHeaderRecords + 5)->second = bigEndian(3);
    const KeyBag keyBag = opened(blobOf(records));
    EXPECT_EQ(keyBag.GetClassKeys().size(), 1U);
    EXPECT_EQ(keyBag.FindClassKey(3)->key, oracle.classKey(3));
}

TEST(KeyBag, OpensClassesThatRepeatNoneTheLess) {
    Records records = recordsOf(OracleKeyBag({"--classes", "3,4"}).blob());
    find(records, "CLAS", kHeaderRecords + 5)->second = bigEndian(3);
    find(records, "WPKY", kHeaderRecords + 5)->second = Bytes(40, 1);
    expectWrongPassword(openingError(blobOf(records)), 3);
}

TEST(KeyBag, IgnoresUpToSevenBytesAtTheEnd) {
    const OracleKeyBag oracle({"--classes", "4"});
    Bytes blob = oracle.blob();
    for (int count = 1; count <= 7; ++count) {
        blob.push_back('W');
        EXPECT_EQ(opened(blob).FindClassKey(4)->key, oracle.classKey(4)) << count;
    }
}

TEST(KeyBag, WithoutClassesOpensWithEveryPassword) {
    const Bytes blob = OracleKeyBag({"--classes", ""}).blob();
    EXPECT_TRUE(opened(blob, "anything").GetClassKeys().empty());
}

TEST(KeyBag, TakesPasswordsAsTheyAre) {
    const std::string password = "pass w\xC3\xB6rd \xF0\x9F\x94\x91";
    const OracleKeyBag oracle({"--classes", "4", "--password", password});
    EXPECT_EQ(opened(oracle.blob(), password).FindClassKey(4)->key, oracle.classKey(4));
}

TEST(KeyBag, OpensWithAnEmptyPasswordWhenThatIsIt) {
    const OracleKeyBag oracle({"--classes", "4", "--password", ""});
    EXPECT_EQ(opened(oracle.blob(), "").FindClassKey(4)->key, oracle.classKey(4));
}

// ---- Wrong passwords and damaged keys -------------------------------------------

TEST(KeyBag, ReportsAWrongPasswordAtTheFirstClass) {
    const OracleKeyBag oracle({"--classes", "6,7"});
    for (const char *password : {"wrong", "", "correct horse ", "Correct horse"}) {
        SCOPED_TRACE(password);
        expectWrongPassword(openingError(oracle.blob(), password), 6);
    }
}

TEST(KeyBag, KeepsTheCauseOfAWrongPassword) {
    const CF::Error error = openingError(OracleKeyBag({"--classes", "6"}).blob(), "wrong");
    const CF::Error cause = error.GetUnderlying().GetUnderlying();
    ASSERT_TRUE(cause);
    EXPECT_EQ(CF::String(cause.GetDomain()).GetUTF8(), "ZK.EncryptionErrorDomain");
}

TEST(KeyBag, MarksOnlyTheWrongPasswordItselfAsFriendly) {
    const CF::Error error = openingError(OracleKeyBag({"--classes", "6"}).blob(), "wrong");
    const auto isFriendly = [](const CF::Error &one) {
        const auto info = CF::Dictionary::Adopt(CFErrorCopyUserInfo(one.get()));
        return info.GetValue(kCFErrorIsFriendlyKey) == kCFBooleanTrue;
    };
    EXPECT_FALSE(isFriendly(error));
    EXPECT_TRUE(isFriendly(error.GetUnderlying()));
}

TEST(KeyBag, ReportsADamagedKeyWithItsClass) {
    Records records = recordsOf(OracleKeyBag({"--classes", "6,7"}).blob());
    find(records, "WPKY", kHeaderRecords + 5)->second[39] ^= 1;
    expectWrongPassword(openingError(blobOf(records)), 7);
}

TEST(KeyBag, RefusesAKeyWithoutAnyWrap) {
    Records records = recordsOf(OracleKeyBag({"--classes", "4"}).blob());
    find(records, "WRAP", kHeaderRecords)->second = bigEndian(0);
    const CF::Error error = openingError(blobOf(records));
    expectError(error, kKVErrorUnlockFailed, "Failed to unlock a key (class 4)");
    expectLoneError(error.GetUnderlying(), kKVErrorInvalidKeyBag, "Unwrapped bad key length");
}

// ---- Class keys bound to the device ---------------------------------------------

TEST(KeyBag, FailsForAKeyBoundToTheDevice) {
    const OracleKeyBag oracle({"--classes", "1,4", "--device-bound", "9"});
    expectLoneError(openingError(oracle.blob()), kKVErrorUnlockFailed,
                    "Failed to unlock a key (class 9): Cannot decode without deviceKey");
}

TEST(KeyBag, FailsForAKeyUnderTheDeviceKeyAlone) {
    Records records = recordsOf(OracleKeyBag({"--classes", "4"}).blob());
    find(records, "WRAP", kHeaderRecords)->second = bigEndian(1);
    expectLoneError(openingError(blobOf(records)), kKVErrorUnlockFailed,
                    "Failed to unlock a key (class 4): Cannot decode without deviceKey");
}

TEST(KeyBag, ReportsAWrongPasswordBeforeTheMissingDeviceKey) {
    const OracleKeyBag oracle({"--classes", "", "--device-bound", "9"});
    expectWrongPassword(openingError(oracle.blob(), "wrong"), 9);
}

TEST(KeyBag, LeavesDeviceBoundClassesOutOnRequest) {
    const OracleKeyBag oracle(
        {"--classes", "1,2,3,4,6,7,8", "--device-bound", "5,9,10,11", "--shuffle"});
    const KeyBag keyBag = opened(oracle.blob(), kPassword, DeviceBoundKeys::KeepLocked);
    EXPECT_EQ(keyBag.GetClassKeys().size(), 7U);
    for (const unsigned int number : {1U, 2U, 3U, 4U, 6U, 7U, 8U}) {
        EXPECT_EQ(keyBag.FindClassKey(number)->key, oracle.classKey(number)) << number;
    }
    for (const unsigned int number : {5U, 9U, 10U, 11U}) {
        EXPECT_EQ(keyBag.FindClassKey(number), nullptr) << number;
    }
}

TEST(KeyBag, LeavesDeviceBoundKeysAloneWhenOthersTellThePassword) {
    Records records = recordsOf(OracleKeyBag({"--classes", "4,6", "--device-bound", "5"}).blob());
    find(records, "WPKY", kHeaderRecords + 5)->second = Bytes(40, 0x5A); // no key at all
    const KeyBag keyBag = opened(blobOf(records), kPassword, DeviceBoundKeys::KeepLocked);
    EXPECT_EQ(keyBag.GetClassKeys().size(), 2U);
}

TEST(KeyBag, LeavesOutKeysUnderTheDeviceKeyAloneToo) {
    Records records = recordsOf(OracleKeyBag({"--classes", "3,4"}).blob());
    find(records, "WRAP", kHeaderRecords)->second = bigEndian(1);
    const KeyBag keyBag = opened(blobOf(records), kPassword, DeviceBoundKeys::KeepLocked);
    EXPECT_EQ(keyBag.FindClassKey(3), nullptr);
    EXPECT_NE(keyBag.FindClassKey(4), nullptr);
}

TEST(KeyBag, DetectsAWrongPasswordBesideLockedClasses) {
    const OracleKeyBag oracle({"--classes", "4,8", "--device-bound", "1"});
    expectWrongPassword(openingError(oracle.blob(), "wrong", DeviceBoundKeys::KeepLocked), 4);
}

TEST(KeyBag, DetectsAWrongPasswordWhenAllClassesStayLocked) {
    const OracleKeyBag oracle({"--classes", "", "--device-bound", "5,9"});
    expectWrongPassword(openingError(oracle.blob(), "wrong", DeviceBoundKeys::KeepLocked), 5);
}

TEST(KeyBag, OpensWithoutClassKeysWhenAllClassesStayLocked) {
    const OracleKeyBag oracle({"--classes", "", "--device-bound", "5,9"});
    const KeyBag keyBag = opened(oracle.blob(), kPassword, DeviceBoundKeys::KeepLocked);
    EXPECT_TRUE(keyBag.GetClassKeys().empty());
}

// ---- The object -----------------------------------------------------------------

TEST(KeyBag, IsParsedOnlyOnce) {
    KeyBag keyBag = opened(OracleKeyBag({"--classes", "4"}).blob());
    expectLoneError(errorOf([&] { keyBag.parseFromRaw(); }), kKVErrorInvalidArgument,
                    "parseFromRaw: Already called");
    EXPECT_NE(keyBag.FindClassKey(4), nullptr);
}

TEST(KeyBag, CopiesAreIndependent) {
    const OracleKeyBag oracle;
    auto original = std::make_unique<KeyBag>(opened(oracle.blob()));
    const KeyBag copy(*original);
    KeyBag assigned = opened(OracleKeyBag({"--classes", "10", "--seed", "2"}).blob());
    assigned = *original;
    original.reset();
    for (const KeyBag *keyBag : {&copy, static_cast<const KeyBag *>(&assigned)}) {
        EXPECT_EQ(keyBag->GetClassKeys().size(), 7U);
        EXPECT_EQ(keyBag->FindClassKey(4)->key, oracle.classKey(4));
        EXPECT_EQ(keyBag->FindClassKey(10), nullptr);
    }
}

TEST(KeyBag, IsReadFromSeveralThreads) {
    const OracleKeyBag oracle;
    const KeyBag keyBag = opened(oracle.blob());
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 1000; ++round) {
                const KeyBag copy(keyBag);
                ASSERT_EQ(copy.FindClassKey(4)->key, oracle.classKey(4));
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
}

} // namespace
