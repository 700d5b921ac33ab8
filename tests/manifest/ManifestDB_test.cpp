// The working copy of a database.
#include "tests/manifest/DatabaseFixtures.hpp"

#include <sys/stat.h>

using namespace manifest_test;
using Kelvane::ManifestDB;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

const Lines kSchema = {
    "schema table CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, "
    "flags INTEGER, file BLOB)",
    "schema table CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB)",
    "schema index CREATE INDEX FilesDomainIdx ON Files (domain)",
    "schema index CREATE INDEX FilesFlagsIdx ON Files (flags)",
    "schema index CREATE INDEX FilesRelativePathIdx ON Files (relativePath)",
};

unsigned ModeOf(const ZK::filesystem::path &path) {
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

Lines RowsOf(ManifestDB &database) {
    Lines rows;
    database.ProcessEntries([&](const CF::String &fileID, const CF::String &domain,
                                const CF::String &path, int flags, const CF::Data &file,
                                std::int64_t index, std::int64_t count) {
        rows.push_back(std::to_string(index) + "/" + std::to_string(count) + " " +
                       (fileID ? fileID.GetUTF8() : "null") + "|" +
                       (domain ? domain.GetUTF8() : "null") + "|" +
                       (path ? path.GetUTF8() : "null") + "|" + std::to_string(flags) + "|" +
                       std::to_string(file.GetLength()));
    });
    return rows;
}

class ManifestDatabase : public testing::Test {
  protected:
    void SetUp() override { testing_support::LibraryTemporaryPath(); }
};

} // namespace

TEST_F(ManifestDatabase, NewOneHasTheSchemaAndVersion) {
    ManifestDB database(7);
    database.Close();
    const auto facts = Oracle("read-database", database.GetLocalPath().GetUTF8());
    Lines expected = kSchema;
    expected.insert(expected.end(), {"user_version 7", "page_size 4096", "auto_vacuum 0",
                                     "journal_mode wal", "encoding UTF-8", "integrity_check ok"});
    EXPECT_EQ(facts, expected);
}

TEST_F(ManifestDatabase, UserVersionIsThatOfTheOpenedFile) {
    EXPECT_EQ(ManifestDB(7).GetUserVersion(), 0);
    EXPECT_EQ(ManifestDB(OracleDatabase::WithRows("").name()).GetUserVersion(), 2);
}

TEST_F(ManifestDatabase, NullPathMakesAFileWithoutTables) {
    ManifestDB database{CF::String()};
    EXPECT_EQ(ThrownError([&] { RowsOf(database); }),
              "Kelvane.ErrorDomain 13: no such table: Files");
}

TEST_F(ManifestDatabase, WorkingCopyIsPrivate) {
    const ZK::filesystem::path made(ManifestDB(2).GetLocalPath().GetUTF8());
    const ZK::filesystem::path copied(
        ManifestDB(OracleDatabase::WithRows(kFileRow).name()).GetLocalPath().GetUTF8());
    const auto base = testing_support::LibraryTemporaryPath() / "KVManifestDB";
    EXPECT_EQ(made.parent_path(), base);
    EXPECT_EQ(copied.parent_path(), base);
    EXPECT_EQ(ModeOf(base), 0700U);
    EXPECT_EQ(ModeOf(made), 0600U);
    EXPECT_EQ(ModeOf(copied), 0600U);
    EXPECT_THAT(made.filename().string(),
                MatchesRegex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"));
    EXPECT_NE(made, copied);
}

TEST_F(ManifestDatabase, FilesBesideAnOpenDatabaseArePrivateToo) {
    ManifestDB database(2);
    database.AddEntry(Text("a"), nullptr, nullptr, 16, nullptr);
    const auto path = database.GetLocalPath().GetUTF8();
    EXPECT_EQ(ModeOf(path + "-wal"), 0600U);
}

TEST_F(ManifestDatabase, SourceIsNotTouched) {
    const auto source = OracleDatabase::WithRows(kFileRow);
    const Octets before = source.Bytes();
    ManifestDB database(source.name());
    database.AddEntry(Text("new"), Text("D"), Text("n"), 1, DataOf({1}));
    EXPECT_THAT(RowsOf(database), testing::SizeIs(2));
    database.Close();
    EXPECT_EQ(source.Bytes(), before);
}

TEST_F(ManifestDatabase, CopyFailureNamesBothPaths) {
    const std::string missing = "/nonexistent/Manifest.db";
    EXPECT_THAT(ThrownError([&] { ManifestDB database{CF::String(missing)}; }),
                MatchesRegex("Kelvane.ErrorDomain 3: Failed to copy temporary database "
                             "'/nonexistent/Manifest.db' to '.*/KVManifestDB/[0-9A-F-]*' "
                             "\\(.*No such file or directory.*\\)"));
}

TEST_F(ManifestDatabase, WhatIsNoDatabaseIsRefused) {
    const auto source = OracleDatabase::WithRows("");
    source.Replace(Octets(5000, 'x'));
    EXPECT_EQ(ThrownError([&] { ManifestDB database(source.name()); }),
              "Kelvane.ErrorDomain 13: Failed to query user_version (file is not a database)");
}

TEST_F(ManifestDatabase, ProcessesRowsWithIndexAndCount) {
    ManifestDB database(OracleDatabase::WithRows(std::string(kFileRow) + R"(,
        {"fileID": "x", "domain": null, "path": null, "flags": 16, "file": null})")
                            .name());
    const Lines rows = RowsOf(database);
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_THAT(rows[0], StartsWith("0/2 aa|D|a|1|"));
    EXPECT_EQ(rows[1], "1/2 x|||16|0");
}

TEST_F(ManifestDatabase, EmptyTableCallsNobody) {
    ManifestDB database(2);
    EXPECT_THAT(RowsOf(database), IsEmpty());
}

TEST_F(ManifestDatabase, TextThatIsNotUTF8ArrivesAsNull) {
    ManifestDB database(
        OracleDatabase::WithRows(
            R"({"fileID": {"hex": "61ff"}, "domain": {"hex": "c0af"}, "path": "p"})")
            .name());
    EXPECT_THAT(RowsOf(database), ElementsAre("0/1 null|null|p|0|0"));
}

TEST_F(ManifestDatabase, NulInsideTextIsKept) {
    ManifestDB database(
        OracleDatabase::WithRows(
            R"({"fileID": "a\u0000b", "domain": "D\u0000", "path": "", "flags": 1})")
            .name());
    EXPECT_THAT(RowsOf(database), ElementsAre(std::string("0/1 a\0b|D\0||1|0", 15)));
}

TEST_F(ManifestDatabase, ErrorsOfTheCallbackPassOn) {
    ManifestDB database(OracleDatabase::WithRows(kFileRow).name());
    EXPECT_THROW(database.ProcessEntries([](auto &&...) { throw std::range_error("mine"); }),
                 std::range_error);
    EXPECT_THAT(RowsOf(database), testing::SizeIs(1));
}

TEST_F(ManifestDatabase, AddsRowsWithNullsAndEmptyValues) {
    ManifestDB database(2);
    database.AddEntry(Text("a"), Text("D\xC3\xA9"), Text(""), 1, DataOf({}));
    database.AddEntry(Text("b"), nullptr, nullptr, -1, nullptr);
    const auto result = testing_support::RunCommand(
        {"sqlite3", database.GetLocalPath().GetUTF8(),
         "SELECT fileID, typeof(domain), hex(domain), typeof(relativePath), flags, typeof(file), "
         "length(file) FROM Files"});
    EXPECT_EQ(result.output, "a|text|44C3A9|text|1|blob|0\nb|null||null|-1|null|\n");
}

TEST_F(ManifestDatabase, AddingReplacesTheRowWithThatFileID) {
    ManifestDB database(2);
    database.AddEntry(Text("a"), Text("D"), Text("1"), 1, nullptr);
    database.AddEntry(Text("a"), Text("E"), Text("2"), 2, nullptr);
    EXPECT_THAT(RowsOf(database), ElementsAre("0/1 a|E|2|2|0"));
}

TEST_F(ManifestDatabase, ReadsLargeRowsThatAreStillInTheLog) {
    ManifestDB database(2);
    database.AddEntry("a", "D", "p", 1, DataOf(Octets(1'000'000, 7)));
    EXPECT_THAT(RowsOf(database), ElementsAre("0/1 a|D|p|1|1000000"));
}

TEST_F(ManifestDatabase, AddingNeedsAFileID) {
    ManifestDB database(2);
    EXPECT_EQ(ThrownError([&] { database.AddEntry(nullptr, nullptr, nullptr, 1, nullptr); }),
              "Kelvane.ErrorDomain 2: fileID must be non-null");
}

TEST_F(ManifestDatabase, ClosedOneRefusesToWork) {
    ManifestDB database(2);
    const auto path = database.GetLocalPath();
    database.Close();
    database.Close();
    EXPECT_EQ(ThrownError([&] { RowsOf(database); }), "Kelvane.ErrorDomain 2: Database closed");
    EXPECT_EQ(ThrownError([&] { database.AddEntry(nullptr, nullptr, nullptr, 1, nullptr); }),
              "Kelvane.ErrorDomain 2: Database closed");
    EXPECT_EQ(database.GetLocalPath(), path);
}

TEST_F(ManifestDatabase, FileOutlivesTheObject) {
    std::string path;
    {
        ManifestDB database(2);
        path = database.GetLocalPath().GetUTF8();
    }
    EXPECT_TRUE(boost::filesystem::exists(path));
}

TEST(ManifestDatabaseDeathTest, NeedsATemporaryPath) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            try {
                ManifestDB database(2);
            } catch (const std::runtime_error &exception) {
                std::fputs(exception.what(), stderr);
                std::_Exit(3);
            }
        },
        testing::ExitedWithCode(3), "Temporary storage path not set");
}
