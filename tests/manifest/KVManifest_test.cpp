#include "tests/manifest/ManifestFixtures.hpp"

#include <limits>

using namespace manifest_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

CFIndex CountOf(KVManifestClass *manifest) {
    return CFArrayGetCount(KVManifestGetEntries(manifest));
}

Lines DomainsOf(const ManifestPointer &manifest) {
    return TextsOf(CF::Array::Adopt(KVManifestCopyDomainsList(manifest.get())));
}

const KVManifestEntryClass *Find(const ManifestPointer &manifest, CFStringRef fileID) {
    return KVManifestGetEntryForFileID(manifest.get(), fileID);
}

Kelvane::EntryPointer EntryWithFileID(std::string_view path, std::string_view fileID,
                                      std::uint16_t mode = kFileMode) {
    auto entry = MakeEntry("D", path, mode);
    entry.get()->fileID = Text(fileID).get();
    return entry;
}

} // namespace

TEST(KVManifest, TypeIdentifierIsStableAndItsOwn) {
    EXPECT_EQ(KVManifestGetTypeID(), KVManifestGetTypeID());
    EXPECT_NE(KVManifestGetTypeID(), KVManifestEntryGetTypeID());
    const auto manifest = CF::Adopt(KVManifestCreateEmpty(nullptr));
    EXPECT_EQ(CFGetTypeID(manifest.get()), KVManifestGetTypeID());
}

TEST(KVManifest, EmptyOneHasNothing) {
    const auto manifest = CF::Adopt(KVManifestCreateEmpty(nullptr));
    EXPECT_EQ(CountOf(manifest.get()), 0);
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest.get()), 0);
    EXPECT_EQ(KVManifestGetTotalFileCount(manifest.get()), 0);
    EXPECT_EQ(manifest.get()->dataVersion, kKVManifestDataVersionNone);
    EXPECT_THAT(DomainsOf(manifest), IsEmpty());
    EXPECT_EQ(CFArrayGetCount(KVManifestGetFileIDs(manifest.get())), 0);
    EXPECT_EQ(Find(manifest, CFSTR("x")), nullptr);
}

TEST(KVManifest, DescriptionIsClassNameAndAddress) {
    const auto manifest = CF::Adopt(KVManifestCreateEmpty(nullptr));
    char expected[64];
    std::snprintf(expected, sizeof expected, "<KVManifest %p>",
                  static_cast<void *>(manifest.get()));
    EXPECT_EQ(Plain(CF::String::Adopt(CFCopyDescription(manifest.get()))), expected);
}

TEST(KVManifest, TwoManifestsAreNeverEqual) {
    const auto a = CF::Adopt(KVManifestCreateEmpty(nullptr));
    const auto b = CF::Adopt(KVManifestCreateEmpty(nullptr));
    EXPECT_TRUE(CFEqual(a.get(), a.get()));
    EXPECT_FALSE(CFEqual(a.get(), b.get()));
}

TEST(KVManifest, TotalsCountEverySizeButOnlyFiles) {
    const auto manifest =
        MakeManifest({MakeEntry("D", "f", kFileMode, 5), MakeEntry("D", "d", kDirectoryMode, 70),
                      MakeEntry("", "l", kLinkMode, 900)});
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest.get()), 975);
    EXPECT_EQ(KVManifestGetTotalFileCount(manifest.get()), 1);
}

TEST(KVManifest, ImpossibleSizesStopAtTheLargestNumber) {
    constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
    const auto manifest =
        MakeManifest({MakeEntry("D", "a", kFileMode, kMost), MakeEntry("D", "b", kFileMode, 1)});
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest.get()), kMost);
}

TEST(KVManifest, UpdateCopiesTheArray) {
    const auto manifest = CF::Adopt(KVManifestCreateEmpty(nullptr));
    const auto array = ArrayOf({MakeEntry("D", "a")});
    KVManifestUpdateEntries(manifest.get(), array);
    array.Append(MakeEntry("D", "b").get());
    EXPECT_THAT(PathsOf(KVManifestGetEntries(manifest.get())), ElementsAre("a"));
}

TEST(KVManifest, UpdateTakesItsOwnEntries) {
    const auto manifest = MakeManifest({MakeEntry("D", "a", kFileMode, 3)});
    KVManifestUpdateEntries(manifest.get(), KVManifestGetEntries(manifest.get()));
    EXPECT_THAT(PathsOf(KVManifestGetEntries(manifest.get())), ElementsAre("a"));
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest.get()), 3);
}

TEST(KVManifest, UpdateWithNothingEmpties) {
    const auto manifest = MakeManifest({MakeEntry("D", "a", kFileMode, 3)});
    KVManifestUpdateEntries(manifest.get(), nullptr);
    EXPECT_EQ(CountOf(manifest.get()), 0);
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest.get()), 0);
}

TEST(KVManifest, UpdateForgetsEveryTable) {
    const auto before = MakeEntry("Old", "a");
    const auto after = MakeEntry("New", "b");
    const auto manifest = MakeManifest({before});
    EXPECT_EQ(Find(manifest, before.get()->fileID.get()), before.get());
    EXPECT_THAT(DomainsOf(manifest), ElementsAre("Old"));
    EXPECT_EQ(CFArrayGetCount(KVManifestGetFileIDs(manifest.get())), 1);
    EXPECT_NE(KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("Old"), CFSTR("a")), nullptr);
    KVManifestUpdateEntries(manifest.get(), ArrayOf({after}));
    EXPECT_EQ(Find(manifest, before.get()->fileID.get()), nullptr);
    EXPECT_EQ(Find(manifest, after.get()->fileID.get()), after.get());
    EXPECT_THAT(DomainsOf(manifest), ElementsAre("New"));
    EXPECT_THAT(TextsOf(KVManifestGetFileIDs(manifest.get())),
                ElementsAre(Plain(after.get()->fileID.get())));
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("Old"), CFSTR("a")), nullptr);
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("New"), CFSTR("b")),
              after.get());
}

TEST(KVManifest, UpdateLeavesReturnedArraysAlone) {
    const auto manifest = MakeManifest({MakeEntry("D", "a")});
    const auto held = CF::Array::Adopt(KVManifestCopyEntriesInDomain(manifest.get(), CFSTR("D")));
    const CF::Array fileIDs(KVManifestGetFileIDs(manifest.get()));
    KVManifestUpdateEntries(manifest.get(), nullptr);
    EXPECT_THAT(PathsOf(held), ElementsAre("a"));
    EXPECT_EQ(fileIDs.GetCount(), 1);
}

TEST(KVManifest, FindsTheLastOfEntriesWithOneFileID) {
    const auto first = EntryWithFileID("a", "id");
    const auto last = EntryWithFileID("b", "id");
    const auto manifest = MakeManifest({first, last});
    EXPECT_EQ(Find(manifest, CFSTR("id")), last.get());
}

TEST(KVManifest, ReportsEntriesWithoutFileIDOncePerTable) {
    const auto manifest = MakeManifest({EntryWithFileID("a", ""), EntryWithFileID("b", "id")});
    const std::string entry = Plain(
        CF::String::Adopt(CFCopyDescription(EntryAt(KVManifestGetEntries(manifest.get()), 0))));
    const std::string tail =
        ": DEVELOPER BUG KVManifestEntry does not have a fileID (" + entry + ")\n";
    EXPECT_EQ(Printed([&] { EXPECT_NE(Find(manifest, CFSTR("id")), nullptr); }),
              "KVManifestGetEntryForFileID" + tail);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(Find(manifest, CFSTR("")), nullptr); }), "");
    EXPECT_EQ(Printed([&] {
                  EXPECT_THAT(TextsOf(KVManifestGetFileIDs(manifest.get())), ElementsAre("id"));
              }),
              "KVManifestGetFileIDs" + tail);
    EXPECT_EQ(Printed([&] { KVManifestGetFileIDs(manifest.get()); }), "");
}

TEST(KVManifest, RebuildsATableThatCameOutEmpty) {
    const auto manifest = MakeManifest({EntryWithFileID("a", "")});
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(Printed([&] { EXPECT_EQ(Find(manifest, CFSTR("id")), nullptr); }),
                    HasSubstr("KVManifestGetEntryForFileID: DEVELOPER BUG"));
        EXPECT_THAT(Printed([&] { KVManifestGetFileIDs(manifest.get()); }),
                    HasSubstr("KVManifestGetFileIDs: DEVELOPER BUG"));
    }
}

TEST(KVManifest, EmptyFileIDArrayStaysLentOut) {
    const auto manifest = MakeManifest({MakeEntry("D", "d", kDirectoryMode)});
    EXPECT_EQ(KVManifestGetFileIDs(manifest.get()), KVManifestGetFileIDs(manifest.get()));
}

TEST(KVManifest, FileIDsLeaveOutDirectoriesAndLinks) {
    // Neither file, directory nor link: kept.
    const auto manifest =
        MakeManifest({EntryWithFileID("a", "1"), EntryWithFileID("b", "2", kDirectoryMode),
                      EntryWithFileID("c", "3", kLinkMode), EntryWithFileID("d", "4", 0),
                      EntryWithFileID("e", "1")});
    EXPECT_THAT(TextsOf(KVManifestGetFileIDs(manifest.get())), ElementsAre("1", "4", "1"));
}

TEST(KVManifest, NullFileIDFindsNothing) {
    EXPECT_EQ(Find(MakeManifest({MakeEntry("D", "a")}), nullptr), nullptr);
}

TEST(KVManifest, DomainsAreSortedByCodeUnits) {
    // U+FF41 follows U+1F600 in UTF-16, whose surrogates lie lower.
    const auto manifest =
        MakeManifest({MakeEntry("b", "1"), MakeEntry("\xEF\xBD\x81", "1"), MakeEntry("B", "1"),
                      MakeEntry("\xF0\x9F\x98\x80", "1"), MakeEntry("b", "2"),
                      MakeEntry("a10", "1"), MakeEntry("a9", "1")});
    EXPECT_THAT(DomainsOf(manifest),
                ElementsAre("B", "a10", "a9", "b", "\xF0\x9F\x98\x80", "\xEF\xBD\x81"));
}

TEST(KVManifest, DomainEntriesAreTheManifestsOwnArray) {
    const auto manifest =
        MakeManifest({MakeEntry("D", "b"), MakeEntry("E", "x"), MakeEntry("D", "a")});
    const auto first = CF::Array::Adopt(KVManifestCopyEntriesInDomain(manifest.get(), CFSTR("D")));
    const auto second = CF::Array::Adopt(KVManifestCopyEntriesInDomain(manifest.get(), CFSTR("D")));
    EXPECT_THAT(PathsOf(first), ElementsAre("b", "a"));
    EXPECT_EQ(first.get(), second.get());
}

TEST(KVManifest, UnknownDomainHasNoArrayButAnEmptyListing) {
    const auto manifest = MakeManifest({MakeEntry("D", "a")});
    EXPECT_EQ(KVManifestCopyEntriesInDomain(manifest.get(), CFSTR("d")), nullptr);
    EXPECT_EQ(KVManifestCopyEntriesInDomain(manifest.get(), nullptr), nullptr);
    const auto listing =
        CF::Array::Adopt(KVManifestCopyEntriesAtPath(manifest.get(), CFSTR("d"), CFSTR("")));
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing.GetCount(), 0);
}

TEST(KVManifest, EntriesWithoutDomainAreFoundByNoDomainQuery) {
    const auto manifest = MakeManifest({MakeEntry("", "a", kFileMode, 9)});
    EXPECT_THAT(DomainsOf(manifest), IsEmpty());
    EXPECT_EQ(KVManifestCopyEntriesInDomain(manifest.get(), CFSTR("")), nullptr);
    EXPECT_EQ(KVManifestGetEntryMatchingPath(manifest.get(), CFSTR(""), CFSTR("a")), nullptr);
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest.get()), 9);
    EXPECT_EQ(KVManifestGetTotalFileCount(manifest.get()), 1);
}

TEST(KVManifest, CopyHasFreshEntriesAndNoVersion) {
    Kelvane::ManifestContents contents;
    contents.Append(MakeEntry("D", "a", kFileMode, 4).get());
    contents.placeholders.Set(CFSTR("p"), CF::Number::FromInt32(16).get());
    const auto source =
        CF::Adopt(Kelvane::CreateManifest(nullptr, std::move(contents), kKVManifestDataVersion33));
    EXPECT_EQ(source.get()->dataVersion, 33U);
    const auto copy = CF::Adopt(KVManifestCreateCopy(nullptr, source.get(), {}));
    EXPECT_EQ(copy.get()->dataVersion, kKVManifestDataVersionNone);
    EXPECT_THAT(PathsOf(KVManifestGetEntries(copy.get())), ElementsAre("a"));
    EXPECT_NE(EntryAt(KVManifestGetEntries(copy.get()), 0),
              EntryAt(KVManifestGetEntries(source.get()), 0));
    EXPECT_EQ(KVManifestGetTotalFileSize(copy.get()), 4);
    EXPECT_EQ(KVManifestGetTotalFileCount(copy.get()), 1);
    EXPECT_EQ(copy.get()->placeholderFileIDs.Get<CF::Number>(CFSTR("p")).GetInt32(), 16);
}

TEST(KVManifest, CopyHandsItsLoaderToEntries) {
    const auto source = MakeManifest({MakeEntry("D", "a")});
    std::string asked;
    const KVGetFileFunction loader = [&](CFStringRef fileID, CFErrorRef *) -> KVFileClass * {
        asked = Plain(fileID);
        return nullptr;
    };
    const auto copy = CF::Adopt(KVManifestCreateCopy(nullptr, source.get(), loader));
    const auto *const entry = EntryAt(KVManifestGetEntries(copy.get()), 0);
    EXPECT_EQ(KVManifestEntryGetFile(entry, nullptr), nullptr);
    EXPECT_EQ(asked, Plain(KVManifestEntryGetFileID(entry)));
    EXPECT_TRUE(copy.get()->getFileFunc);
}
