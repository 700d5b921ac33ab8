#include "manifest/ManifestChange.hpp"

#include "tests/manifest/ManifestFixtures.hpp"

#include <algorithm>
#include <random>

using namespace manifest_test;
using Kelvane::EntryPointer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Entries = std::vector<EntryPointer>;

void Change(const ManifestPointer &manifest, Entries removed, Entries added) {
    Kelvane::ApplyChange(manifest.get(), {std::move(removed), std::move(added)});
}

Lines Paths(const ManifestPointer &manifest) {
    return PathsOf(KVManifestGetEntries(manifest.get()));
}

const KVManifestEntryClass *Find(const ManifestPointer &manifest, CFStringRef fileID) {
    return KVManifestGetEntryForFileID(manifest.get(), fileID);
}

const KVManifestEntryClass *Matching(const ManifestPointer &manifest, CFStringRef path) {
    return KVManifestGetEntryMatchingPath(manifest.get(), CFSTR("D"), path);
}

EntryPointer EntryWithFileID(std::string_view path, std::string_view fileID) {
    auto entry = MakeEntry("D", path);
    entry.get()->fileID = Text(fileID).get();
    return entry;
}

// Makes every lookup table.
void Warm(const ManifestPointer &manifest) {
    (void)Find(manifest, CFSTR("x"));
    (void)Matching(manifest, CFSTR("x"));
    (void)CF::Array::Adopt(KVManifestCopyEntriesAtPath(manifest.get(), CFSTR("D"), CFSTR("x")));
}

Entries Files(const std::string &prefix, int count) {
    Entries entries;
    for (int i = 0; i < count; ++i) {
        entries.push_back(MakeEntry("D", prefix + std::to_string(i)));
    }
    return entries;
}

} // namespace

TEST(ManifestChange, TakesEntriesOutAndAppendsOthers) {
    const auto a = MakeEntry("D", "a", kFileMode, 1);
    const auto b = MakeEntry("D", "b", kFileMode, 2);
    const auto manifest = MakeManifest({a, b, MakeEntry("D", "c", kFileMode, 4)});
    Change(manifest, {b}, {MakeEntry("D", "e", kFileMode, 8), MakeEntry("D", "d", kDirectoryMode)});
    EXPECT_THAT(Paths(manifest), ElementsAre("a", "c", "e", "d"));
    EXPECT_EQ(KVManifestGetTotalFileSize(manifest.get()), 13);
    EXPECT_EQ(KVManifestGetTotalFileCount(manifest.get()), 3);
}

TEST(ManifestChange, IsSeenByEveryLookup) {
    const auto old = MakeEntry("D", "old");
    const auto manifest = MakeManifest({old, MakeEntry("D", "stays")});
    Warm(manifest);
    const auto added = MakeEntry("D", "new");
    Change(manifest, {old}, {added});
    EXPECT_EQ(Find(manifest, old.get()->fileID.get()), nullptr);
    EXPECT_EQ(Find(manifest, added.get()->fileID.get()), added.get());
    EXPECT_EQ(Matching(manifest, CFSTR("old")), nullptr);
    EXPECT_EQ(Matching(manifest, CFSTR("new")), added.get());
    const auto below =
        CF::Array::Adopt(KVManifestCopyEntriesAtPath(manifest.get(), CFSTR("D"), CFSTR("new")));
    EXPECT_THAT(PathsOf(below), ElementsAre("new"));
    EXPECT_EQ(CFArrayGetCount(KVManifestGetFileIDs(manifest.get())), 2);
}

TEST(ManifestChange, DomainsComeAndGoWithTheirEntries) {
    const auto only = MakeEntry("A", "x");
    const auto manifest = MakeManifest({only, MakeEntry("B", "x")});
    Warm(manifest);
    Change(manifest, {only}, {MakeEntry("C", "x"), MakeEntry("", "x")});
    EXPECT_THAT(TextsOf(CF::Array::Adopt(KVManifestCopyDomainsList(manifest.get()))),
                ElementsAre("B", "C"));
    EXPECT_EQ(KVManifestCopyEntriesInDomain(manifest.get(), CFSTR("A")), nullptr);
}

TEST(ManifestChange, ArraysGotEarlierStayAsTheyWere) {
    const auto a = MakeEntry("D", "a");
    const auto manifest = MakeManifest({a, MakeEntry("D", "b")});
    const CF::Array entries(KVManifestGetEntries(manifest.get()));
    const CF::Array fileIDs(KVManifestGetFileIDs(manifest.get()));
    const auto domain = CF::Array::Adopt(KVManifestCopyEntriesInDomain(manifest.get(), CFSTR("D")));
    Change(manifest, {a}, {MakeEntry("D", "c")});
    Warm(manifest);
    EXPECT_THAT(PathsOf(entries), ElementsAre("a", "b"));
    EXPECT_THAT(PathsOf(domain), ElementsAre("a", "b"));
    EXPECT_EQ(fileIDs.GetCount(), 2);
    EXPECT_EQ(TextsOf(fileIDs).front(), Plain(a.get()->fileID.get()));
}

TEST(ManifestChange, RemovingTheLaterOfAFileIDBringsTheEarlierBack) {
    const auto first = EntryWithFileID("a", "id");
    const auto second = EntryWithFileID("b", "id");
    const auto manifest = MakeManifest({first});
    Warm(manifest);
    Change(manifest, {}, {second});
    EXPECT_EQ(Find(manifest, CFSTR("id")), second.get());
    Change(manifest, {second}, {});
    EXPECT_EQ(Find(manifest, CFSTR("id")), first.get());
    Change(manifest, {first}, {});
    EXPECT_EQ(Find(manifest, CFSTR("id")), nullptr);
}

TEST(ManifestChange, RemovingTheFirstOfEqualPathsBringsTheNextForth) {
    const auto first = MakeEntry("D", "a");
    const auto second = MakeEntry("D", "a");
    const auto manifest = MakeManifest({first, second});
    Warm(manifest);
    Change(manifest, {first}, {});
    EXPECT_EQ(Matching(manifest, CFSTR("a")), second.get());
}

TEST(ManifestChange, AnEntryCanBeTakenOutAndAppendedAtOnce) {
    const auto a = MakeEntry("D", "a");
    const auto manifest = MakeManifest({a, MakeEntry("D", "b")});
    Warm(manifest);
    Change(manifest, {a}, {a});
    EXPECT_THAT(Paths(manifest), ElementsAre("b", "a"));
    EXPECT_EQ(Matching(manifest, CFSTR("a")), a.get());
}

TEST(ManifestChange, TakesAnEntryOutAsOftenAsItIsNamedTheLastPlaceFirst) {
    const auto a = MakeEntry("D", "a");
    const auto b = MakeEntry("D", "b");
    const auto manifest = MakeManifest({a, b, a, b, a});
    Change(manifest, {a}, {});
    EXPECT_THAT(Paths(manifest), ElementsAre("a", "b", "a", "b"));
    Warm(manifest);
    Change(manifest, {a, b}, {});
    EXPECT_THAT(Paths(manifest), ElementsAre("a", "b"));
    Change(manifest, {a, a}, {});
    EXPECT_THAT(Paths(manifest), ElementsAre("b"));
}

TEST(ManifestChange, PassesOverEntriesOfAnotherManifest) {
    const auto manifest = MakeManifest(Files("f", 100));
    Warm(manifest);
    Change(manifest, {MakeEntry("D", "f1"), MakeEntry("D", "g")}, {});
    EXPECT_EQ(Paths(manifest).size(), 100U);
}

TEST(ManifestChange, TakesOutAnEntryAmongManyOfOneFileID) {
    Entries entries;
    for (int i = 0; i < 200; ++i) {
        entries.push_back(EntryWithFileID("f" + std::to_string(i), "id"));
    }
    const auto manifest = MakeManifest(entries);
    Warm(manifest);
    Change(manifest, {entries[0], entries[100], entries[199]}, {});
    EXPECT_EQ(Paths(manifest).size(), 197U);
    EXPECT_EQ(Find(manifest, CFSTR("id")), entries[198].get());
    EXPECT_EQ(Matching(manifest, CFSTR("f100")), nullptr);
}

TEST(ManifestChange, TakesOutEntriesWithoutFileID) {
    Entries entries;
    for (int i = 0; i < 200; ++i) {
        entries.push_back(EntryWithFileID("f" + std::to_string(i), i % 2 == 0 ? "" : "id"));
    }
    const auto manifest = MakeManifest(entries);
    Change(manifest, {entries[0], entries[198]}, {});
    EXPECT_EQ(Paths(manifest).size(), 198U);
    EXPECT_EQ(Matching(manifest, CFSTR("f0")), nullptr);
}

TEST(ManifestChange, EntriesWithoutFileIDAreReportedAgain) {
    const auto manifest = MakeManifest({EntryWithFileID("a", ""), EntryWithFileID("b", "id")});
    const auto lookUp = [&] { return Printed([&] { (void)Find(manifest, CFSTR("id")); }); };
    EXPECT_THAT(lookUp(), HasSubstr("DEVELOPER BUG"));
    EXPECT_EQ(lookUp(), "");
    Change(manifest, {}, {EntryWithFileID("c", "")});
    const Lines reported = SplitLines(lookUp());
    ASSERT_EQ(reported.size(), 2U);
    EXPECT_THAT(reported[0], HasSubstr(" D-a "));
    EXPECT_THAT(reported[1], HasSubstr(" D-c "));
    EXPECT_EQ(lookUp(), "");
}

TEST(ManifestChange, EmptiesAManifestAndFillsItAgain) {
    const Entries entries = Files("f", 500);
    const auto manifest = MakeManifest(entries);
    Warm(manifest);
    Change(manifest, entries, {});
    EXPECT_THAT(Paths(manifest), IsEmpty());
    EXPECT_EQ(Matching(manifest, CFSTR("f1")), nullptr);
    Change(manifest, {}, entries);
    EXPECT_EQ(Matching(manifest, CFSTR("f499")), entries[499].get());
    EXPECT_EQ(KVManifestGetTotalFileCount(manifest.get()), 500);
}

TEST(ManifestChange, ManyReplacementsLeaveNoGapsBehind) {
    const Entries entries = Files("f", 100);
    const auto manifest = MakeManifest(entries);
    Warm(manifest);
    EntryPointer current = entries[0];
    for (int i = 0; i < 2000; ++i) {
        const auto next = MakeEntry("D", "f0");
        Change(manifest, {current}, {next});
        current = next;
        ASSERT_EQ(Matching(manifest, CFSTR("f0")), current.get());
    }
    EXPECT_EQ(Paths(manifest).size(), 100U);
    EXPECT_LE(manifest.get()->entries.End(), 300U);
    EXPECT_EQ(Matching(manifest, CFSTR("f99")), entries[99].get());
}

TEST(ManifestChange, BearsAHundredThousandEntriesOfOnePath) {
    constexpr int kMany = 100000;
    const auto fileID = MakeEntry("D", "a").get()->fileID;
    Entries entries;
    for (int i = 0; i < kMany; ++i) {
        auto entry = Kelvane::AllocateEntry(nullptr);
        Kelvane::SetEntryPath(*entry.get(), CFSTR("D"), CFSTR("a"));
        entry.get()->fileID = fileID;
        entries.push_back(std::move(entry));
    }
    const auto manifest = MakeManifest(entries);
    Warm(manifest);
    for (int i = 1; i <= 10000; ++i) {
        const EntryPointer &last = entries[static_cast<std::size_t>(kMany - i)];
        ASSERT_EQ(Find(manifest, fileID.get()), last.get());
        Change(manifest, {last}, {});
    }
    ASSERT_EQ(Matching(manifest, CFSTR("a")), entries[0].get());
    Change(manifest, Entries(entries.begin(), entries.begin() + kMany - 10000), {});
    EXPECT_EQ(Find(manifest, fileID.get()), nullptr);
    EXPECT_THAT(Paths(manifest), IsEmpty());
}
