// Writing Manifest.mbdb.
#include "tests/manifest/ManifestFixtures.hpp"

using namespace manifest_test;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr CFAbsoluteTime kEpochOffset = 978307200;

CF::Data Write(const ManifestPointer &manifest) {
    CFErrorRef error = nullptr;
    auto data =
        CF::Data::Adopt(KVManifestCreateManifestDataRepresentation(manifest.get(), 24, &error));
    EXPECT_EQ(Describe(CF::Error::Adopt(error)), "none");
    return data;
}

// The oracle's reading of what is written.
Lines Written(const ManifestPointer &manifest) {
    const testing_support::TemporaryDirectory directory;
    return Oracle("read-mbdb", directory.write("m", Write(manifest).GetBytes()));
}

std::string WriteError(KVManifestClass *manifest, KVManifestDataVersion version) {
    CFErrorRef error = nullptr;
    EXPECT_EQ(KVManifestCreateManifestDataRepresentation(manifest, version, &error), nullptr);
    return Describe(CF::Error::Adopt(error));
}

Kelvane::EntryPointer FullEntry() {
    auto entry = MakeEntry("D", "a/b", kFileMode, 77);
    auto &body = *entry.get();
    body.target = Text("t\xC3\xA9").get();
    body.dataHash = DataOf({1, 2}).get();
    body.encryptionData = DataOf({3}).get();
    body.inode = 9;
    body.uid = 501;
    body.gid = 20;
    body.lastStatusChange = 3 - kEpochOffset;
    body.lastModified = 2 - kEpochOffset;
    body.birth = 1 - kEpochOffset;
    body.protectionClass = kEntryProtectionClassNone;
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("y"), DataOf({0xFE}).get());
    properties.Set(CFSTR("x"), DataOf({}).get());
    body.properties = properties.get();
    return entry;
}

Kelvane::EntryPointer EntryWithProperty(CFTypeRef name, CFTypeRef value) {
    auto entry = MakeEntry("D", "p");
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(name, value);
    entry.get()->properties = properties.get();
    return entry;
}

} // namespace

TEST(ManifestMbdbWrite, WritesEveryField) {
    EXPECT_THAT(
        Written(MakeManifest({FullEntry()})),
        ElementsAre("header 6d6264620500",
                    R"(record "D" "a/b" "t\u00e9" 0102 03 33188 9 501 20 3 2 1 77 4 x: y:fe)"));
}

TEST(ManifestMbdbWrite, WritesTheHeaderAlone) {
    const auto manifest = CF::Adopt(KVManifestCreateEmpty(nullptr));
    EXPECT_THAT(Write(manifest).GetVector(), ElementsAre('m', 'b', 'd', 'b', 5, 0));
}

TEST(ManifestMbdbWrite, SortsByDomainAndPathInCodeUnits) {
    const auto lines = Written(MakeManifest(
        {MakeEntry("a", "x"), MakeEntry("b", "\xEF\xBD\x81"), MakeEntry("b", "\xF0\x9F\x98\x80"),
         MakeEntry("A", "x"), MakeEntry("a", "10"), MakeEntry("a", "9")}));
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_THAT(lines[1], HasSubstr(R"("A" "x")"));
    EXPECT_THAT(lines[2], HasSubstr(R"("a" "10")"));
    EXPECT_THAT(lines[3], HasSubstr(R"("a" "9")"));
    EXPECT_THAT(lines[4], HasSubstr(R"("a" "x")"));
    EXPECT_THAT(lines[5], HasSubstr(R"("b" "\ud83d\ude00")"));
    EXPECT_THAT(lines[6], HasSubstr(R"("b" "\uff41")"));
}

TEST(ManifestMbdbWrite, SortsTheJoinedTextsNotTheDomainsFirst) {
    // "D-a-x" precedes "D-b", though the domain "D-a" follows "D".
    const auto lines = Written(MakeManifest(
        {MakeEntry("D", "b"), MakeEntry("D-a", "x"), MakeEntry("D", "A"), MakeEntry("D!", "z")}));
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_THAT(lines[1], HasSubstr(R"("D!" "z")"));
    EXPECT_THAT(lines[2], HasSubstr(R"("D" "A")"));
    EXPECT_THAT(lines[3], HasSubstr(R"("D-a" "x")"));
    EXPECT_THAT(lines[4], HasSubstr(R"("D" "b")"));
}

TEST(ManifestMbdbWrite, LeavesTheManifestInItsOrder) {
    const auto manifest = ManifestOfPaths({"b", "a"});
    Write(manifest);
    EXPECT_THAT(PathsOf(KVManifestGetEntries(manifest.get())), ElementsAre("b", "a"));
}

TEST(ManifestMbdbWrite, TimesBefore2001ComeOutRight) {
    auto entry = MakeEntry("D", "a");
    entry.get()->lastModified = -86400.5;
    const auto lines = Written(MakeManifest({entry}));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[1], HasSubstr(" 978220800 "));
}

TEST(ManifestMbdbWrite, RefusesOtherVersions) {
    const auto manifest = ManifestOfPaths({"a"});
    EXPECT_EQ(WriteError(manifest.get(), 33),
              "Kelvane.ErrorDomain 2: Invalid manifest version '33' for this encoding scheme");
    EXPECT_EQ(KVManifestCreateManifestDataRepresentation(manifest.get(), 0, nullptr), nullptr);
}

TEST(ManifestMbdbWrite, LongestValuesFit) {
    const std::string longest(65534, 'x');
    const auto lines = Written(MakeManifest({MakeEntry("D", longest)}));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[1], HasSubstr(longest));
}

TEST(ManifestMbdbWrite, ReportsEntriesWhoseValuesAreTooLong) {
    auto longData = MakeEntry("D", "data");
    longData.get()->dataHash = DataOf(Octets(65535)).get();
    const auto manifest =
        MakeManifest({MakeEntry("D", "good"), MakeEntry("D", std::string(65535, 'x')), longData});
    const std::string error = WriteError(manifest.get(), 24);
    EXPECT_THAT(error, testing::StartsWith("Kelvane.ErrorDomain 1: Failed to serialize entries "));
    EXPECT_THAT(error, HasSubstr("D-data"));
    EXPECT_THAT(error, HasSubstr("D-xxxx"));
    EXPECT_THAT(error, testing::Not(HasSubstr("D-good")));
}

TEST(ManifestMbdbWrite, LengthIsCountedInBytes) {
    std::string text;
    for (int i = 0; i < 21845; ++i) {
        text += "\xE2\x82\xAC"; // three bytes, one unit: 65535 bytes
    }
    EXPECT_THAT(WriteError(MakeManifest({MakeEntry("D", text)}).get(), 24),
                HasSubstr("Failed to serialize entries"));
}

TEST(ManifestMbdbWrite, ReportsTextsWithoutUTF8Form) {
    const UniChar lone = 0xDC00;
    const auto path = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, &lone, 1));
    auto entry = MakeEntry("D", "a");
    Kelvane::SetEntryPath(*entry.get(), CFSTR("D"), path);
    EXPECT_EQ(KVManifestEntryCreateManifestDataRepresentation(entry.get()), nullptr);
    EXPECT_THAT(WriteError(MakeManifest({entry}).get(), 24),
                HasSubstr("Kelvane.ErrorDomain 1: Failed to serialize entries"));
}

TEST(ManifestMbdbWrite, ReportsPropertiesThatAreNoData) {
    const auto number = CF::Number::FromInt32(1);
    for (const auto &entry :
         {EntryWithProperty(CFSTR("n"), number.get()),
          EntryWithProperty(number.get(), DataOf({1}).get()),
          EntryWithProperty(CFSTR("n"), DataOf(Octets(65535)).get()),
          EntryWithProperty(Text(std::string(65535, 'n')).get(), DataOf({1}).get())}) {
        EXPECT_EQ(KVManifestEntryCreateManifestDataRepresentation(entry.get()), nullptr);
    }
}

TEST(ManifestMbdbWrite, TakesAttributesInTheFormOfADatabase) {
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(CFSTR("n"), DataOf({1, 2}).get());
    auto raw = MakeEntry("D", "p");
    raw.get()->keptAttributes = CF::PropertyListType<CF::Dictionary>::ToPropertyListData(
                                    properties, kCFPropertyListBinaryFormat_v1_0)
                                    .get();
    const auto record = CF::Data::Adopt(KVManifestEntryCreateManifestDataRepresentation(raw.get()));
    const auto expected = CF::Data::Adopt(KVManifestEntryCreateManifestDataRepresentation(
        EntryWithProperty(CFSTR("n"), DataOf({1, 2}).get()).get()));
    ASSERT_TRUE(record);
    EXPECT_EQ(record, expected);
}

TEST(ManifestMbdbWrite, ReportsAttributesOfADatabaseThatNobodyUnderstands) {
    auto raw = MakeEntry("D", "p");
    raw.get()->keptAttributes = DataOf({'x'}).get();
    EXPECT_EQ(KVManifestEntryCreateManifestDataRepresentation(raw.get()), nullptr);
}

TEST(ManifestMbdbWrite, PropertyCountKeepsEightBits) {
    auto entry = MakeEntry("", "");
    const auto properties = CF::Dictionary::Mutable();
    for (int i = 0; i < 257; ++i) {
        properties.Set(Text(std::to_string(i)).get(), DataOf({}).get());
    }
    entry.get()->properties = properties.get();
    const auto record =
        CF::Data::Adopt(KVManifestEntryCreateManifestDataRepresentation(entry.get()));
    ASSERT_TRUE(record);
    EXPECT_EQ(record.GetBytes()[10 + 39], 1);
}

TEST(ManifestMbdbWrite, RecordIsThatOfTheFile) {
    const auto entry = FullEntry();
    const auto record =
        CF::Data::Adopt(KVManifestEntryCreateManifestDataRepresentation(entry.get()));
    Octets expected = {'m', 'b', 'd', 'b', 5, 0};
    const Octets bytes = record.GetVector();
    expected.insert(expected.end(), bytes.begin(), bytes.end());
    EXPECT_EQ(Write(MakeManifest({entry})).GetVector(), expected);
}

TEST(ManifestMbdbWrite, WhatIsReadIsWrittenAgain) {
    const auto first =
        Write(MakeManifest({FullEntry(), MakeEntry("A", ""), MakeEntry("D", "\xE2\x82\xAC")}));
    const auto manifest = CF::Adopt(KVManifestCreateFromManifestData(nullptr, first, 24, {}, {}));
    ASSERT_TRUE(manifest);
    EXPECT_EQ(Write(manifest).GetVector(), first.GetVector());
}
