#include "KeyBagFixture.hpp"
#include "LogRecorder.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <new>
#include <thread>

namespace {

using namespace keybag_fixture;
using MB::DeviceBoundKeys;
using MB::ManifestEncryption;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::Pair;

ManifestEncryption opened(const OracleKeyBag &oracle) {
    return ManifestEncryption(oracle.manifestPlist(), kPassword);
}

CF::Error openingError(const CF::Dictionary &plist, const std::string &password = kPassword,
                       DeviceBoundKeys bound = DeviceBoundKeys::Fail) {
    return errorOf([&] { ManifestEncryption(plist, password, bound); });
}

// ---- Opening --------------------------------------------------------------------

TEST(ManifestEncryption, OpensTheManifestKey) {
    const OracleKeyBag oracle;
    const ManifestEncryption encryption = opened(oracle);
    EXPECT_EQ(encryption.GetManifestKey(), oracle.key("manifest"));
    EXPECT_EQ(encryption.GetKeyBag().GetClassKeys().size(), 7U);
}

TEST(ManifestEncryption, RequiresTheKeyBag) {
    const auto plist = OracleKeyBag().manifestPlist();
    plist.Remove(CFSTR("BackupKeyBag"));
    expectLoneError(openingError(plist), kKVErrorInvalidMetadata, "BackupKeyBag is missing");
    plist.Remove(CFSTR("ManifestKey"));
    expectLoneError(openingError(plist), kKVErrorInvalidMetadata, "BackupKeyBag is missing");
    expectLoneError(openingError(CF::Dictionary()), kKVErrorInvalidMetadata,
                    "BackupKeyBag is missing");
}

TEST(ManifestEncryption, RequiresTheManifestKey) {
    const auto plist = OracleKeyBag().manifestPlist();
    plist.Remove(CFSTR("ManifestKey"));
    expectLoneError(openingError(plist), kKVErrorInvalidMetadata, "ManifestKey is missing");
}

TEST(ManifestEncryption, TakesValuesThatAreNoDataForMissing) {
    const auto plist = OracleKeyBag().manifestPlist();
    plist.Set(CFSTR("ManifestKey"), CFSTR("text"));
    expectLoneError(openingError(plist), kKVErrorInvalidMetadata, "ManifestKey is missing");
    plist.Set(CFSTR("BackupKeyBag"), CF::Number::FromInt32(1).get());
    expectLoneError(openingError(plist), kKVErrorInvalidMetadata, "BackupKeyBag is missing");
}

TEST(ManifestEncryption, PassesErrorsOfTheKeyBagOn) {
    const auto plist = OracleKeyBag().manifestPlist();
    plist.Set(CFSTR("BackupKeyBag"), CF::Data(Bytes(7)).get());
    expectLoneError(openingError(plist), kKVErrorInvalidKeyBag, "Incomplete header");
}

TEST(ManifestEncryption, PassesAWrongPasswordOn) {
    expectWrongPassword(openingError(OracleKeyBag({"--classes", "6,7"}).manifestPlist(), "wrong"),
                        6);
}

TEST(ManifestEncryption, ReportsAWrongPasswordBeforeABadManifestKey) {
    const auto plist = OracleKeyBag({"--classes", "6"}).manifestPlist();
    plist.Set(CFSTR("ManifestKey"), CF::Data(Bytes(1)).get());
    expectWrongPassword(openingError(plist, "wrong"), 6);
}

TEST(ManifestEncryption, ReportsAManifestKeyOfTheWrongSize) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{43}, std::size_t{45}}) {
        const auto plist = OracleKeyBag().manifestPlist();
        plist.Set(CFSTR("ManifestKey"), CF::Data(Bytes(size)).get());
        const CF::Error error = openingError(plist);
        expectError(error, kKVErrorUnlockFailed, "Failed to unlock manifest key");
        expectLoneError(error.GetUnderlying(), kKVErrorInvalidMetadata, "Key blob is wrong size");
    }
}

TEST(ManifestEncryption, ReportsAManifestKeyOfAnUnknownClass) {
    const OracleKeyBag oracle({"--classes", "3,4"});
    const auto plist = oracle.manifestPlist();
    Bytes blob = oracle["manifestblob"];
    blob[0] = 9;
    plist.Set(CFSTR("ManifestKey"), CF::Data(blob).get());
    const CF::Error error = openingError(plist);
    expectError(error, kKVErrorUnlockFailed, "Failed to unlock manifest key");
    expectLoneError(error.GetUnderlying(), kKVErrorInvalidKeyBag, "Missing key class 9");
}

TEST(ManifestEncryption, ReportsADamagedManifestKey) {
    const OracleKeyBag oracle;
    const auto plist = oracle.manifestPlist();
    Bytes blob = oracle["manifestblob"];
    blob.back() ^= 1;
    plist.Set(CFSTR("ManifestKey"), CF::Data(blob).get());
    const CF::Error error = openingError(plist);
    expectError(error, kKVErrorUnlockFailed, "Failed to unlock manifest key");
    EXPECT_EQ(CF::String(error.GetUnderlying().GetDomain()).GetUTF8(), "ZK.EncryptionErrorDomain");
}

// ---- Classes bound to the device ------------------------------------------------

TEST(ManifestEncryption, FailsForADeviceBoundClassUnlessTold) {
    const OracleKeyBag oracle({"--classes", "1,4", "--device-bound", "9"});
    expectLoneError(openingError(oracle.manifestPlist()), kKVErrorUnlockFailed,
                    "Failed to unlock a key (class 9): Cannot decode without deviceKey");
}

TEST(ManifestEncryption, OpensBesideDeviceBoundClassesOnRequest) {
    const OracleKeyBag oracle({"--classes", "1,4", "--device-bound", "5,9", "--shuffle"});
    const ManifestEncryption encryption(oracle.manifestPlist(), kPassword,
                                        DeviceBoundKeys::KeepLocked);
    EXPECT_EQ(encryption.GetManifestKey(), oracle.key("manifest"));
    EXPECT_EQ(encryption.UnlockKey(oracle.lockedFileKey(1)), oracle.key("file"));
    EXPECT_EQ(encryption.UnlockKey(oracle.lockedFileKey(4)), oracle.key("file"));
}

TEST(ManifestEncryption, FailsForKeysOfADeviceBoundClassAlone) {
    const OracleKeyBag oracle({"--classes", "4", "--device-bound", "9"});
    const ManifestEncryption encryption(oracle.manifestPlist(), kPassword,
                                        DeviceBoundKeys::KeepLocked);
    expectLoneError(errorOf([&] { encryption.UnlockKey(oracle.lockedFileKey(9)); }),
                    kKVErrorInvalidKeyBag, "Missing key class 9");
    expectLoneError(errorOf([&] { encryption.LockKey(9, Key{}); }), kKVErrorInvalidKeyBag,
                    "Missing key class 9");
}

TEST(ManifestEncryption, DetectsAWrongPasswordBesideDeviceBoundClasses) {
    const OracleKeyBag oracle({"--classes", "4", "--device-bound", "1"});
    expectWrongPassword(openingError(oracle.manifestPlist(), "wrong", DeviceBoundKeys::KeepLocked),
                        4);
}

// ---- Key blobs ------------------------------------------------------------------

TEST(ManifestEncryption, UnlocksKeyBlobsOfEveryClass) {
    const OracleKeyBag oracle;
    const ManifestEncryption encryption = opened(oracle);
    for (const unsigned int number : {1U, 2U, 3U, 4U, 6U, 7U, 8U}) {
        EXPECT_EQ(encryption.UnlockKey(oracle.lockedFileKey(number)), oracle.key("file"));
    }
}

TEST(ManifestEncryption, LocksKeysAsTheOracleDoes) {
    const OracleKeyBag oracle;
    const ManifestEncryption encryption = opened(oracle);
    for (const unsigned int number : {1U, 2U, 3U, 4U, 6U, 7U, 8U}) {
        EXPECT_EQ(encryption.LockKey(number, oracle.key("file")), oracle.lockedFileKey(number));
    }
}

TEST(ManifestEncryption, GivesBackWhatItLocked) {
    const OracleKeyBag oracle;
    const ManifestEncryption encryption = opened(oracle);
    const Key key = {1, 2, 3, 250, 251};
    const CF::Data blob = encryption.LockKey(3, key);
    EXPECT_EQ(encryption.UnlockKey(blob), key);
}

TEST(ManifestEncryption, WritesTheClassInLittleEndianOrder) {
    const OracleKeyBag oracle({"--classes", "67305985"}); // 0x04030201
    const ManifestEncryption encryption = opened(oracle);
    const Bytes blob = encryption.LockKey(0x04030201, Key{}).GetVector();
    ASSERT_EQ(blob.size(), 44U);
    EXPECT_EQ(Bytes(blob.begin(), blob.begin() + 4), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(encryption.UnlockKey(CF::Data(blob)), Key{});
}

TEST(ManifestEncryption, RefusesKeyBlobsOfTheWrongSize) {
    const ManifestEncryption encryption = opened(OracleKeyBag());
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{3}, std::size_t{43}, std::size_t{45}, std::size_t{52}}) {
        expectLoneError(errorOf([&] { encryption.UnlockKey(CF::Data(Bytes(size, 1))); }),
                        kKVErrorInvalidMetadata, "Key blob is wrong size");
    }
    expectLoneError(errorOf([&] { encryption.UnlockKey(CF::Data()); }), kKVErrorInvalidMetadata,
                    "Key blob is wrong size");
}

TEST(ManifestEncryption, RefusesUnknownClasses) {
    const OracleKeyBag oracle({"--classes", "4"});
    const ManifestEncryption encryption = opened(oracle);
    Bytes blob(44, 0xFF);
    expectLoneError(errorOf([&] { encryption.UnlockKey(CF::Data(blob)); }), kKVErrorInvalidKeyBag,
                    "Missing key class 4294967295");
    expectLoneError(errorOf([&] { encryption.LockKey(5, Key{}); }), kKVErrorInvalidKeyBag,
                    "Missing key class 5");
}

TEST(ManifestEncryption, RefusesDamagedKeyBlobs) {
    const OracleKeyBag oracle({"--classes", "4"});
    const ManifestEncryption encryption = opened(oracle);
    for (std::size_t bit = 32; bit < 44 * 8; ++bit) {
        Bytes blob = oracle["locked.4"];
        blob[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        const CF::Error error = errorOf([&] { encryption.UnlockKey(CF::Data(blob)); });
        ASSERT_EQ(CF::String(error.GetDomain()).GetUTF8(), "ZK.EncryptionErrorDomain") << bit;
    }
}

// ---- Derivation -----------------------------------------------------------------

TEST(ManifestEncryption, DerivesTheKeyEncryptionKeyAsTheOracleDoes) {
    for (const auto &options : std::vector<std::vector<std::string>>{
             {}, {"--dpic", "0", "--iter", "0"}, {"--dpic", "1000", "--iter", "300"}}) {
        const OracleKeyBag oracle(options);
        const auto info = keybag_fixture::opened(oracle.blob()).GetManifestInfo();
        EXPECT_EQ(ManifestEncryption::GenerateKEKFromPassword(oracle::bytesOf(kPassword), info),
                  oracle.key("kek"));
    }
}

using Told = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

TEST(ManifestEncryption, TellsHowFarTheDerivationIs) {
    const OracleKeyBag oracle({"--dpic", "300000", "--iter", "200000"});
    Told told;
    const ManifestEncryption encryption(oracle.manifestPlist(), kPassword, DeviceBoundKeys::Fail,
                                        [&](std::uint64_t done, std::uint64_t total) {
                                            told.emplace_back(done, total);
                                            return true;
                                        });
    EXPECT_EQ(encryption.GetManifestKey(), oracle.key("manifest"));
    ASSERT_GT(told.size(), 5U);
    EXPECT_EQ(told.front(), Told::value_type(0, 500000));
    EXPECT_EQ(told.back(), Told::value_type(500000, 500000));
    EXPECT_TRUE(std::is_sorted(told.begin(), told.end()));
    EXPECT_EQ(std::count(told.begin(), told.end(), Told::value_type(300000, 500000)), 1);
}

TEST(ManifestEncryption, StopsTheDerivationWhenAsked) {
    MB::KeyBag::ManifestInfo info;
    info.dpic = 999'999'998;
    info.iterations = 2;
    for (const std::uint64_t last : {std::uint64_t{0}, std::uint64_t{1}}) {
        expectLoneError(errorOf([&] {
                            ManifestEncryption::GenerateKEKFromPassword(
                                Bytes{'p'}, info,
                                [last](std::uint64_t done, std::uint64_t) { return done < last; });
                        }),
                        kKVErrorUnlockFailed, "The derivation of keys was stopped");
    }
}

TEST(ManifestEncryption, RefusesIterationCountsBeyondTheLimit) {
    MB::KeyBag::ManifestInfo info;
    info.dpic = 999'999'999;
    info.iterations = 2;
    expectLoneError(errorOf([&] { ManifestEncryption::GenerateKEKFromPassword(Bytes{'p'}, info); }),
                    kKVErrorInvalidKeyBag, "Too many iterations (DPIC 999999999, ITER 2)");
}

TEST(ManifestEncryption, TakesADataKeyFromTheDigestOfPasswordAndSalt) {
    MB::KeyBag::Salt salt;
    salt.fill(0x61); // "a"
    const auto key =
        ManifestEncryption::GenerateDataKeyFromPassword(oracle::bytesOf("password"), salt);
    const std::string digest =
        oracle::outputOf({"sh", "-c", "printf passwordaaaaaaaaaaaaaaaaaaaa | openssl sha1 -r"});
    EXPECT_EQ(oracle::toHex(key), digest.substr(0, 32));
}

TEST(ManifestEncryption, DigestsTheSaltAloneForAnEmptyPassword) {
    MB::KeyBag::Salt salt;
    salt.fill(0x61);
    const auto key = ManifestEncryption::GenerateDataKeyFromPassword({}, salt);
    const std::string digest =
        oracle::outputOf({"sh", "-c", "printf aaaaaaaaaaaaaaaaaaaa | openssl sha1 -r"});
    EXPECT_EQ(oracle::toHex(key), digest.substr(0, 32));
}

// ---- The object -----------------------------------------------------------------

TEST(ManifestEncryption, CopiesAreIndependent) {
    const OracleKeyBag oracle;
    auto original = std::make_unique<ManifestEncryption>(opened(oracle));
    const ManifestEncryption copy(*original);
    ManifestEncryption assigned = opened(OracleKeyBag({"--seed", "2", "--classes", "1"}));
    assigned = *original;
    original.reset();
    for (const auto *encryption : {&copy, static_cast<const ManifestEncryption *>(&assigned)}) {
        EXPECT_EQ(encryption->GetManifestKey(), oracle.key("manifest"));
        EXPECT_EQ(encryption->UnlockKey(oracle.lockedFileKey(7)), oracle.key("file"));
    }
}

TEST(ManifestEncryption, OverwritesTheManifestKeyWhenItGoes) {
    const OracleKeyBag oracle({"--classes", "4"});
    alignas(ManifestEncryption) std::array<std::uint8_t, sizeof(ManifestEncryption)> memory{};
    auto *encryption = ::new (memory.data()) ManifestEncryption(oracle.manifestPlist(), kPassword);
    const Key expected = oracle.key("manifest");
    const auto holdsKey = [&] {
        return std::search(memory.begin(), memory.end(), expected.begin(), expected.end()) !=
               memory.end();
    };
    EXPECT_TRUE(holdsKey());
    encryption->~ManifestEncryption();
    EXPECT_FALSE(holdsKey());
}

TEST(ManifestEncryption, WorksOnSeveralThreads) {
    const OracleKeyBag oracle;
    const ManifestEncryption encryption = opened(oracle);
    std::vector<std::thread> threads;
    for (unsigned int number = 1; number <= 4; ++number) {
        threads.emplace_back([&, number] {
            for (int round = 0; round < 200; ++round) {
                const CF::Data blob = encryption.LockKey(number, oracle.key("file"));
                ASSERT_EQ(encryption.UnlockKey(blob), oracle.key("file"));
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
}

// ---- The log --------------------------------------------------------------------

TEST(ManifestEncryptionLog, TellsTheStepsOfOpening) {
    const OracleKeyBag oracle({"--classes", "4"});
    const log_recorder::LogRecorder recorder(kKelvaneLogLevelDetail);
    opened(oracle);
    EXPECT_THAT(
        recorder.messages(),
        ElementsAre(
            Pair(1, "(MB::ManifestEncryption PTR) BackupKeyBag: 308 bytes, ManifestKey: 44 bytes"),
            Pair(2, "(MB::ManifestEncryption PTR) GenerateKEKFromPassword starting"),
            Pair(2, MatchesRegex("\\(MB::ManifestEncryption PTR\\) GenerateKEKFromPassword first "
                                 "pass took [0-9]+\\.[0-9] seconds")),
            Pair(2, MatchesRegex("\\(MB::ManifestEncryption PTR\\) GenerateKEKFromPassword second "
                                 "pass took [0-9]+\\.[0-9] seconds")),
            Pair(1, "(MB::ManifestEncryption PTR) KeyBag opened"),
            Pair(1, "(MB::ManifestEncryption PTR) Unwrapping with clas 4"),
            Pair(1, "(MB::ManifestEncryption PTR) Key unlocked"),
            Pair(1, "(MB::ManifestEncryption PTR) Manifest unlocked")));
}

TEST(ManifestEncryptionLog, TellsTheStepsOfLocking) {
    const ManifestEncryption encryption = opened(OracleKeyBag({"--classes", "4"}));
    const log_recorder::LogRecorder recorder(kKelvaneLogLevelDetail);
    encryption.LockKey(4, Key{});
    EXPECT_THAT(recorder.messages(),
                ElementsAre(Pair(1, "(MB::ManifestEncryption PTR) Wrapping with clas 4"),
                            Pair(1, "(MB::ManifestEncryption PTR) Key locked")));
}

TEST(ManifestEncryptionLog, TellsTheClassThatIsMissing) {
    const ManifestEncryption encryption = opened(OracleKeyBag({"--classes", "4"}));
    const log_recorder::LogRecorder recorder(kKelvaneLogLevelDetail);
    errorOf([&] { encryption.UnlockKey(CF::Data(Bytes(44))); });
    EXPECT_THAT(recorder.messages(),
                ElementsAre(Pair(1, "(MB::ManifestEncryption PTR) Unwrapping with clas 0")));
}

TEST(ManifestEncryptionLog, LeavesDetailsOutAtHigherLevels) {
    const OracleKeyBag oracle({"--classes", "4"});
    const log_recorder::LogRecorder recorder(kKelvaneLogLevelMilestone);
    opened(oracle);
    EXPECT_EQ(recorder.messages().size(), 3U);
}

} // namespace
