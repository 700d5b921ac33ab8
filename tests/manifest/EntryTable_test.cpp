#include "manifest/EntryTable.hpp"

#include "tests/manifest/ManifestFixtures.hpp"

#include <limits>

using namespace manifest_test;
using Kelvane::EntryTable;
using Kelvane::kNoEntry;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Files a0, a1, ... of 10 bytes each.
EntryTable TableOf(int count) {
    EntryTable table;
    for (int i = 0; i < count; ++i) {
        table.Append(MakeEntry("D", "a" + std::to_string(i), kFileMode, 10).get());
    }
    return table;
}

Lines PathsIn(EntryTable &table) { return PathsOf(table.Listing().get()); }

} // namespace

TEST(EntryTable, IsEmptyAtFirst) {
    EntryTable table;
    EXPECT_EQ(table.End(), 0U);
    EXPECT_EQ(table.Count(), 0U);
    EXPECT_EQ(table.TotalSize(), 0);
    EXPECT_EQ(table.Listing().GetCount(), 0);
    EXPECT_THAT(table.Positions(), IsEmpty());
}

TEST(EntryTable, KeepsPositionsWhenEntriesGo) {
    EntryTable table = TableOf(4);
    const auto *const last = table.At(3);
    table.Remove(1);
    EXPECT_EQ(table.At(1), nullptr);
    EXPECT_EQ(table.At(3), last);
    EXPECT_EQ(table.End(), 4U);
    EXPECT_EQ(table.Count(), 3U);
    EXPECT_THAT(table.Positions(), ElementsAre(0U, 2U, 3U));
    EXPECT_THAT(PathsIn(table), ElementsAre("a0", "a2", "a3"));
}

TEST(EntryTable, RetainsItsEntriesAndReleasesRemovedOnes) {
    const auto entry = MakeEntry("D", "a");
    {
        EntryTable table;
        table.Append(entry.get());
        EXPECT_EQ(CFGetRetainCount(entry.get()), 2);
        table.Remove(0);
        EXPECT_EQ(CFGetRetainCount(entry.get()), 1);
        table.Append(entry.get());
    }
    EXPECT_EQ(CFGetRetainCount(entry.get()), 1);
}

TEST(EntryTable, ListingStaysAsItIsAndTheSameUntilTheNextChange) {
    EntryTable table = TableOf(2);
    const CF::Array before = table.Listing();
    EXPECT_EQ(table.Listing().get(), before.get());
    table.Append(MakeEntry("D", "b").get());
    EXPECT_THAT(PathsIn(table), ElementsAre("a0", "a1", "b"));
    table.Remove(0);
    EXPECT_THAT(PathsIn(table), ElementsAre("a1", "b"));
    EXPECT_THAT(PathsOf(before), ElementsAre("a0", "a1"));
}

TEST(EntryTable, SharesTheArrayThatItWasMadeOf) {
    const auto array =
        CF::Array::Adopt(CFArrayCreateCopy(nullptr, ArrayOf({MakeEntry("D", "a")}).get()));
    EntryTable table(array);
    EXPECT_EQ(table.Listing().get(), array.get());
    EXPECT_EQ(table.Count(), 1U);
}

TEST(EntryTable, CountsSizesAndFiles) {
    EntryTable table = TableOf(2);
    table.Append(MakeEntry("D", "d", kDirectoryMode, 5).get());
    EXPECT_EQ(table.TotalSize(), 25);
    EXPECT_EQ(table.TotalFiles(), 2);
    table.Remove(2);
    table.Remove(0);
    EXPECT_EQ(table.TotalSize(), 10);
    EXPECT_EQ(table.TotalFiles(), 1);
}

TEST(EntryTable, TakesOffWhatItCountedOfAnEntryThatHasChangedSince) {
    EntryTable table = TableOf(2);
    table.At(0)->size = 1000;
    table.At(0)->mode = kDirectoryMode;
    table.Remove(0);
    EXPECT_EQ(table.TotalSize(), 10);
    EXPECT_EQ(table.TotalFiles(), 1);
}

TEST(EntryTable, ImpossibleSizesStopAtTheLargestNumberAndComeBack) {
    EntryTable table = TableOf(1);
    table.Append(MakeEntry("D", "b", kFileMode, std::numeric_limits<std::int64_t>::max()).get());
    EXPECT_EQ(table.TotalSize(), std::numeric_limits<std::int64_t>::max());
    table.Remove(1);
    EXPECT_EQ(table.TotalSize(), 10);
}

TEST(EntryTable, CompactClosesGapsAndTellsWhereEverythingIs) {
    EntryTable table = TableOf(5);
    table.At(3)->size = 77;
    table.Remove(0);
    table.Remove(2);
    EXPECT_THAT(table.Compact(), ElementsAre(kNoEntry, 0U, kNoEntry, 1U, 2U));
    EXPECT_EQ(table.End(), 3U);
    EXPECT_EQ(table.TotalSize(), 30);
    EXPECT_EQ(table.WeightAt(1).size, 10);
    EXPECT_THAT(PathsIn(table), ElementsAre("a1", "a3", "a4"));
}

TEST(EntryTable, IsMostlyGapsWhenMoreThanHalfOfManyPositionsAre) {
    EntryTable table = TableOf(100);
    for (Kelvane::EntryPosition position = 0; position < 50; ++position) {
        table.Remove(position);
    }
    EXPECT_FALSE(table.IsMostlyGaps());
    table.Remove(50);
    EXPECT_TRUE(table.IsMostlyGaps());
    EntryTable few = TableOf(3);
    few.Remove(0);
    few.Remove(1);
    EXPECT_FALSE(few.IsMostlyGaps());
}

TEST(EntryTable, RefusesMoreEntriesThanPositions) {
    EntryTable table = TableOf(1);
    EXPECT_THROW(table.Reserve(Kelvane::kMaximumEntries), std::length_error);
    EXPECT_EQ(table.Count(), 1U);
}

TEST(EntryTable, ArrayOfPositionsLeavesGapsOut) {
    EntryTable table = TableOf(3);
    table.Remove(1);
    const std::vector<Kelvane::EntryPosition> positions = {2, 1, 0};
    EXPECT_THAT(PathsOf(table.ArrayOf(positions)), ElementsAre("a2", "a0"));
    EXPECT_EQ(table.ArrayOf({}).GetCount(), 0);
}
