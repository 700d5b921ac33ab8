// Writing a manifest as Manifest.db.
#include "tests/manifest/DatabaseFixtures.hpp"

using namespace manifest_test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class ManifestDBWrite : public testing::Test {
  protected:
    void SetUp() override { testing_support::LibraryTemporaryPath(); }

    static CF::Data Write(const ManifestPointer &manifest, KVManifestDataVersion version = 33) {
        return CF::Data::Adopt(KVManifestCreateManifestDBRepresentation(manifest.get(), version));
    }
    // The oracle's reading of the file, only the lines that begin so.
    static Lines Facts(const CF::Data &data, std::string_view beginning) {
        const testing_support::TemporaryDirectory directory;
        Lines facts;
        for (const auto &line : Oracle("read-database", directory.write("db", data.GetBytes()))) {
            if (line.starts_with(beginning)) {
                facts.push_back(line);
            }
        }
        return facts;
    }
    static ReadResult ReadBack(const CF::Data &data) {
        const testing_support::TemporaryDirectory directory;
        return ReadDatabase(CF::String(directory.write("db", data.GetBytes()).string()));
    }
};

Kelvane::EntryPointer FullEntry() {
    auto entry = MakeEntry("D", "a/b", kLinkMode, 77);
    auto &body = *entry.get();
    body.fileID = Text("id").get();
    body.fileType = 4;
    body.target = Text("t\xC3\xA9").get();
    body.dataHash = DataOf({1, 2}).get();
    body.encryptionData = DataOf({3}).get();
    body.inode = 9;
    body.uid = 501;
    body.gid = 20;
    body.lastStatusChange = 3;
    body.lastModified = 2;
    body.birth = 1;
    body.protectionClass = kEntryProtectionClassNone;
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("x"), DataOf({0xFE}).get());
    body.properties = properties.get();
    return entry;
}

} // namespace

TEST_F(ManifestDBWrite, WritesEveryFieldOfAnEntry) {
    EXPECT_THAT(
        Facts(Write(MakeManifest({FullEntry()})), "row"),
        ElementsAre(R"(row "id" "D" "a/b" 4 Birth=978307201 Digest=0102 EncryptionKey=03 )"
                    R"(ExtendedAttributes={x:fe} GroupID=20 InodeNumber=9 LastModified=978307202 )"
                    R"(LastStatusChange=978307203 Mode=41453 ProtectionClass=4 RelativePath="a/b" )"
                    R"(Size=77 Target="t\u00e9" UserID=501 MBFile)"));
}

TEST_F(ManifestDBWrite, DatabaseIsSoundAndHasUserVersionTwo) {
    const auto data = Write(ManifestOfPaths({"a"}), 33);
    EXPECT_THAT(Facts(data, "user_version"), ElementsAre("user_version 2"));
    EXPECT_THAT(Facts(data, "integrity_check"), ElementsAre("integrity_check ok"));
    EXPECT_THAT(Facts(data, "page_size"), ElementsAre("page_size 4096"));
    EXPECT_EQ(Facts(data, "schema").size(), 5U);
}

TEST_F(ManifestDBWrite, RefusesOtherVersions) {
    for (const KVManifestDataVersion version : {0U, 24U, 29U, 34U}) {
        EXPECT_EQ(ThrownError([&] { Write(ManifestOfPaths({"a"}), version); }),
                  "Kelvane.ErrorDomain 2: Invalid manifest version '" + std::to_string(version) +
                      "' for this encoding scheme");
    }
}

TEST_F(ManifestDBWrite, EmptyManifestIsAnEmptyTable) {
    const auto data = Write(CF::Adopt(KVManifestCreateEmpty(nullptr)), 30);
    EXPECT_THAT(Facts(data, "row"), testing::IsEmpty());
    EXPECT_TRUE(ReadBack(data).manifest);
}

TEST_F(ManifestDBWrite, RowsAreSortedByDomainAndPathInCodeUnits) {
    const auto rows =
        Facts(Write(MakeManifest({MakeEntry("a", "x"), MakeEntry("b", "\xEF\xBD\x81"),
                                  MakeEntry("b", "\xF0\x9F\x98\x80"), MakeEntry("A", "x")})),
              "row");
    ASSERT_EQ(rows.size(), 4U);
    EXPECT_THAT(rows[0], HasSubstr(R"("A" "x")"));
    EXPECT_THAT(rows[1], HasSubstr(R"("a" "x")"));
    EXPECT_THAT(rows[2], HasSubstr(R"("b" "\ud83d\ude00")"));
    EXPECT_THAT(rows[3], HasSubstr(R"("b" "\uff41")"));
}

TEST_F(ManifestDBWrite, LaterOfTwoEntriesWithOneFileIDStays) {
    auto first = MakeEntry("D", "b");
    auto last = MakeEntry("D", "a");
    first.get()->fileID = Text("id").get();
    last.get()->fileID = Text("id").get();
    const auto rows = Facts(Write(MakeManifest({first, last})), "row");
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_THAT(rows[0], StartsWith(R"(row "id" "D" "b")"));
}

TEST_F(ManifestDBWrite, EntriesWithOnePathKeepTheirOrder) {
    auto first = MakeEntry("D", "a", kFileMode, 1);
    auto last = MakeEntry("D", "a", kFileMode, 2);
    const auto rows = Facts(Write(MakeManifest({first, last})), "row");
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_THAT(rows[0], HasSubstr("Size=2 "));
}

TEST_F(ManifestDBWrite, PlaceholdersAreWrittenBack) {
    const auto read = ReadDatabase(
        OracleDatabase::WithRows(std::string(kFileRow) + R"(, {"fileID": "p", "flags": 16})")
            .name());
    ASSERT_TRUE(read.manifest);
    EXPECT_THAT(Facts(Write(read.manifest), "row"), Contains("row \"p\" NULL NULL 16 NULL"));
}

TEST_F(ManifestDBWrite, CopyWritesPlaceholdersToo) {
    const auto read =
        ReadDatabase(OracleDatabase::WithRows(R"({"fileID": "p", "flags": 16})").name());
    ASSERT_TRUE(read.manifest);
    const auto copy = CF::Adopt(KVManifestCreateCopy(nullptr, read.manifest.get(), {}));
    EXPECT_THAT(Facts(Write(copy), "row"), ElementsAre("row \"p\" NULL NULL 16 NULL"));
}

TEST_F(ManifestDBWrite, BinaryManifestGetsFlagsZeroAndReadsBack) {
    CFErrorRef error = nullptr;
    const auto mbdb = CF::Data::Adopt(
        KVManifestCreateManifestDataRepresentation(ManifestOfPaths({"a", "b"}).get(), 24, &error));
    ASSERT_TRUE(mbdb);
    const auto manifest = CF::Adopt(KVManifestCreateFromManifestData(nullptr, mbdb, 24, {}, {}));
    const auto data = Write(manifest);
    EXPECT_THAT(Facts(data, "row"),
                ElementsAre(HasSubstr("\"D\" \"a\" 0 "), HasSubstr("\"D\" \"b\" 0 ")));
    const auto back = ReadBack(data);
    ASSERT_TRUE(back.manifest) << back.error;
    EXPECT_THAT(PathsOf(KVManifestGetEntries(back.manifest.get())), ElementsAre("a", "b"));
}

TEST_F(ManifestDBWrite, WhatIsReadIsWrittenAgain) {
    const auto first =
        Write(MakeManifest({FullEntry(), MakeEntry("A", ""), MakeEntry("D", "\xE2\x82\xAC")}));
    const auto back = ReadBack(first);
    ASSERT_TRUE(back.manifest) << back.error;
    EXPECT_EQ(Facts(Write(back.manifest), ""), Facts(first, ""));
}

TEST_F(ManifestDBWrite, TextWithoutUTF8FormIsRefused) {
    const UniChar lone = 0xD83D;
    const auto path = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &lone, 1));
    auto entry = MakeEntry("D", "a");
    Kelvane::SetEntryPath(*entry.get(), CFSTR("D"), path);
    EXPECT_EQ(ThrownError([&] { Write(MakeManifest({entry})); }),
              "Kelvane.ErrorDomain 2: Text cannot be encoded as UTF-8");
}

TEST_F(ManifestDBWrite, MoreThanAHundredMebibytesAreRefused) {
    std::vector<Kelvane::EntryPointer> entries;
    const auto digest = DataOf(Octets(8 * 1024 * 1024, 7));
    for (int i = 0; i < 13; ++i) {
        entries.push_back(MakeEntry("D", std::to_string(i)));
        entries.back().get()->dataHash = digest.get();
    }
    const std::string error = ThrownError([&] { Write(MakeManifest(entries)); });
    EXPECT_THAT(error,
                StartsWith("Kelvane.ErrorDomain 3: Failed to read from temporary DB location: "));
    EXPECT_THAT(error, HasSubstr(" < NSPOSIXErrorDomain 27"));
}
