// Reading Manifest.db into a manifest.
#include "tests/manifest/DatabaseFixtures.hpp"

#include <tuple>

using namespace manifest_test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr CFAbsoluteTime kEpochOffset = 978307200;
const std::string kOneInvalid = "Kelvane.ErrorDomain 11: Database contains 1 invalid entries";

ManifestPointer MustRead(const std::string &rows) {
    auto result = ReadDatabase(OracleDatabase::WithRows(rows).name());
    EXPECT_EQ(result.error, "none");
    return result.manifest;
}

std::string Refusal(const std::string &rows) {
    const auto result = ReadDatabase(OracleDatabase::WithRows(rows).name());
    EXPECT_FALSE(result.manifest);
    return result.error;
}

const KVManifestEntryClass *Entry(const ManifestPointer &manifest, CFIndex index) {
    return EntryAt(KVManifestGetEntries(manifest.get()), index);
}

} // namespace

TEST(ManifestDBRead, ReadsADevicesRow) {
    const auto manifest = MustRead(R"({"fileID": "aa", "domain": "D", "path": "x/y", "flags": 4,
        "file": {"RelativePath": "other", "Target": "t", "Mode": 41471, "UserID": 501,
        "GroupID": 20, "LastModified": 11, "LastStatusChange": 12, "Birth": 13, "Size": 14,
        "InodeNumber": 15, "ProtectionClass": 2, "Digest": "0102", "EncryptionKey": "0304",
        "ExtendedAttributes": {"com.example": "v"}}})");
    ASSERT_TRUE(manifest);
    const auto *const entry = Entry(manifest, 0);
    EXPECT_EQ(Plain(KVManifestEntryGetFileID(entry)), "aa");
    EXPECT_EQ(Plain(KVManifestEntryGetDomain(entry)), "D");
    EXPECT_EQ(Plain(KVManifestEntryGetPath(entry)), "x/y");
    EXPECT_EQ(Plain(KVManifestEntryGetTarget(entry)), "t");
    EXPECT_EQ(KVManifestEntryGetFileType(entry), 4);
    EXPECT_EQ(entry->lastModified, 11 - kEpochOffset);
    EXPECT_EQ(entry->lastStatusChange, 12 - kEpochOffset);
    EXPECT_EQ(entry->birth, 13 - kEpochOffset);
    EXPECT_EQ(KVManifestEntryGetFileSize(entry), 14);
    EXPECT_EQ(entry->inode, 15U);
    EXPECT_EQ(KVManifestEntryGetProtectionClass(entry), kEntryProtectionClassWriteOnly);
    EXPECT_THAT(BytesOf(KVManifestEntryGetDataHash(entry)), ElementsAre(1, 2));
    EXPECT_THAT(BytesOf(KVManifestEntryGetEncryptionData(entry)), ElementsAre(3, 4));
    // Devices archive these as raw data, which is no dictionary object.
    EXPECT_EQ(CFDictionaryGetCount(KVManifestEntryGetProperties(entry)), 0);
    EXPECT_FALSE(KVManifestEntryIsExternal(entry));
}

TEST(ManifestDBRead, KeepsRowOrderTotalsAndVersion) {
    for (const KVManifestDataVersion version : {30U, 31U, 32U, 33U}) {
        const auto database = OracleDatabase::WithRows(std::string(kDirectoryRow) + "," + kFileRow);
        const auto result = ReadDatabase(database.name(), version);
        ASSERT_TRUE(result.manifest);
        EXPECT_THAT(PathsOf(KVManifestGetEntries(result.manifest.get())), ElementsAre("b", "a"));
        EXPECT_EQ(KVManifestGetTotalFileSize(result.manifest.get()), 75);
        EXPECT_EQ(KVManifestGetTotalFileCount(result.manifest.get()), 1);
        EXPECT_EQ(result.manifest.get()->dataVersion, version);
    }
}

TEST(ManifestDBRead, RefusesOtherVersions) {
    const auto database = OracleDatabase::WithRows(kFileRow);
    for (const KVManifestDataVersion version : {0U, 24U, 29U, 34U}) {
        const auto result = ReadDatabase(database.name(), version);
        EXPECT_FALSE(result.manifest);
        EXPECT_EQ(result.error, "Kelvane.ErrorDomain 2: Invalid manifest version '" +
                                    std::to_string(version) + "' for this encoding scheme");
    }
    EXPECT_EQ(KVManifestCreateFromManifestDatabase(nullptr, database.name(), 24, {}, {}, nullptr),
              nullptr);
}

TEST(ManifestDBRead, EmptyTableIsAnEmptyManifest) {
    int reports = 0;
    const auto database = OracleDatabase::WithRows("");
    const auto result = ReadDatabase(database.name(), 33, [&](auto &&...) { ++reports; });
    ASSERT_TRUE(result.manifest);
    EXPECT_EQ(CFArrayGetCount(KVManifestGetEntries(result.manifest.get())), 0);
    EXPECT_EQ(reports, 0);
}

TEST(ManifestDBRead, ReportsProgressPerRow) {
    std::vector<std::tuple<std::int64_t, std::int64_t, double>> reports;
    const auto database = OracleDatabase::WithRows(std::string(kDirectoryRow) + "," + kFileRow);
    const auto result =
        ReadDatabase(database.name(), 33, [&](auto done, auto total, auto fraction) {
            reports.emplace_back(done, total, fraction);
        });
    EXPECT_THAT(reports, ElementsAre(std::tuple(0, 2, 0.0), std::tuple(1, 2, 0.5)));
}

TEST(ManifestDBRead, EntriesGetTheLoader) {
    testing_support::LibraryTemporaryPath();
    std::string asked;
    const KVGetFileFunction loader = [&](CFStringRef fileID, CFErrorRef *) -> KVFileClass * {
        asked = Plain(fileID);
        return nullptr;
    };
    const auto database = OracleDatabase::WithRows(kFileRow);
    const auto manifest = CF::Adopt(
        KVManifestCreateFromManifestDatabase(nullptr, database.name(), 33, loader, {}, nullptr));
    ASSERT_TRUE(manifest);
    EXPECT_EQ(KVManifestEntryGetFile(Entry(manifest, 0), nullptr), nullptr);
    EXPECT_EQ(asked, "aa");
}

TEST(ManifestDBRead, FileIDIsTakenAsItIs) {
    const auto manifest = MustRead(
        R"({"fileID": "../x", "domain": "D", "path": "p", "flags": 1, "file": {"Mode": 33188}})");
    ASSERT_TRUE(manifest);
    EXPECT_NE(KVManifestGetEntryForFileID(manifest.get(), CFSTR("../x")), nullptr);
}

TEST(ManifestDBRead, EntriesOfOneDomainShareItsString) {
    const auto manifest = MustRead(std::string(kFileRow) + "," + kDirectoryRow);
    ASSERT_TRUE(manifest);
    EXPECT_EQ(KVManifestEntryGetDomain(Entry(manifest, 0)),
              KVManifestEntryGetDomain(Entry(manifest, 1)));
}

TEST(ManifestDBRead, KeepsPlaceholders) {
    const auto manifest = MustRead(std::string(kFileRow) + R"(,
        {"fileID": "p1", "domain": null, "path": null, "flags": 16, "file": null},
        {"fileID": "p2", "domain": "", "path": "", "flags": 16, "file": {"hex": ""}})");
    ASSERT_TRUE(manifest);
    EXPECT_EQ(CFArrayGetCount(KVManifestGetEntries(manifest.get())), 1);
    const auto &placeholders = manifest.get()->placeholderFileIDs;
    EXPECT_EQ(placeholders.GetCount(), 2);
    EXPECT_EQ(placeholders.Get<CF::Number>(CFSTR("p1")).GetInt32(), 16);
    EXPECT_EQ(placeholders.Get<CF::Number>(CFSTR("p2")).GetInt32(), 16);
}

TEST(ManifestDBRead, PlaceholderFlagsOnAFullRowMakeAnEntry) {
    const auto manifest = MustRead(
        R"({"fileID": "p", "domain": "D", "path": "a", "flags": 16, "file": {"Mode": 33188}})");
    ASSERT_TRUE(manifest);
    EXPECT_EQ(KVManifestEntryGetFileType(Entry(manifest, 0)), 16);
    EXPECT_EQ(manifest.get()->placeholderFileIDs.GetCount(), 0);
}

TEST(ManifestDBRead, RefusesARowWithoutRecord) {
    const LogCapture log;
    EXPECT_EQ(Refusal(std::string(kFileRow) + R"(,
        {"fileID": "cc", "domain": "D", "path": "c", "flags": 10, "file": {"hex": ""}})"),
              kOneInvalid);
    EXPECT_THAT(log.lines(), Contains("4 Unknown entry format: fileID 'cc' fileType 'a'"));
    EXPECT_THAT(log.lines(), Contains(HasSubstr("[" + kOneInvalid + "]")));
}

TEST(ManifestDBRead, RefusesAPlaceholderWithoutFileID) {
    EXPECT_EQ(Refusal(R"({"fileID": "", "flags": 16})"), kOneInvalid);
    EXPECT_EQ(Refusal(R"({"fileID": null, "flags": 16})"), kOneInvalid);
}

TEST(ManifestDBRead, RefusesARecordThatCannotBeDecoded) {
    const LogCapture log;
    EXPECT_EQ(Refusal(R"({"fileID": "dd", "domain": "D", "flags": 1, "file": {"hex": "00"}})"),
              kOneInvalid);
    EXPECT_THAT(log.lines(), Contains("4 Parse error: fileID 'dd'"));
}

TEST(ManifestDBRead, RefusesUnknownProtectionClasses) {
    EXPECT_EQ(Refusal(R"({"fileID": "dd", "domain": "D", "flags": 1,
        "file": {"Mode": 33188, "ProtectionClass": 5}})"),
              kOneInvalid);
}

TEST(ManifestDBRead, CountsEveryInvalidRow) {
    EXPECT_EQ(Refusal(std::string(kFileRow) + R"(,
        {"fileID": "1", "domain": "D", "flags": 1}, {"fileID": "2", "flags": 2},
        {"fileID": "3", "domain": "D", "file": {"hex": "ff"}})"),
              "Kelvane.ErrorDomain 11: Database contains 3 invalid entries");
}

TEST(ManifestDBRead, NeverRepairsTextThatIsNotUTF8) {
    const std::string record = R"("flags": 1, "file": {"Mode": 33188})";
    EXPECT_EQ(Refusal(R"({"fileID": {"hex": "61ff"}, "domain": "D", "path": "p", )" + record + "}"),
              kOneInvalid);
    EXPECT_EQ(
        Refusal(R"({"fileID": "a", "domain": {"hex": "eda080"}, "path": "p", )" + record + "}"),
        kOneInvalid);
    EXPECT_EQ(Refusal(R"({"fileID": "a", "domain": "D", "path": {"hex": "c0af"}, )" + record + "}"),
              kOneInvalid);
    EXPECT_EQ(Refusal(R"({"fileID": {"hex": "ff"}, "flags": 16})"), kOneInvalid);
}

TEST(ManifestDBRead, KeepsNulInsideNames) {
    const auto manifest = MustRead(
        R"({"fileID": "a", "domain": "D", "path": "x\u0000y", "flags": 1, "file": {"Mode": 33188}})");
    ASSERT_TRUE(manifest);
    EXPECT_THAT(PathsOf(KVManifestGetEntries(manifest.get())), ElementsAre(std::string("x\0y", 3)));
}

TEST(ManifestDBRead, MissingFileIsTheCauseUnderneath) {
    const auto result = ReadDatabase(CF::String("/nonexistent/Manifest.db"));
    EXPECT_FALSE(result.manifest);
    EXPECT_THAT(result.error,
                testing::StartsWith("Kelvane.ErrorDomain 11: Failed to parse records from manifest "
                                    "database < Kelvane.ErrorDomain 3: Failed to copy temporary "
                                    "database '/nonexistent/Manifest.db' to '"));
}

TEST(ManifestDBRead, ErrorsAreLogged) {
    const LogCapture log;
    const auto result = ReadDatabase(CF::String("/nonexistent/Manifest.db"));
    EXPECT_THAT(log.lines(), Contains(HasSubstr("[" + result.error + "]")));
}

TEST(ManifestDBRead, MissingTableIsTheCauseUnderneath) {
    EXPECT_EQ(ReadCause(OracleDatabase::WithSetup({})),
              "Kelvane.ErrorDomain 13: no such table: Files");
}
