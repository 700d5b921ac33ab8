// Databases that are brought up to date with the manifest that was read from them.
#include "tests/manifest/UpdateFixture.hpp"

#include "tests/support/FailingCalls.hpp"

using namespace manifest_test;
using Kelvane::DeviceRow;
using Kelvane::DeviceRowRules;
using Kelvane::ManifestUpdate;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr const char *kKeyRow = R"({"fileID": "kk", "domain": "D", "path": "k", "flags": 1,
    "file": {"RelativePath": "k", "Mode": 33188, "Size": 9, "ProtectionClass": 3, "Flags": 128,
    "UserID": -2, "GroupID": -2, "Birth": 315532800, "Digest": "0101010101010101010101010101010101010101",
    "EncryptionKey": "0300000005050505", "ExtendedAttributes": {}}})";

OracleDatabase threeRows() {
    return OracleDatabase::WithRows(std::string(kFileRow) + "," + kKeyRow + "," + kDirectoryRow);
}

// An entry as the library makes it of the path.
Kelvane::EntryPointer newFile(const std::string &path) {
    auto entry = MakeEntry("D", path);
    entry.get()->fileType = 1;
    return entry;
}

constexpr const char *kEveryColumn =
    "fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB";

// The three rows in a table of another shape.
class OtherTable {
  public:
    explicit OtherTable(const std::string &table, const std::string &further = "")
        : database_(OracleDatabase::WithSetup({"CREATE TABLE Files (" + table})) {
        const auto rows = threeRows();
        database_.Run("ATTACH '" + rows.path().string() +
                      "' AS source; INSERT INTO Files (fileID, domain, relativePath, flags, file) "
                      "SELECT * FROM source.Files;" +
                      further);
    }
    const OracleDatabase &get() const { return database_; }

  private:
    OracleDatabase database_;
};

} // namespace

TEST(DatabaseUpdate, TouchesNothingWhenNothingDiffers) {
    const Updating updating(threeRows());
    EXPECT_TRUE(Kelvane::IsAsRead(*updating.manifest(), {}));
    EXPECT_EQ(updating.Update(), ManifestUpdate::Untouched);
    EXPECT_TRUE(updating.IsUntouched());
}

TEST(DatabaseUpdate, OfAChangeThatChangesNothingTouchesNothing) {
    const Updating updating(threeRows());
    updating.Changed("kk");
    EXPECT_FALSE(Kelvane::IsAsRead(*updating.manifest(), {}));
    EXPECT_EQ(updating.Update(), ManifestUpdate::Untouched);
    EXPECT_TRUE(updating.IsUntouched());
    EXPECT_THAT(updating.Companions(), IsEmpty());
}

TEST(DatabaseUpdate, TakesRowsAway) {
    const Updating updating(threeRows());
    Lines rows = RowsOf(updating.path());
    updating.Remove("kk");
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    rows.erase(rows.begin() + 1);
    EXPECT_EQ(RowsOf(updating.path()), rows);
}

TEST(DatabaseUpdate, AppendsNewRowsSorted) {
    const Updating updating(threeRows());
    Lines rows = RowsOf(updating.path());
    updating.Change({}, {newFile("z"), newFile("c")});
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    const Lines now = RowsOf(updating.path());
    ASSERT_EQ(now.size(), 5u);
    EXPECT_TRUE(std::equal(rows.begin(), rows.end(), now.begin()));
    EXPECT_THAT(now[3], HasSubstr(" D c 1 "));
    EXPECT_THAT(now[4], HasSubstr(" D z 1 "));
}

TEST(DatabaseUpdate, WritesNewRowsAsDevicesDo) {
    const Updating updating(threeRows());
    const auto entry = newFile("new");
    entry.get()->encryptionData = CF::Pointer<CFDataRef>(CF::Data(Octets(44, 5)).get());
    entry.get()->uid = 0xFFFFFFFE;
    entry.get()->birth = 315532800.75 - 978307200;
    updating.Add(entry);
    updating.Update();
    const std::string fileID = Plain(entry.get()->fileID.get());
    EXPECT_EQ(AskRecord(updating.path(), fileID, R"py(
print(get('EncryptionKey')['NS.data'] == b'\x05' * 44, objects[get('EncryptionKey')['$class'].data]['$classes'],
      record['UserID'], record['Birth'], record['Flags'], get('RelativePath'), list(archive))
)py"),
              "True ['NSMutableData', 'NSData', 'NSObject'] -2 315532800 0 new ['$version', "
              "'$archiver', '$top', '$objects']\n");
}

TEST(DatabaseUpdate, KeepsWhatAChangeDoesNotConcern) {
    const Updating updating(threeRows());
    const Lines rows = RowsOf(updating.path());
    updating.Changed("kk").size = 70000;
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    const Lines now = RowsOf(updating.path());
    ASSERT_EQ(now.size(), 3u);
    EXPECT_EQ(now[0], rows[0]);
    EXPECT_EQ(now[2], rows[2]);
    EXPECT_EQ(
        AskRecord(updating.path(), "kk", R"py(
print(record['Size'], record['Flags'], record['UserID'], record['Birth'], get('Digest').hex(),
      get('EncryptionKey')['NS.data'].hex(), plistlib.loads(get('ExtendedAttributes')), len(objects))
)py"),
        "70000 128 -2 315532800 0101010101010101010101010101010101010101 0300000005050505 {} 8\n");
}

TEST(DatabaseUpdate, KeepsKeysColumnsAndDatesThatNoEntryHolds) {
    const OtherTable table(std::string(kEveryColumn) + ", later TEXT DEFAULT 'default')");
    const auto blob = testing_support::RunPython(R"py(
import plistlib
from plistlib import UID
print(plistlib.dumps({'$version': 100000, '$archiver': 'NSKeyedArchiver', '$top': {'root': UID(1)},
    '$objects': ['$null', {'Birth': 2**62 + 1, 'Size': 3, 'Later': UID(3), '$class': UID(2)},
    {'$classname': 'MBFile', '$classes': ['MBFile', 'NSObject']}, 'kept']}, fmt=plistlib.FMT_BINARY).hex(), end='')
)py");
    table.get().Run("INSERT INTO Files VALUES ('uu', 'D', NULL, 2, x'" + blob.output +
                    "', 'mine');");
    const Updating updating(table.get());
    updating.Changed("uu").size = 4;
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    EXPECT_EQ(AskRecord(updating.path(), "uu",
                        "print(record['Birth'] == 2**62 + 1, record['Size'], get('Later'))"),
              "True 4 kept\n");
    EXPECT_THAT(Ask(updating.path(), "SELECT later, relativePath IS NULL FROM Files"),
                ElementsAre("default|0", "default|0", "default|0", "mine|1"));
}

TEST(DatabaseUpdate, KeepsEverythingElseInTheFile) {
    const auto source = threeRows();
    source.Run("INSERT INTO Properties VALUES ('salt', x'0102'); CREATE TABLE Later (a, b);"
               "CREATE INDEX LaterIdx ON Files(domain, flags); INSERT INTO Later VALUES (1, 2);"
               "PRAGMA user_version=7; PRAGMA application_id=99;");
    const Updating updating(source);
    const std::string everything =
        "SELECT sql FROM sqlite_master; SELECT * FROM Later; SELECT key, "
        "hex(value) FROM Properties; PRAGMA user_version; PRAGMA "
        "application_id; PRAGMA auto_vacuum; PRAGMA page_size;"
        "PRAGMA integrity_check;";
    const Lines before = Ask(updating.path(), everything);
    updating.Change({updating.Entry("aa")}, {newFile("new")});
    updating.Changed("bb").mode = 040700;
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    EXPECT_EQ(Ask(updating.path(), everything), before);
}

TEST(DatabaseUpdate, LeavesTheJournalModeAndOneFile) {
    for (const char *const mode : {"wal", "delete"}) {
        const auto source = threeRows();
        source.Run("PRAGMA journal_mode=" + std::string(mode));
        const Updating updating(source);
        updating.Change({updating.Entry("aa")}, {newFile("new")});
        EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
        EXPECT_EQ(updating.Bytes()[18], source.Bytes()[18]);
        EXPECT_EQ(updating.Bytes()[19], source.Bytes()[19]);
        EXPECT_THAT(updating.Companions(), IsEmpty());
        EXPECT_EQ(boost::filesystem::status(updating.path()).permissions(), 0600);
        EXPECT_EQ(RowsOf(updating.path()).size(), 3u);
    }
}

TEST(DatabaseUpdate, LeavesNoRemainsOfWhatItRemoves) {
    const Updating updating(threeRows());
    const Octets secret(8, 5);
    const auto contains = [&] {
        const Octets bytes = updating.Bytes();
        const Octets key = {3, 0, 0, 0, 5, 5, 5, 5};
        return std::search(bytes.begin(), bytes.end(), key.begin(), key.end()) != bytes.end();
    };
    EXPECT_TRUE(contains());
    updating.Remove("kk");
    updating.Update();
    EXPECT_FALSE(contains());
}

TEST(DatabaseUpdate, KeepsPlaceholdersButOnesWhoseIDAnEntryHas) {
    const auto taken = newFile("taken");
    const std::string fileID = Plain(taken.get()->fileID.get());
    const Updating updating(
        OracleDatabase::WithRows(std::string(R"({"fileID": "pp", "flags": 16},)") + kFileRow +
                                 R"(,{"fileID": ")" + fileID + R"(", "flags": 16})"));
    updating.Add(taken);
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    EXPECT_THAT(Ask(updating.path(), "SELECT fileID, flags FROM Files ORDER BY rowid"),
                ElementsAre("pp|16", "aa|1", fileID + "|1"));
}

TEST(DatabaseUpdate, RewritesWhatTheRulesSay) {
    const Updating updating(threeRows());
    const Lines rows = RowsOf(updating.path());
    DeviceRowRules rules;
    rules.rewrites = [](const KVManifestEntryClass &entry) {
        return CFDataGetLength(entry.encryptionData.get()) > 0;
    };
    rules.adjust = [](DeviceRow &row) {
        row.encryptionKey = nullptr;
        row.digest = CF::Pointer<CFDataRef>(CF::Data(Octets(20, 0xDD)).get());
    };
    EXPECT_FALSE(Kelvane::IsAsRead(*updating.manifest(), rules));
    EXPECT_EQ(updating.Update(rules), ManifestUpdate::Updated);
    const Lines now = RowsOf(updating.path());
    EXPECT_EQ(now[0], rows[0]);
    EXPECT_EQ(now[2], rows[2]);
    EXPECT_EQ(AskRecord(updating.path(), "kk", R"py(
print('EncryptionKey' in record, get('Digest') == b'\xdd' * 20, record['Flags'], record['Size'], len(objects))
)py"),
              "False True 128 9 6\n");
}

TEST(DatabaseUpdate, AdjustsNewAndChangedRows) {
    const Updating updating(threeRows());
    updating.Changed("kk").mode = 0100600;
    const auto entry = newFile("new");
    updating.Add(entry);
    DeviceRowRules rules;
    rules.adjust = [](DeviceRow &row) {
        row.size = 123;
        row.protectionClass = kEntryProtectionClassComplete;
    };
    updating.Update(rules);
    const std::string print = "print(record['Size'], record['ProtectionClass'])";
    EXPECT_EQ(AskRecord(updating.path(), "kk", print), "123 1\n");
    EXPECT_EQ(AskRecord(updating.path(), Plain(entry.get()->fileID.get()), print), "123 1\n");
    EXPECT_EQ(AskRecord(updating.path(), "aa", print), "5 3\n");
}

TEST(DatabaseUpdate, LeavesOutWhatTheRulesSay) {
    const Updating updating(threeRows());
    DeviceRowRules rules;
    rules.leavesOut = [](const KVManifestEntryClass &entry) { return entry.fileType == 1; };
    EXPECT_EQ(updating.Update(rules), ManifestUpdate::Updated);
    EXPECT_THAT(Ask(updating.path(), "SELECT fileID FROM Files"), ElementsAre("bb"));
}

TEST(DatabaseUpdate, WritesTextsAndFlagsThatAChangeConcerns) {
    const Updating updating(threeRows());
    KVManifestEntryClass &entry = updating.Changed("aa");
    Kelvane::SetEntryPath(entry, CFSTR("D"), CFSTR("moved"));
    Kelvane::SetFileID(entry, CF::Pointer<CFStringRef>(CFSTR("mm")));
    entry.fileType = 4;
    KVManifestUpdateEntries(updating.manifest(), KVManifestGetEntries(updating.manifest()));
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    EXPECT_THAT(
        Ask(updating.path(), "SELECT rowid, fileID, domain, relativePath, flags FROM Files"),
        ElementsAre("1|mm|D|moved|4", "2|kk|D|k|1", "3|bb|D|b|2"));
    EXPECT_EQ(AskRecord(updating.path(), "mm", "print(get('RelativePath'))"), "moved\n");
}

TEST(DatabaseUpdate, GivesTheRowToTheLastEntryOfAFileID) {
    const Updating updating(threeRows());
    const auto twin = newFile("a");
    Kelvane::SetFileID(*twin.get(), CF::Pointer<CFStringRef>(CFSTR("aa")));
    twin.get()->size = 77;
    updating.Add(twin);
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    EXPECT_THAT(Ask(updating.path(), "SELECT fileID FROM Files ORDER BY rowid"),
                ElementsAre("kk", "bb", "aa"));
    EXPECT_EQ(AskRecord(updating.path(), "aa", "print(record['Size'])"), "77\n");
}

TEST(DatabaseUpdate, WritesEntriesOfAnotherReadingAnew) {
    const Updating updating(threeRows());
    const Updating other(threeRows());
    KVManifestUpdateEntries(updating.manifest(), KVManifestGetEntries(other.manifest()));
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    EXPECT_EQ(RowsOf(updating.path()).size(), 3u);
    EXPECT_EQ(AskRecord(updating.path(), "kk", "print(record['Flags'], record['UserID'])"),
              "128 -2\n");
}

TEST(DatabaseUpdate, WithoutASourceWritesAllAnew) {
    const Updating updating(threeRows());
    const auto manifest = ManifestOfPaths({"a"});
    EXPECT_FALSE(Kelvane::HasSource(*manifest.get()));
    EXPECT_EQ(Kelvane::UpdateManifestDatabaseFile(updating.path(), manifest.get(), {}),
              ManifestUpdate::WrittenAnew);
    EXPECT_EQ(RowsOf(updating.path()).size(), 1u);
}

// ---- Failures

TEST(DatabaseUpdate, RefusesAnotherDatabase) {
    const std::string refusal =
        "Kelvane.ErrorDomain 11: The manifest database is not the one that was read";
    const Updating updating(threeRows());
    testing_support::RunCommand(
        {"sqlite3", updating.path(), "DELETE FROM Files WHERE fileID='kk'"});
    updating.Changed("kk").size = 1;
    EXPECT_EQ(updating.UpdateError(), refusal);
    updating.Remove("kk");
    EXPECT_EQ(updating.UpdateError(), refusal);
    EXPECT_THAT(updating.Companions(), IsEmpty());
    EXPECT_EQ(RowsOf(updating.path()).size(), 2u);
}

TEST(DatabaseUpdate, NamesEntriesThatHaveNoRecord) {
    const Updating updating(threeRows());
    const auto entry = newFile("large");
    entry.get()->dataHash = CF::Pointer<CFDataRef>(CF::Data(Octets(70000000)).get());
    updating.Add(entry);
    EXPECT_THAT(updating.UpdateError(),
                StartsWith("Kelvane.ErrorDomain 1: Failed to serialize entries "));
    EXPECT_TRUE(updating.IsUntouched());
}

TEST(DatabaseUpdate, RefusesTextsWithoutUTF8) {
    const UniChar half = 0xD83D;
    const Updating updating(threeRows());
    const auto entry = newFile("x");
    Kelvane::SetEntryPath(*entry.get(), CFSTR("D"),
                          CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &half, 1)).get());
    updating.Add(entry);
    EXPECT_EQ(updating.UpdateError(), "Kelvane.ErrorDomain 2: Text cannot be encoded as UTF-8");
    EXPECT_TRUE(updating.IsUntouched());
}

TEST(DatabaseUpdate, PassesOnWhatARuleThrows) {
    const Updating updating(threeRows());
    updating.Changed("kk").size = 1;
    DeviceRowRules rules;
    rules.adjust = [](DeviceRow &) { throw std::runtime_error("no"); };
    EXPECT_THROW(updating.Update(rules), std::runtime_error);
    EXPECT_TRUE(updating.IsUntouched());
}

TEST(DatabaseUpdate, ThatCannotBeClosedIsAnError) {
    const Updating updating(threeRows());
    updating.Remove("kk");
    const testing_support::FailingCall closing(testing_support::Call::Close, EDQUOT);
    EXPECT_THAT(updating.UpdateError(),
                StartsWith("Kelvane.ErrorDomain 3: Failed to write temporary database: "));
}

// ---- Schemas of other making

TEST(DatabaseUpdate, RunsNoTriggers) {
    const auto source = threeRows();
    source.Run("CREATE TRIGGER gone AFTER DELETE ON Files BEGIN DELETE FROM Files; END;"
               "CREATE TRIGGER more AFTER UPDATE ON Files BEGIN DELETE FROM Files; END;"
               "CREATE TRIGGER less AFTER INSERT ON Files BEGIN DELETE FROM Files; END;");
    const Updating updating(source);
    updating.Change({updating.Entry("aa")}, {newFile("new")});
    updating.Changed("kk").size = 1;
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    EXPECT_EQ(RowsOf(updating.path()).size(), 3u);
}

TEST(DatabaseUpdate, WritesOtherTablesAnew) {
    const std::string plain =
        "fileID TEXT, domain TEXT, relativePath TEXT, flags INTEGER, file BLOB";
    for (const std::string &table :
         {kEveryColumn + std::string(") WITHOUT ROWID"), plain + ")",
          plain + ", UNIQUE(fileID, domain))", plain + ", UNIQUE(fileID), UNIQUE(relativePath))",
          plain + ", UNIQUE(fileID COLLATE NOCASE))"}) {
        SCOPED_TRACE(table);
        const Updating updating(OtherTable(table).get());
        EXPECT_EQ(updating.Update(), ManifestUpdate::Untouched);
        EXPECT_TRUE(updating.IsUntouched());
        updating.Remove("kk");
        EXPECT_EQ(updating.Update(), ManifestUpdate::WrittenAnew);
        EXPECT_THAT(updating.Companions(), IsEmpty());
        EXPECT_THAT(Ask(updating.path(), "SELECT fileID FROM Files ORDER BY rowid"),
                    ElementsAre("aa", "bb"));
    }
}

TEST(DatabaseUpdate, RefusesViewsAndComputedColumns) {
    const Updating updating(threeRows());
    updating.Remove("kk");
    testing_support::RunCommand(
        {"sqlite3", updating.path(), "ALTER TABLE Files ADD COLUMN c AS (flags + 1)"});
    EXPECT_EQ(updating.UpdateError(), "Kelvane.ErrorDomain 13: Files has computed columns");
    testing_support::RunCommand(
        {"sqlite3", updating.path(), "DROP TABLE Files; CREATE VIEW Files AS SELECT 1 AS fileID"});
    EXPECT_EQ(updating.UpdateError(), "Kelvane.ErrorDomain 13: Files is not an ordinary table");
}

TEST(DatabaseUpdate, SaysWhatAConstraintRefuses) {
    const auto rows = threeRows();
    const auto source = OracleDatabase::WithSetup(
        {"CREATE TABLE Files (" + std::string(kEveryColumn) + ", later NOT NULL)"});
    source.Run("ATTACH '" + rows.path().string() +
               "' AS source; INSERT INTO Files SELECT *, 1 FROM source.Files;");
    const Updating updating(source);
    updating.Add(newFile("new"));
    EXPECT_EQ(updating.UpdateError(),
              "Kelvane.ErrorDomain 13: NOT NULL constraint failed: Files.later");
    EXPECT_TRUE(updating.IsUntouched());
}

TEST(DatabaseUpdate, ComputesNothingForARow) {
    const std::string forever = "length(replace(hex(zeroblob(100000)), '00', hex(zeroblob(300))))";
    for (const std::string &heavy :
         Lines{"CREATE INDEX heavy ON Files(fileID, " + forever + ");",
               "CREATE INDEX heavy ON Files(domain) WHERE " + forever + " > 0;",
               "ALTER TABLE Files ADD COLUMN heavy DEFAULT (length('x') + 1);"}) {
        SCOPED_TRACE(heavy);
        const auto source = threeRows();
        const auto made = testing_support::RunCommand({"sqlite3", source.path().string(), heavy});
        const Updating updating(source);
        updating.Remove("kk");
        EXPECT_EQ(updating.Update(),
                  made.status == 0 ? ManifestUpdate::WrittenAnew : ManifestUpdate::Updated);
        EXPECT_EQ(RowsOf(updating.path()).size(), 2u);
    }
}

TEST(DatabaseUpdate, ChecksNoConstraints) {
    const OtherTable table(std::string(kEveryColumn) + ", CHECK (length(file) < 1000))");
    const Updating updating(table.get());
    const auto entry = newFile("large");
    entry.get()->target = Text(std::string(2000, 't')).get();
    updating.Add(entry);
    EXPECT_EQ(updating.Update(), ManifestUpdate::Updated);
    EXPECT_EQ(RowsOf(updating.path()).size(), 4u);
}

TEST(DatabaseUpdate, EveryTruncationIsRefused) {
    const auto source = threeRows();
    const Octets whole = source.Bytes();
    for (std::size_t length = 0; length < whole.size(); length += 1021) {
        SCOPED_TRACE(length);
        const Updating updating(source);
        boost::filesystem::resize_file(updating.path(), length);
        updating.Remove("kk");
        EXPECT_THAT(updating.UpdateError(), StartsWith("Kelvane.ErrorDomain 1"));
    }
}
