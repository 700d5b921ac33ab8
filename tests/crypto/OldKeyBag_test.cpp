// Keybags of the time before there were two derivations.
#include "KeyBagFixture.hpp"

#include <gtest/gtest.h>

namespace {

using namespace keybag_fixture;
using MB::DeviceBoundKeys;
using MB::KeyBag;
using MB::KeyBagOptions;
using MB::ManifestEncryption;
using MB::ManifestKeys;
using MB::OldKeyBags;

const KeyBagOptions kAcceptOld{DeviceBoundKeys::Fail, OldKeyBags::Accept, {}};

KeyBag openedAsOld(const Bytes &blob, const std::string &password = kPassword) {
    return KeyBag(CF::Data(blob), password, kAcceptOld);
}

Bytes without(const Bytes &blob, const std::string &tag) {
    Records records = recordsOf(blob);
    records.erase(find(records, tag));
    return blobOf(records);
}

TEST(OldKeyBag, OpensByOneDerivation) {
    const OracleKeyBag oracle({"--old", "--version", "3"});
    const KeyBag keyBag = openedAsOld(oracle.blob());
    EXPECT_TRUE(keyBag.GetManifestInfo().onePass);
    EXPECT_EQ(keyBag.GetClassKeys().size(), 7U);
    ASSERT_NE(keyBag.FindClassKey(3), nullptr);
    EXPECT_EQ(keyBag.FindClassKey(3)->key, oracle.classKey(3));
}

TEST(OldKeyBag, DerivesWhatPythonDerives) {
    const OracleKeyBag oracle({"--old", "--iter", "1000"});
    EXPECT_EQ(ManifestEncryption::GenerateKEKFromPassword(
                  oracle::bytesOf(kPassword), openedAsOld(oracle.blob()).GetManifestInfo()),
              oracle.key("kek"));
}

TEST(OldKeyBag, IsRefusedUnlessAccepted) {
    expectLoneError(openingError(OracleKeyBag({"--old"}).blob()), kKVErrorInvalidKeyBag,
                    "Missing DPWT field");
}

TEST(OldKeyBag, TellsAWrongPassword) {
    const Bytes blob = OracleKeyBag({"--old", "--classes", "4"}).blob();
    expectWrongPassword(errorOf([&] { openedAsOld(blob, "wrong"); }), 4);
}

TEST(OldKeyBag, MayLackTheFieldThatPlaysNoPartAlone) {
    const OracleKeyBag oracle;
    const KeyBag keyBag = openedAsOld(without(oracle.blob(), "DPWT"));
    EXPECT_FALSE(keyBag.GetManifestInfo().onePass);
    EXPECT_EQ(keyBag.GetManifestInfo().dpwt, 0U);
    EXPECT_EQ(keyBag.FindClassKey(4)->key, oracle.classKey(4));
}

TEST(OldKeyBag, HasBothFieldsOfTheFirstPassOrNeither) {
    for (const char *tag : {"DPIC", "DPSL"}) {
        const Bytes blob = without(OracleKeyBag().blob(), tag);
        expectLoneError(errorOf([&] { openedAsOld(blob); }), kKVErrorInvalidKeyBag,
                        "Missing " + std::string(tag) + " field");
    }
}

TEST(OldKeyBag, OfTheCurrentFormOpensAsEver) {
    const OracleKeyBag oracle;
    EXPECT_EQ(openedAsOld(oracle.blob()).FindClassKey(1)->key, oracle.classKey(1));
}

TEST(OldKeyBag, TellsOfTheIterationsOfItsOnlyPass) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> calls;
    KeyBagOptions options = kAcceptOld;
    options.progress = [&](std::uint64_t done, std::uint64_t total) {
        calls.emplace_back(done, total);
        return true;
    };
    const KeyBag keyBag(CF::Data(OracleKeyBag({"--old", "--iter", "300000"}).blob()), kPassword,
                        options);
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.front(), std::pair(std::uint64_t{0}, std::uint64_t{300000}));
    EXPECT_EQ(calls.back(), std::pair(std::uint64_t{300000}, std::uint64_t{300000}));
}

TEST(OldKeyBag, MayAskForNoMoreIterationsThanOthers) {
    Records records = recordsOf(OracleKeyBag({"--old"}).blob());
    find(records, "ITER")->second = bigEndian(2'000'000'000);
    expectLoneError(errorOf([&] { openedAsOld(blobOf(records)); }), kKVErrorInvalidKeyBag,
                    "Too many iterations (DPIC 0, ITER 2000000000)");
}

TEST(ManifestKeys, AreNotAskedForWhereThereAreNone) {
    const OracleKeyBag oracle({"--old"});
    const auto plist = CF::Dictionary::Mutable();
    plist.Set(CFSTR("BackupKeyBag"), CF::Data(oracle.blob()).get());
    const ManifestEncryption encryption(plist, kPassword, kAcceptOld, ManifestKeys::None);
    EXPECT_EQ(encryption.UnlockKey(oracle.lockedFileKey(3)), oracle.key("file"));
    EXPECT_EQ(encryption.GetManifestKey(), ManifestEncryption::Key{});
}

TEST(ManifestKeys, AreMissedWhereTheyAreRequired) {
    const auto plist = CF::Dictionary::Mutable();
    plist.Set(CFSTR("BackupKeyBag"), CF::Data(OracleKeyBag({"--old"}).blob()).get());
    expectLoneError(
        errorOf([&] { ManifestEncryption(plist, kPassword, kAcceptOld, ManifestKeys::Required); }),
        kKVErrorInvalidMetadata, "ManifestKey is missing");
}

} // namespace
