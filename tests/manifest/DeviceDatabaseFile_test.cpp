// Databases that are written anew in the devices' form.
#include "tests/manifest/UpdateFixture.hpp"

#include "manifest/DeviceRowRecord.hpp"
#include "manifest/ManifestDatabaseFile.hpp"

using namespace manifest_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

class DeviceDatabaseFile : public testing::Test {
  protected:
    void SetUp() override { testing_support::LibraryTemporaryPath(); }
    void TearDown() override {
        if (!path_.empty()) {
            Kelvane::RemoveManifestDatabaseFile(path_);
        }
    }
    const std::string &Write(const ManifestPointer &manifest,
                             const Kelvane::DeviceRowRules &rules = {}) {
        path_ = Kelvane::WriteDeviceDatabaseFile(manifest.get(), rules);
        return path_;
    }

    std::string path_;
};

} // namespace

TEST_F(DeviceDatabaseFile, HasADevicesSchema) {
    Write(ManifestOfPaths({"a"}));
    EXPECT_THAT(
        Ask(path_, "SELECT sql FROM sqlite_master WHERE sql IS NOT NULL ORDER BY rowid"),
        ElementsAre("CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath "
                    "TEXT, flags INTEGER, file BLOB)",
                    "CREATE INDEX FilesDomainIdx ON Files(domain)",
                    "CREATE INDEX FilesRelativePathIdx ON Files(relativePath)",
                    "CREATE INDEX FilesFlagsIdx ON Files(flags)",
                    "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB)"));
}

TEST_F(DeviceDatabaseFile, HasADevicesPragmas) {
    Write(ManifestOfPaths({"a"}));
    EXPECT_THAT(Ask(path_, "PRAGMA auto_vacuum; PRAGMA journal_mode; PRAGMA user_version; PRAGMA "
                           "page_size; PRAGMA schema_version; PRAGMA encoding; PRAGMA "
                           "application_id; PRAGMA integrity_check;"),
                ElementsAre("2", "wal", "2", "4096", "5", "UTF-8", "0", "ok"));
}

TEST_F(DeviceDatabaseFile, IsOneFileForTheOwnerAlone) {
    Write(ManifestOfPaths({"a"}));
    EXPECT_EQ(boost::filesystem::status(path_).permissions(), 0600);
    for (const char *const suffix : {"-wal", "-shm", "-journal"}) {
        EXPECT_FALSE(boost::filesystem::exists(path_ + suffix));
    }
}

TEST_F(DeviceDatabaseFile, HasTheRowsInTheManifestsOrder) {
    Write(ManifestOfPaths({"b", "a", "c"}));
    EXPECT_THAT(Ask(path_, "SELECT relativePath FROM Files ORDER BY rowid"),
                ElementsAre("b", "a", "c"));
}

TEST_F(DeviceDatabaseFile, GivesEntriesOfBinaryManifestsTheFlagsOfTheirMode) {
    Write(MakeManifest({MakeEntry("D", "f"), MakeEntry("D", "d", kDirectoryMode),
                        MakeEntry("D", "l", kLinkMode), MakeEntry("D", "s", 0010644)}));
    EXPECT_THAT(Ask(path_, "SELECT relativePath, flags FROM Files ORDER BY rowid"),
                ElementsAre("f|1", "d|2", "l|4", "s|0"));
}

TEST_F(DeviceDatabaseFile, HasPropertiesAsData) {
    const auto entry = MakeEntry("D", "a");
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("com.example"), CF::Data(Octets{1, 2}).get());
    entry.get()->properties = properties.get();
    Write(MakeManifest({entry}));
    EXPECT_EQ(AskRecord(path_, Plain(entry.get()->fileID.get()),
                        "print(plistlib.loads(get('ExtendedAttributes')))"),
              "{'com.example': b'\\x01\\x02'}\n");
}

TEST_F(DeviceDatabaseFile, HasAttributesThatAreMoreThanDataAsAnObject) {
    const auto entry = MakeEntry("D", "a");
    const auto kept = CF::Dictionary::Mutable();
    kept.Set(CFSTR("number"), CF::Number::FromInt32(5).get());
    entry.get()->keptAttributes = static_cast<CFTypeRef>(kept.get());
    entry.get()->birth = 315532800.0 - 978307200;
    Write(MakeManifest({entry}));
    EXPECT_EQ(AskRecord(path_, Plain(entry.get()->fileID.get()), R"py(
attributes = get('ExtendedAttributes')
print([objects[uid.data] for uid in attributes['NS.keys'] + attributes['NS.objects']], record['Birth'],
      record['Flags'])
)py"),
              "['number', 5] 315532800 0\n");
}

TEST_F(DeviceDatabaseFile, HasPlaceholders) {
    const auto source =
        OracleDatabase::WithRows(std::string(kFileRow) + R"(,{"fileID": "pp", "flags": 16})");
    Write(ReadDatabase(source.name()).manifest);
    EXPECT_THAT(Ask(path_, "SELECT fileID, domain, flags, file IS NULL FROM Files"),
                ElementsAre("aa|D|1|0", "pp||16|1"));
}

TEST_F(DeviceDatabaseFile, GivesTheRowToTheLastEntryOfAFileID) {
    const auto first = MakeEntry("D", "a");
    const auto last = MakeEntry("D", "a");
    last.get()->size = 5;
    Write(MakeManifest({first, MakeEntry("D", "b"), last}));
    EXPECT_EQ(RowsOf(path_).size(), 2u);
    EXPECT_EQ(AskRecord(path_, Plain(last.get()->fileID.get()), "print(record['Size'])"), "5\n");
}

TEST_F(DeviceDatabaseFile, FollowsTheRules) {
    Kelvane::DeviceRowRules rules;
    rules.leavesOut = [](const KVManifestEntryClass &entry) {
        return CFEqual(entry.relativePath.get(), CFSTR("b")) != 0;
    };
    rules.adjust = [](Kelvane::DeviceRow &row) { row.size = 9; };
    const auto manifest = ManifestOfPaths({"a", "b"});
    Write(manifest, rules);
    EXPECT_THAT(Ask(path_, "SELECT relativePath FROM Files"), ElementsAre("a"));
    EXPECT_EQ(
        AskRecord(path_, Ask(path_, "SELECT fileID FROM Files").front(), "print(record['Size'])"),
        "9\n");
}

TEST_F(DeviceDatabaseFile, IsReadBackAsItWasWritten) {
    const auto entry = MakeEntry("D", "a");
    entry.get()->recordFlags = 128;
    entry.get()->gid = 0xFFFFFFFE;
    entry.get()->lastModified = -700000000;
    Write(MakeManifest({entry}));
    const auto result = ReadDatabase(CF::String(path_));
    ASSERT_TRUE(result.manifest) << result.error;
    const auto *const read = EntryAt(KVManifestGetEntries(result.manifest.get()), 0);
    EXPECT_EQ(read->recordFlags, 128);
    EXPECT_EQ(read->gid, 0xFFFFFFFE);
    EXPECT_EQ(read->lastModified, -700000000);
}

TEST_F(DeviceDatabaseFile, FailureLeavesNoFile) {
    const auto entry = MakeEntry("D", "a");
    entry.get()->dataHash = CF::Pointer<CFDataRef>(CF::Data(Octets(70000000)).get());
    const auto directory = testing_support::LibraryTemporaryPath() / "KVManifestDB";
    const auto count = [&] {
        return std::distance(boost::filesystem::directory_iterator(directory), {});
    };
    Write(ManifestOfPaths({"a"}));
    const auto before = count();
    EXPECT_THAT(
        ThrownError([&] { Kelvane::WriteDeviceDatabaseFile(MakeManifest({entry}).get(), {}); }),
        StartsWith("Kelvane.ErrorDomain 1: Failed to serialize entries "));
    EXPECT_EQ(count(), before);
}

TEST(UnixSeconds, AreTheWholeOnesBeforeATime) {
    EXPECT_EQ(Kelvane::UnixSeconds(0), 978307200);
    EXPECT_EQ(Kelvane::UnixSeconds(-0.25), 978307199);
    EXPECT_EQ(Kelvane::UnixSeconds(315532800.0 - 978307200), 315532800);
    EXPECT_EQ(Kelvane::UnixSeconds(-1e10), 978307200 - 10000000000);
    EXPECT_EQ(Kelvane::UnixSeconds(std::numeric_limits<double>::quiet_NaN()), 978307200);
    EXPECT_EQ(Kelvane::UnixSeconds(-1e300), std::numeric_limits<std::int64_t>::min());
    EXPECT_GT(Kelvane::UnixSeconds(1e300), std::int64_t{1} << 62);
}
