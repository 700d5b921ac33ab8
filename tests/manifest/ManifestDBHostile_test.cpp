// Databases that are damaged, or made to harm their reader.
#include "tests/manifest/DatabaseFixtures.hpp"

using namespace manifest_test;
using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr std::size_t kPageSize = 4096;
constexpr const char *kColumns = "fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags "
                                 "INTEGER, file BLOB";

// Placeholder rows, enough for a table of several levels.
std::string ManyRows(int count) {
    std::string rows;
    for (int i = 0; i < count; ++i) {
        rows += (i == 0 ? "" : ",") + std::string(R"({"fileID": ")") + std::to_string(i) +
                R"(", "flags": 16})";
    }
    return rows;
}

void ExpectRefusedOrWhole(const OracleDatabase &database, CFIndex rows) {
    const auto result = ReadDatabase(database.name());
    if (result.manifest) {
        EXPECT_EQ(result.manifest.get()->placeholderFileIDs.GetCount() +
                      CFArrayGetCount(KVManifestGetEntries(result.manifest.get())),
                  rows);
    } else {
        EXPECT_THAT(result.error, StartsWith("Kelvane.ErrorDomain 11: "));
    }
}

// Overwrites a big-endian number of the file.
void Put(Octets &bytes, std::size_t offset, std::uint32_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
    }
}

// A table interior page: cells that all lead to one child, which is the right-most one too.
void PutInterior(Octets &bytes, std::uint32_t page, std::uint32_t child, int cells) {
    const std::size_t start = (page - 1) * kPageSize;
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(start), kPageSize, 0);
    const auto content =
        static_cast<std::uint32_t>(kPageSize) - static_cast<std::uint32_t>(cells) * 5;
    bytes.at(start) = 5;
    Put(bytes, start + 3, static_cast<std::uint32_t>(cells), 2);
    Put(bytes, start + 5, content, 2);
    Put(bytes, start + 8, child, 4);
    for (int i = 0; i < cells; ++i) {
        const std::uint32_t cell = content + static_cast<std::uint32_t>(i) * 5;
        Put(bytes, start + 12 + static_cast<std::size_t>(i) * 2, cell, 2);
        Put(bytes, start + cell, child, 4);
        Put(bytes, start + cell + 4, 1, 1);
    }
}

constexpr std::size_t kSmallPageSize = 512;
constexpr std::size_t kLocalSize = 99; // of a row's content, with these lengths

// Calls visit with each cell of a row whose content is of that size, as two-byte varint.
template <class Visitor>
void ForEachRow(Octets &bytes, std::array<std::uint8_t, 2> size, Visitor visit) {
    for (std::size_t page = kSmallPageSize; page < bytes.size(); page += kSmallPageSize) {
        const std::size_t cells = bytes[page] == 0x0D ? bytes[page + 4] : 0;
        for (std::size_t i = 0; i < cells; ++i) {
            const std::size_t pointer = page + 8 + 2 * i;
            std::uint8_t *cell = &bytes[page + bytes[pointer] * 256U + bytes[pointer + 1]];
            if (cell[0] == size[0] && cell[1] == size[1]) {
                visit(cell);
            }
        }
    }
}

// Makes the rows of 600 characters claim those of the row of 7712.
Octets WithSharedOverflow(Octets bytes) {
    constexpr std::size_t kOverflow = 3 + kLocalSize;
    Octets longRow;
    ForEachRow(bytes, {0xBC, 0x27},
               [&](const std::uint8_t *cell) { longRow.assign(cell, cell + kOverflow + 4); });
    ForEachRow(bytes, {0x84, 0x5F}, [&](std::uint8_t *cell) {
        std::copy_n(longRow.begin(), 2, cell);         // size of the content
        std::copy_n(longRow.begin() + 3, 7, cell + 3); // its header
        std::copy_n(longRow.begin() + kOverflow, 4, cell + kOverflow);
    });
    return bytes;
}

// What reading every row throws.
std::string ReadingRows(const OracleDatabase &database) {
    testing_support::LibraryTemporaryPath();
    return ThrownError([&] {
        Kelvane::ManifestDB copy{database.name()};
        copy.ProcessEntries([](auto &&...) {});
    });
}

} // namespace

TEST(ManifestDBHostile, ViewInPlaceOfTheTableIsRefused) {
    const auto database = OracleDatabase::WithSetup(
        {"CREATE VIEW Files AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n) "
         "SELECT "
         "i AS fileID, '' AS domain, '' AS relativePath, 16 AS flags, NULL AS file FROM n"});
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: Files is not an ordinary table");
}

TEST(ManifestDBHostile, VirtualTableIsRefused) {
    const auto database = OracleDatabase::WithSetup(
        {"CREATE VIRTUAL TABLE Files USING fts4(fileID, domain, relativePath, flags, file)"});
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: Files is not an ordinary table");
}

TEST(ManifestDBHostile, NameIsComparedAsSQLiteDoes) {
    const auto database =
        OracleDatabase::WithSetup({"CREATE VIEW fILES AS SELECT 1 AS fileID, 2 AS domain"});
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: Files is not an ordinary table");
}

TEST(ManifestDBHostile, ComputedColumnsAreRefused) {
    const auto database = OracleDatabase::WithSetup(
        {"CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, flags "
         "INTEGER, file BLOB AS (zeroblob(1000000000)))"});
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: Files has computed columns");
}

TEST(ManifestDBHostile, TriggersDoNotRun) {
    testing_support::LibraryTemporaryPath();
    const auto source = OracleDatabase::WithRows(kFileRow);
    source.Run("CREATE TRIGGER t AFTER INSERT ON Files BEGIN DELETE FROM Files; END");
    Kelvane::ManifestDB database(source.name());
    database.AddEntry(Text("n"), nullptr, nullptr, 16, nullptr);
    int rows = 0;
    database.ProcessEntries([&](auto &&...) { ++rows; });
    EXPECT_EQ(rows, 2);
}

TEST(ManifestDBHostile, MissingColumnIsAnError) {
    const auto database = OracleDatabase::WithSetup({"CREATE TABLE Files (fileID TEXT)"});
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: no such column: domain");
}

TEST(ManifestDBHostile, TableWithoutRowIDIsOrdinary) {
    const auto database = OracleDatabase::WithSetup(
        {std::string("CREATE TABLE Files (") + kColumns + ") WITHOUT ROWID",
         "INSERT INTO Files VALUES ('a', NULL, NULL, 16, NULL)"});
    const auto result = ReadDatabase(database.name());
    ASSERT_TRUE(result.manifest);
    EXPECT_EQ(result.manifest.get()->placeholderFileIDs.GetCount(), 1);
}

TEST(ManifestDBHostile, DatabaseLeftInWriteAheadModeIsRead) {
    const auto database = OracleDatabase::WithRows(kFileRow);
    database.Run("PRAGMA journal_mode=WAL");
    EXPECT_TRUE(ReadDatabase(database.name()).manifest);
}

TEST(ManifestDBHostile, IndexThatHidesRowsIsNotBelieved) {
    const auto database = OracleDatabase::WithRows(ManyRows(10));
    // Counting reads the smallest index; this one says that there are no rows.
    database.Run("CREATE TABLE other (flags INTEGER); CREATE INDEX none ON other (flags);"
                 "PRAGMA writable_schema=ON;"
                 "UPDATE sqlite_master SET rootpage = (SELECT rootpage FROM sqlite_master WHERE "
                 "name='none') WHERE name='FilesFlagsIdx'; DELETE FROM sqlite_master WHERE name IN "
                 "('none', 'other');");
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: database disk image is malformed");
}

TEST(ManifestDBHostile, TreeThatSharesItsBranchesEndsInAnError) {
    // Thirteen levels of pages, each with 400 pointers to the next one: more rows than
    // could be read in a lifetime.
    const auto database =
        OracleDatabase::WithSetup({std::string("CREATE TABLE Files (") + kColumns + ") "});
    database.Run("DROP TABLE Files; CREATE TABLE Files (fileID TEXT, domain TEXT, relativePath "
                 "TEXT, flags INTEGER, file BLOB); INSERT INTO Files VALUES ('a','','',16,NULL);"
                 "CREATE TABLE filler (x); INSERT INTO filler VALUES (zeroblob(80000));");
    Octets bytes = database.Bytes();
    const auto root = static_cast<std::uint32_t>(std::stoul(
        testing_support::RunCommand({"sqlite3", database.path().string(),
                                     "SELECT rootpage FROM sqlite_master WHERE name='Files'"})
            .output));
    const auto pages = static_cast<std::uint32_t>(bytes.size() / kPageSize);
    ASSERT_GT(pages, 15U);
    const auto leaf = pages;
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>((root - 1) * kPageSize), kPageSize,
                bytes.begin() + static_cast<std::ptrdiff_t>((leaf - 1) * kPageSize));
    PutInterior(bytes, root, pages - 12, 400);
    for (std::uint32_t page = pages - 12; page < leaf; ++page) {
        PutInterior(bytes, page, page + 1, 400);
    }
    database.Replace(bytes);
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: interrupted");
}

TEST(ManifestDBHostile, EveryTruncationIsRefused) {
    const auto database = OracleDatabase::WithRows(ManyRows(300));
    const Octets whole = database.Bytes();
    for (std::size_t length = 1; length < whole.size(); length += 509) {
        SCOPED_TRACE(length);
        database.Replace(
            Octets(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
        const auto result = ReadDatabase(database.name());
        EXPECT_FALSE(result.manifest);
        EXPECT_THAT(result.error, StartsWith("Kelvane.ErrorDomain 11: "));
    }
}

TEST(ManifestDBHostile, EmptyFileHasNoTable) {
    const auto database = OracleDatabase::WithRows("");
    database.Replace({});
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: no such table: Files");
}

TEST(ManifestDBHostile, DamagedPagesNeverLoseRowsInSilence) {
    const int kRows = 200;
    const auto database = OracleDatabase::WithRows(ManyRows(kRows));
    const Octets whole = database.Bytes();
    for (std::size_t page = 0; page < whole.size() / kPageSize; ++page) {
        for (const std::size_t offset : {0U, 1U, 3U, 4U, 5U, 7U, 8U, 11U, 100U, 103U, 105U}) {
            for (const std::uint8_t value : Octets{0x00, 0x01, 0x7F, 0xFF}) {
                Octets damaged = whole;
                damaged[page * kPageSize + offset] = value;
                database.Replace(damaged);
                ExpectRefusedOrWhole(database, kRows);
            }
        }
    }
}

TEST(ManifestDBHostile, OversizedValuesAreRefused) {
    const auto database = OracleDatabase::WithRows("");
    database.Run("INSERT INTO Files VALUES ('a', 'D', 'p', 1, zeroblob(70000000))");
    EXPECT_EQ(ReadCause(database), "Kelvane.ErrorDomain 13: string or blob too big");
}

TEST(ManifestDBHostile, SpecialFileIsRefusedWithoutWaiting) {
    const testing_support::TemporaryDirectory directory;
    const auto path = (directory / "Manifest.db").string();
    ASSERT_EQ(testing_support::RunCommand({"mkfifo", path}).status, 0);
    const auto result = ReadDatabase(CF::String(path));
    EXPECT_FALSE(result.manifest);
    EXPECT_THAT(result.error,
                HasSubstr("Kelvane.ErrorDomain 3: Failed to copy temporary database"));
}

TEST(ManifestDBHostile, RowsThatShareOneLongValueAreRefused) {
    // Pages of 512 bytes; both texts leave equally much of themselves in the row's own page.
    const OracleDatabase database = OracleDatabase::WithRows("");
    database.Run("PRAGMA page_size=512; DROP INDEX FilesDomainIdx; VACUUM;");
    database.Run("INSERT INTO Files VALUES (NULL, hex(zeroblob(3856)), NULL, 0, NULL);");
    database.Run("WITH RECURSIVE n(i) AS (VALUES(1) UNION ALL SELECT i+1 FROM n WHERE i<100) "
                 "INSERT INTO Files SELECT NULL, hex(zeroblob(300)), NULL, 0, NULL FROM n;");
    EXPECT_EQ(ReadingRows(database), "nothing thrown");
    database.Replace(WithSharedOverflow(database.Bytes()));
    EXPECT_EQ(ReadingRows(database), "Kelvane.ErrorDomain 13: database disk image is malformed");
}
