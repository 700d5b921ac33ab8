// Where entries stood in their source, and what is a change of them.
#include "manifest/ManifestSource.hpp"

#include "tests/manifest/DatabaseFixtures.hpp"

#include <limits>

using namespace manifest_test;
using Kelvane::ManifestSource;
using testing::ElementsAre;

namespace {

using RowIDs = std::vector<std::optional<std::int64_t>>;

// The row IDs of the entries in the manifest's order; none for entries of no source of its.
RowIDs RowIDsOf(KVManifestClass *manifest) {
    RowIDs rowIDs;
    const ManifestSource &source = *manifest->source;
    manifest->entries.ForEach([&](const KVManifestEntryClass *entry) {
        rowIDs.push_back(entry->origin.IsOf(source.Reading())
                             ? source.RowIDOf(entry->origin.Ordinal())
                             : std::nullopt);
    });
    return rowIDs;
}

const Kelvane::EntryOrigin &OriginAt(KVManifestClass *manifest, CFIndex index) {
    return EntryAt(KVManifestGetEntries(manifest), index)->origin;
}

std::int32_t FlagsOfRecord(const std::string &fields) {
    const auto database = OracleDatabase::WithRows(
        R"({"fileID": "aa", "domain": "D", "path": "a", "flags": 1, "file": )" + fields + "}");
    const auto result = ReadDatabase(database.name());
    EXPECT_TRUE(result.manifest);
    return EntryAt(KVManifestGetEntries(result.manifest.get()), 0)->recordFlags;
}

} // namespace

TEST(ManifestSource, FindsTheRowOfEachEntry) {
    const RowIDs rowIDs = {1,
                           2,
                           3,
                           7,
                           8,
                           -5,
                           -4,
                           std::numeric_limits<std::int64_t>::max(),
                           std::numeric_limits<std::int64_t>::min(),
                           9};
    ManifestSource source;
    for (const auto &rowID : rowIDs) {
        source.AddEntry(rowID);
    }
    ASSERT_EQ(source.EntryCount(), rowIDs.size());
    for (std::uint32_t i = 0; i < rowIDs.size(); ++i) {
        EXPECT_EQ(source.RowIDOf(i), rowIDs[i]);
    }
    EXPECT_EQ(source.RowIDOf(source.EntryCount()), std::nullopt);
}

TEST(ManifestSource, HasNoRowsWhereThereAreNone) {
    ManifestSource source;
    EXPECT_EQ(source.AddEntry().Ordinal(), 0U);
    EXPECT_EQ(source.RowIDOf(0), std::nullopt);
}

TEST(ManifestSource, IsTakenForNoOther) {
    ManifestSource one;
    ManifestSource other;
    const Kelvane::EntryOrigin origin = one.AddEntry(1);
    EXPECT_TRUE(origin.IsOf(one.Reading()));
    EXPECT_FALSE(origin.IsOf(other.Reading()));
    EXPECT_FALSE(Kelvane::EntryOrigin().IsOf(0));
}

TEST(EntryOrigin, IsTheRowOfADatabase) {
    const auto database = OracleDatabase::WithRows(
        std::string(kFileRow) + R"(,{"fileID": "p", "flags": 16},)" + kDirectoryRow);
    database.Run("UPDATE Files SET rowid=90 WHERE fileID='bb'");
    const auto manifest = ReadDatabase(database.name()).manifest;
    ASSERT_TRUE(manifest);
    EXPECT_THAT(RowIDsOf(manifest.get()), ElementsAre(1, 90));
    EXPECT_FALSE(OriginAt(manifest.get(), 0).IsChanged());
}

TEST(EntryOrigin, IsFoundBesideColumnsOfThatName) {
    const auto database = OracleDatabase::WithSetup(
        {"CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, file "
         "BLOB, rowid TEXT, _ROWID_ TEXT)"});
    const auto named = OracleDatabase::WithRows(kFileRow);
    database.Run("ATTACH '" + named.path().string() +
                 "' AS source; INSERT INTO Files SELECT *, 'x', 'y' FROM source.Files;");
    EXPECT_THAT(RowIDsOf(ReadDatabase(database.name()).manifest.get()), ElementsAre(1));
}

TEST(EntryOrigin, IsThereWithoutRowNumbers) {
    const auto database = OracleDatabase::WithSetup(
        {"CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags "
         "INTEGER, file BLOB) WITHOUT ROWID"});
    const auto rows = OracleDatabase::WithRows(kFileRow);
    database.Run("ATTACH '" + rows.path().string() +
                 "' AS source; INSERT INTO Files SELECT * FROM source.Files;");
    const auto manifest = ReadDatabase(database.name()).manifest;
    EXPECT_THAT(RowIDsOf(manifest.get()), ElementsAre(std::nullopt));
    EXPECT_TRUE(OriginAt(manifest.get(), 0).IsOf(manifest.get()->source->Reading()));
}

TEST(EntryOrigin, IsTheRecordOfABinaryManifest) {
    const auto written = ManifestOfPaths({"a", "b"});
    const auto data =
        CF::Data::Adopt(KVManifestCreateManifestDataRepresentation(written.get(), 24, nullptr));
    const auto manifest =
        CF::Adopt(KVManifestCreateFromManifestData(nullptr, data.get(), 24, {}, {}));
    EXPECT_TRUE(OriginAt(manifest.get(), 1).IsOf(manifest.get()->source->Reading()));
    EXPECT_EQ(OriginAt(manifest.get(), 1).Ordinal(), 1U);
}

TEST(EntryOrigin, IsKeptByCopies) {
    const auto database = OracleDatabase::WithRows(kFileRow);
    const auto manifest = ReadDatabase(database.name()).manifest;
    const auto copy = CF::Adopt(KVManifestCreateCopy(nullptr, manifest.get(), {}));
    EXPECT_EQ(copy.get()->source, manifest.get()->source);
    EXPECT_THAT(RowIDsOf(copy.get()), ElementsAre(1));
    EXPECT_FALSE(OriginAt(copy.get(), 0).IsChanged());
}

TEST(EntryOrigin, OfAnotherReadingIsNone) {
    const auto database = OracleDatabase::WithRows(kFileRow);
    const auto one = ReadDatabase(database.name()).manifest;
    const auto other = ReadDatabase(database.name()).manifest;
    KVManifestUpdateEntries(one.get(), KVManifestGetEntries(other.get()));
    EXPECT_THAT(RowIDsOf(one.get()), ElementsAre(std::nullopt));
}

TEST(EntryOrigin, IsMarkedWhenAttributesAreCloned) {
    const auto database = OracleDatabase::WithRows(kFileRow);
    const auto manifest = ReadDatabase(database.name()).manifest;
    auto *const entry =
        const_cast<KVManifestEntryClass *>(EntryAt(KVManifestGetEntries(manifest.get()), 0));
    _KVManifestEntryCloneAttributes(entry, MakeEntry("D", "other").get());
    EXPECT_TRUE(entry->origin.IsChanged());
}

TEST(RecordFlags, AreReadFromTheUsualRecord) {
    EXPECT_EQ(FlagsOfRecord(R"({"Flags": 128})"), 128);
    EXPECT_EQ(FlagsOfRecord(R"({})"), 0);
}

TEST(RecordFlags, AreReadFromAnyRecord) {
    // A key that it does not know keeps the quick decoder away.
    const auto result = testing_support::RunPython(R"py(
import plistlib
from plistlib import UID
print(plistlib.dumps({'$version': 100000, '$archiver': 'NSKeyedArchiver', '$top': {'root': UID(1)},
    '$objects': ['$null', {'Flags': 128, 'Unknown': 1, '$class': UID(2)},
    {'$classname': 'MBFile', '$classes': ['MBFile', 'NSObject']}]}, fmt=plistlib.FMT_BINARY).hex(), end='')
)py");
    EXPECT_EQ(FlagsOfRecord(R"({"hex": ")" + result.output + R"("})"), 128);
}

TEST(RecordFlags, ThatAreNoNumberAreNone) {
    const auto result = testing_support::RunPython(R"py(
import plistlib
from plistlib import UID
print(plistlib.dumps({'$version': 100000, '$archiver': 'NSKeyedArchiver', '$top': {'root': UID(1)},
    '$objects': ['$null', {'Flags': UID(1), '$class': UID(2)},
    {'$classname': 'MBFile', '$classes': ['MBFile', 'NSObject']}]}, fmt=plistlib.FMT_BINARY).hex(), end='')
)py");
    EXPECT_EQ(FlagsOfRecord(R"({"hex": ")" + result.output + R"("})"), 0);
}

TEST(RecordFlags, AreNotInTheRecordsOfOldForm) {
    const auto entry = MakeEntry("D", "a");
    const auto without =
        CF::Data::Adopt(KVManifestEntryCreateMBFileDataRepresentation(entry.get()));
    entry.get()->recordFlags = 128;
    const auto with = CF::Data::Adopt(KVManifestEntryCreateMBFileDataRepresentation(entry.get()));
    EXPECT_EQ(with.GetVector(), without.GetVector());
}
