// The CSV dump of a Manifest.db.
#include "tests/manifest/DatabaseFixtures.hpp"
#include "tests/support/FreshProcess.hpp"

#include <random>

using namespace manifest_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

const std::string kHeader =
    R"("fileID","domain","relativePath","fileTypeFlags","relativePath2","target","digest",)"
    R"("encryptionKey","mode","inodeNumber","userID","groupID","lastModified",)"
    R"("lastStatusChange","birth","size","protectionClass","extendedAttributes")";

struct Dump {
    CF::String text;
    std::string error;
};

Dump DumpAt(const CF::String &path) {
    CFErrorRef error = nullptr;
    Dump dump;
    dump.text = CF::String::Adopt(KVManifestDBCopyCSVRepresentation(path, &error));
    dump.error = Describe(CF::Error::Adopt(error));
    return dump;
}

// A database that the library writes, with these entries.
class WrittenDatabase : public OracleDatabase {
  public:
    explicit WrittenDatabase(const Kelvane::EntryPointer &entry)
        : WrittenDatabase(std::vector{entry}) {}
    explicit WrittenDatabase(const std::vector<Kelvane::EntryPointer> &entries)
        : OracleDatabase(R"({"rows": []})") {
        const auto data = CF::Data::Adopt(
            KVManifestCreateManifestDBRepresentation(MakeManifest(entries).get(), 33));
        Replace(data.GetVector());
    }
};

class ManifestDatabaseCSV : public testing::Test {
  protected:
    void SetUp() override { testing_support::LibraryTemporaryPath(); }

    static std::string DumpText(const OracleDatabase &database) {
        const Dump dump = DumpAt(database.name());
        EXPECT_TRUE(dump.text) << dump.error;
        return dump.text.GetUTF8();
    }
    // The lines below the header of a database with these rows.
    static Lines LinesOf(const std::string &rows) {
        Lines lines = SplitLines(DumpText(OracleDatabase::WithRows(rows)));
        EXPECT_EQ(lines.at(0), kHeader);
        lines.erase(lines.begin());
        return lines;
    }
    // What fails the dump of a database, beneath the outer error.
    static std::string Cause(const OracleDatabase &database) {
        const std::string kOuter = "Kelvane.ErrorDomain 11: Failed to parse records from manifest "
                                   "database < ";
        const Dump dump = DumpAt(database.name());
        EXPECT_FALSE(dump.text);
        EXPECT_THAT(dump.error, StartsWith(kOuter));
        return dump.error.substr(std::min(kOuter.size(), dump.error.size()));
    }
    static std::string OracleText(const OracleDatabase &database) {
        const auto result = testing_support::RunCommand(
            {"/usr/bin/python3", KELVANE_SOURCE_DIR "/tests/tools/manifest_oracle.py",
             "database-csv", database.path().string()});
        EXPECT_EQ(result.status, 0) << result.errors;
        return result.output;
    }
    static std::size_t WorkingFiles() {
        const auto directory = testing_support::LibraryTemporaryPath() / "KVManifestDB";
        return static_cast<std::size_t>(
            std::distance(boost::filesystem::directory_iterator(directory), {}));
    }
};

} // namespace

TEST_F(ManifestDatabaseCSV, EmptyTableIsTheHeaderAlone) {
    EXPECT_EQ(DumpText(OracleDatabase::WithRows("")), kHeader);
}

TEST_F(ManifestDatabaseCSV, WritesEveryColumn) {
    EXPECT_THAT(
        LinesOf(R"({"fileID": "id", "domain": "D", "path": "p", "flags": 4, "file": {
            "RelativePath": "r", "Target": "t", "Digest": "0102", "EncryptionKey": "ff", "Mode": 41453,
            "InodeNumber": 9, "UserID": 501, "GroupID": 20, "LastModified": 2, "LastStatusChange": 3,
            "Birth": 1, "Size": 77, "ProtectionClass": 4}})"),
        ElementsAre(R"("id","D","p","4","r","t","AQI=","/w==","41453","9","501","20","2","3","1",)"
                    R"("77","4","")"));
}

TEST_F(ManifestDatabaseCSV, NothingFollowsTheLastLine) {
    EXPECT_THAT(DumpText(OracleDatabase::WithRows(kFileRow)), testing::EndsWith("\"3\",\"\""));
}

TEST_F(ManifestDatabaseCSV, AbsentValuesAreEmptyFields) {
    EXPECT_THAT(
        LinesOf(R"({"fileID": "id", "file": {"RelativePath": ""}})"),
        ElementsAre(R"("id","","","0","","","","","0","0","0","0","0","0","0","0","0","")"));
}

TEST_F(ManifestDatabaseCSV, DoublesAQuoteInADomain) {
    EXPECT_THAT(
        LinesOf(R"({"fileID": "id", "domain": "a\"b", "path": "", "flags": 1, "file": {}})"),
        ElementsAre(StartsWith(R"("id","a""b","","1")")));
}

TEST_F(ManifestDatabaseCSV, DoublesQuotesInTextsOfTheRecord) {
    EXPECT_THAT(
        LinesOf(R"({"fileID": "\"", "domain": "D", "path": "\"p", "flags": 1, "file": {
                           "RelativePath": "r\"", "Target": "\u20ac\""}})"),
        ElementsAre(StartsWith("\"\"\"\",\"D\",\"\"\"p\",\"1\",\"r\"\"\",\"\xE2\x82\xAC\"\"\"")));
}

TEST_F(ManifestDatabaseCSV, LeavesCommasAndLineBreaksInsideFields) {
    const std::string text = DumpText(OracleDatabase::WithRows(
        R"({"fileID": "id", "domain": "a,b", "path": "c\nd\te", "flags": 1, "file": {}})"));
    EXPECT_THAT(text, HasSubstr("\n\"id\",\"a,b\",\"c\nd\te\",\"1\","));
}

TEST_F(ManifestDatabaseCSV, RowsAreInTheOrderOfTheirFileIDs) {
    const auto lines = LinesOf(R"({"fileID": "b", "domain": "1", "file": {}},
        {"fileID": "a", "domain": "2", "file": {}}, {"fileID": "B", "domain": "0", "file": {}},
        {"fileID": "aa", "domain": "0", "file": {}})");
    EXPECT_THAT(lines, ElementsAre(StartsWith("\"B\""), StartsWith("\"a\",\"2\""),
                                   StartsWith("\"aa\""), StartsWith("\"b\"")));
}

TEST_F(ManifestDatabaseCSV, OrderIsThatOfCodeUnits) {
    const auto lines =
        LinesOf(R"({"fileID": "\uff41", "file": {}}, {"fileID": "\ud83d\ude00", "file": {}})");
    EXPECT_THAT(lines,
                ElementsAre(StartsWith("\"\xF0\x9F\x98\x80\""), StartsWith("\"\xEF\xBD\x81\"")));
}

TEST_F(ManifestDatabaseCSV, RowsWithOneFileIDAreInTheOrderOfTheirLines) {
    const OracleDatabase database(
        R"({"rows": [{"domain": "b", "file": {}}, {"domain": "a", "file": {}}]})");
    EXPECT_THAT(SplitLines(DumpText(database)),
                ElementsAre(kHeader, StartsWith("\"\",\"a\""), StartsWith("\"\",\"b\"")));
}

TEST_F(ManifestDatabaseCSV, ShowsNumbersInTheWidthOfTheirFields) {
    auto entry = MakeEntry("D", "a");
    entry.get()->inode = 0xFFFFFFFFFFFFFFFE;
    entry.get()->uid = 0xFFFFFFFF;
    entry.get()->gid = 0x80000000;
    entry.get()->size = -1;
    entry.get()->lastModified = -1e9;
    EXPECT_THAT(DumpText(WrittenDatabase(entry)),
                HasSubstr(R"(,"33188","-2","4294967295","2147483648",)"
                          R"("4273274496","978307200","978307200","-1","0","")"));
}

TEST_F(ManifestDatabaseCSV, ShowsTheNearestNumbersThatFieldsHold) {
    EXPECT_THAT(
        LinesOf(R"({"fileID": "id", "flags": -3, "file": {"Mode": 4294967295,
                           "UserID": -1, "GroupID": 4294967297, "ProtectionClass": 9, "Size": -5}})"),
        ElementsAre(R"("id","","","-3","","","","","-1","0","4294967295","4294967295","0","0","0",)"
                    R"("-5","9","")"));
}

TEST_F(ManifestDatabaseCSV, DescribesExtendedAttributes) {
    auto entry = MakeEntry("D", "a");
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("a b"), DataOf({0xFE}).get());
    entry.get()->properties = properties.get();
    // The quotes are those of the description, doubled.
    EXPECT_THAT(DumpText(WrittenDatabase(entry)),
                testing::EndsWith("\"{\n    \"\"a b\"\" = {length = 1, "
                                  "bytes = 0xfe};\n}\""));
}

TEST_F(ManifestDatabaseCSV, KeepsLoneSurrogatesOfRecords) {
    auto entry = MakeEntry("D", "a");
    const UniChar lone = 0xD83D;
    entry.get()->target = CF::Adopt(CFStringCreateWithCharacters(nullptr, &lone, 1));
    const Dump dump = DumpAt(WrittenDatabase(entry).name());
    ASSERT_TRUE(dump.text) << dump.error;
    const CFRange found = CFStringFind(
        dump.text, CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &lone, 1)), 0);
    EXPECT_EQ(found.length, 1);
}

TEST_F(ManifestDatabaseCSV, RecordsThatShareLongTextsAreRefusedTogether) {
    // Thousands of references to one text are a small database and a dump of hundreds of
    // megabytes.
    const auto values = CF::Array::Mutable();
    const CF::String text(std::string(20'000, 'x'));
    for (int i = 0; i < 2'000; ++i) {
        values.Append(text);
    }
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("a"), values.get());
    std::vector<Kelvane::EntryPointer> entries;
    for (int i = 0; i < 10; ++i) {
        entries.push_back(MakeEntry("D", std::to_string(i)));
        entries.back().get()->properties = properties.get();
    }
    EXPECT_EQ(Cause(WrittenDatabase(entries)),
              "Kelvane.ErrorDomain 24: The text would be far larger than the database");
}

TEST_F(ManifestDatabaseCSV, EmptyBlobFailsTheDump) {
    EXPECT_EQ(
        Cause(OracleDatabase::WithRows(std::string(kFileRow) +
                                       R"(, {"fileID": "x", "domain": "D", "file": {"hex": ""}})")),
        "Kelvane.ErrorDomain 24: Missing or invalid MBFile structure");
}

TEST_F(ManifestDatabaseCSV, PlaceholderFailsTheDump) {
    EXPECT_EQ(Cause(OracleDatabase::WithRows(R"({"fileID": "p", "flags": 16})")),
              "Kelvane.ErrorDomain 24: Missing or invalid MBFile structure");
}

TEST_F(ManifestDatabaseCSV, BlobThatIsNoPropertyListFailsTheDump) {
    EXPECT_EQ(Cause(OracleDatabase::WithRows(R"({"fileID": "x", "file": {"hex": "00112233"}})")),
              "Kelvane.ErrorDomain 24: Missing or invalid MBFile structure");
}

TEST_F(ManifestDatabaseCSV, BlobThatIsNoArchiveFailsTheDumpWithTheReason) {
    const std::string plist = "<plist><dict/></plist>";
    std::string hex;
    for (const char character : plist) {
        hex += "0123456789abcdef"[character >> 4];
        hex += "0123456789abcdef"[character & 15];
    }
    EXPECT_EQ(
        Cause(OracleDatabase::WithRows(R"({"fileID": "x", "file": {"hex": ")" + hex + "\"}}")),
        "Kelvane.ErrorDomain 24: Archive was not created with a keyed archiver");
}

TEST_F(ManifestDatabaseCSV, ColumnThatIsNotUTF8FailsTheDump) {
    EXPECT_EQ(Cause(OracleDatabase::WithRows(
                  R"({"fileID": "x", "domain": {"hex": "61ff"}, "file": {}})")),
              "Kelvane.ErrorDomain 24: A column of the row is not valid UTF-8");
}

TEST_F(ManifestDatabaseCSV, FailureIsLogged) {
    const OracleDatabase database = OracleDatabase::WithRows(R"({"fileID": "p", "flags": 16})");
    const LogCapture log;
    const Dump dump = DumpAt(database.name());
    EXPECT_THAT(log.lines(), testing::Contains(HasSubstr("[" + dump.error + "]")));
}

TEST_F(ManifestDatabaseCSV, MissingFileIsAFileSystemError) {
    const Dump dump = DumpAt(CF::String("/nonexistent/Manifest.db"));
    EXPECT_FALSE(dump.text);
    EXPECT_THAT(dump.error, StartsWith("Kelvane.ErrorDomain 11: Failed to parse records from "
                                       "manifest database < Kelvane.ErrorDomain 3: Failed to copy "
                                       "temporary database '/nonexistent/Manifest.db' to '"));
}

TEST_F(ManifestDatabaseCSV, FileWithoutTheTableIsADatabaseError) {
    EXPECT_EQ(Cause(OracleDatabase::WithSetup({"CREATE TABLE Other (a)"})),
              "Kelvane.ErrorDomain 13: no such table: Files");
}

TEST_F(ManifestDatabaseCSV, NullPathHasNoTable) {
    EXPECT_THAT(DumpAt(CF::String()).error, testing::EndsWith("13: no such table: Files"));
}

TEST_F(ManifestDatabaseCSV, FailureWithoutAnErrorPointerIsNull) {
    EXPECT_EQ(KVManifestDBCopyCSVRepresentation(CFSTR("/nonexistent"), nullptr), nullptr);
}

TEST_F(ManifestDatabaseCSV, SuccessLeavesTheErrorPointerAlone) {
    const OracleDatabase database = OracleDatabase::WithRows(kFileRow);
    CFErrorRef untouched = reinterpret_cast<CFErrorRef>(1);
    EXPECT_TRUE(CF::String::Adopt(KVManifestDBCopyCSVRepresentation(database.name(), &untouched)));
    EXPECT_EQ(untouched, reinterpret_cast<CFErrorRef>(1));
}

TEST_F(ManifestDatabaseCSV, LeavesTheDatabaseAndNoFilesBehind) {
    (void)ReadDatabase(OracleDatabase::WithRows("").name()); // makes the directory
    const OracleDatabase database = OracleDatabase::WithRows(kFileRow);
    const auto before = WorkingFiles();
    const Octets bytes = database.Bytes();
    (void)DumpText(database);
    (void)Cause(OracleDatabase::WithRows(R"({"fileID": "p", "flags": 16})"));
    EXPECT_EQ(WorkingFiles(), before);
    EXPECT_EQ(database.Bytes(), bytes);
}

TEST_F(ManifestDatabaseCSV, AgreesWithPythonOnADeviceLikeDatabase) {
    const OracleDatabase database = OracleDatabase::WithRows("");
    boost::filesystem::remove(database.path());
    (void)testing_support::RunCommand({"/usr/bin/python3",
                                       KELVANE_SOURCE_DIR "/tests/tools/manifest_oracle.py",
                                       "grow-database", database.path().string(), "3000"});
    EXPECT_EQ(DumpText(database), OracleText(database));
}

TEST_F(ManifestDatabaseCSV, AgreesWithPythonOnUnusualTexts) {
    std::mt19937 random(7);
    const Lines pieces = {
        "a",       "\\\"",    ",",   "\\n",     "\\u00e9", "\\u20ac", "\\ud83d\\ude00",
        "\\uffff", "\\ue000", "\\r", "\\u0001", " "};
    const auto text = [&] {
        std::string result = "\"";
        for (auto left = random() % 12; left > 0; --left) {
            result += pieces[random() % pieces.size()];
        }
        return result + "\"";
    };
    std::string rows;
    for (int i = 0; i < 300; ++i) {
        rows += (rows.empty() ? "" : ", ") + std::string(R"({"fileID": null, "domain": )") +
                text() + R"(, "path": )" + text() + R"(, "flags": )" +
                std::to_string(random() % 5) + R"(, "file": {"RelativePath": )" + text() +
                R"(, "Target": )" + text() + "}}";
    }
    const OracleDatabase database = OracleDatabase::WithRows(rows);
    EXPECT_EQ(DumpText(database), OracleText(database));
}

TEST_F(ManifestDatabaseCSV, AgreesWithPythonOnWhatTheLibraryWrote) {
    auto entry = MakeEntry("D\xC3\xA9", "a/\xF0\x9F\x98\x80", kLinkMode, 1LL << 40);
    entry.get()->target = Text("t\"\xE2\x82\xAC").get();
    entry.get()->dataHash = DataOf(Octets(20, 7)).get();
    entry.get()->encryptionData = DataOf(Octets(44, 9)).get();
    entry.get()->inode = 1ULL << 63;
    const WrittenDatabase database(entry);
    EXPECT_EQ(DumpText(database), OracleText(database));
}

TEST(ManifestDatabaseCSVWithoutTemporaryPath, IsAnError) {
    EXPECT_PASSES_IN_FRESH_PROCESS({
        EXPECT_EQ(DumpAt(CF::String("/nonexistent")).error,
                  "Kelvane.ErrorDomain 11: Failed to parse records from manifest database < "
                  "Kelvane.ErrorDomain 2: Temporary storage path not set");
    });
}
