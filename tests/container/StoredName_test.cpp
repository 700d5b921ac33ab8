#include "container/StoredName.hpp"

#include "KVError.h"
#include "support/cf/Error.hpp"

#include <gtest/gtest.h>

namespace {

using Kelvane::ExternalFilePath;
using Kelvane::FileIDForStoredName;
using Kelvane::IsSafeFileID;
using Kelvane::IsSafeStoredName;

const std::string kID = "3d0d7e5fb2ce288813306e4d4636395e047a3d28";

TEST(StoredName, LiesInADirectoryOfTwoCharactersFromVersion30On) {
    for (const KVManifestDataVersion version : {30u, 31u, 32u, 33u}) {
        EXPECT_EQ(ExternalFilePath(kID, version).GetUTF8(), "3d/" + kID);
    }
}

TEST(StoredName, IsTheIdentifierInFlatLayouts) {
    EXPECT_EQ(ExternalFilePath(kID, 24).GetUTF8(), kID);
    EXPECT_EQ(ExternalFilePath(kID, 0).GetUTF8(), kID);
}

TEST(StoredName, OfAnUnknownVersionIsEmpty) {
    EXPECT_EQ(ExternalFilePath(kID, 34).GetUTF8(), "");
    EXPECT_EQ(ExternalFilePath(kID, 29).GetUTF8(), "");
}

TEST(StoredName, OfMetadataIsTheNameItselfInEveryVersion) {
    for (const char *name : Kelvane::kMetadataNames) {
        for (const KVManifestDataVersion version : {0u, 24u, 33u, 99u}) {
            EXPECT_EQ(ExternalFilePath(name, version).GetUTF8(), name);
        }
    }
}

TEST(StoredName, ComparesMetadataNamesExactly) {
    EXPECT_EQ(ExternalFilePath("manifest.db", 33).GetUTF8(), "ma/manifest.db");
}

TEST(StoredName, OfAnIdentifierShorterThanItsDirectoryIsEmpty) {
    EXPECT_EQ(ExternalFilePath("", 33).GetUTF8(), "");
    EXPECT_EQ(ExternalFilePath("a", 33).GetUTF8(), "");
    EXPECT_EQ(ExternalFilePath("ab", 33).GetUTF8(), "ab/ab");
}

TEST(StoredName, LeadsBackToTheIdentifier) {
    EXPECT_EQ(FileIDForStoredName("3d/" + kID, 33).GetUTF8(), kID);
    EXPECT_EQ(FileIDForStoredName(kID, 33).GetUTF8(), kID);
    EXPECT_EQ(FileIDForStoredName(kID, 24).GetUTF8(), kID);
}

TEST(StoredName, WithASeparatorStandsForItselfInTheFlatLayout) {
    EXPECT_EQ(FileIDForStoredName("3d/" + kID, 24).GetUTF8(), "3d/" + kID);
}

TEST(StoredName, TakesABackslashForASeparatorToo) {
    EXPECT_EQ(FileIDForStoredName("3d\\" + kID, 32).GetUTF8(), kID);
}

TEST(StoredName, HasNoIdentifierInAnUnknownVersion) {
    EXPECT_FALSE(FileIDForStoredName("3d/" + kID, 99));
}

TEST(StoredName, ShorterThanThePrefixLeavesNothing) {
    EXPECT_EQ(FileIDForStoredName("a/", 33).GetUTF8(), "");
}

class UnsafeName : public testing::TestWithParam<std::string> {};

TEST_P(UnsafeName, IsRefused) { EXPECT_FALSE(IsSafeStoredName(GetParam())); }

INSTANTIATE_TEST_SUITE_P(Names, UnsafeName,
                         testing::Values("", ".", "..", "/", "/etc/passwd", "a//b", "a/", "a/./b",
                                         "a/../b", "../a", "a/..", std::string("a\0b", 3)));

TEST(StoredName, OfOrdinaryComponentsIsSafe) {
    for (const char *name : {"a", "3d/3d0d", "...", "a..b/c", ".hidden", "Manifest.db"}) {
        EXPECT_TRUE(IsSafeStoredName(name)) << name;
    }
}

class UnsafeID : public testing::TestWithParam<std::string> {};

TEST_P(UnsafeID, IsRefused) { EXPECT_FALSE(IsSafeFileID(GetParam(), 33)); }

INSTANTIATE_TEST_SUITE_P(IDs, UnsafeID,
                         testing::Values("", "a", "..", "../x", "ab/cd", "/etc/passwd", "..x",
                                         std::string("ab\0cd", 5)));

TEST(StoredName, AcceptsIdentifiersThatAreNoDigests) {
    EXPECT_TRUE(IsSafeFileID("ab", 33));
    EXPECT_TRUE(IsSafeFileID("not a digest", 33));
    EXPECT_TRUE(IsSafeFileID("a", 24));
}

TEST(StoredName, UnsafeOnesAreAnInvalidBackup) {
    try {
        Kelvane::ThrowUnsafeStoredName("../x");
        FAIL() << "nothing was thrown";
    } catch (const CF::Error &error) {
        EXPECT_EQ(error.GetCode(), kKVErrorInvalidBackup);
        EXPECT_EQ(error.GetFailureReason().GetUTF8(), "Unsafe stored file name (../x)");
    }
}

} // namespace
