#include "manifest/EntryIndex.hpp"

#include "manifest/TextHash.hpp"
#include "tests/manifest/ManifestFixtures.hpp"

using namespace manifest_test;
using Kelvane::EntryIndex;
using Kelvane::EntryPosition;
using Kelvane::EntryTable;
using Kelvane::HashText;
using Kelvane::kNoEntry;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A table with an index of the paths, changed together.
class IndexedTable {
  public:
    void Append(const std::string &path) { AppendEntry(MakeEntry("D", path)); }
    void AppendEntry(const Kelvane::EntryPointer &entry) {
        const EntryPosition position = table_.End();
        table_.Append(entry.get());
        index_.Add(table_, {&position, 1});
    }
    void AppendMany(const std::string &path, int count) {
        const EntryPosition first = table_.End();
        for (int i = 0; i < count; ++i) {
            table_.Append(MakeEntry("D", path).get());
        }
        std::vector<EntryPosition> positions;
        for (EntryPosition position = first; position < table_.End(); ++position) {
            positions.push_back(position);
        }
        index_.Add(table_, positions);
    }
    void Remove(EntryPosition position) { table_.Remove(position); }
    void Compact() {
        index_.DropRemoved(table_);
        index_.Renumber(table_.Compact());
    }
    EntryPosition First(const std::string &path) { return index_.First(table_, Text(path)); }
    EntryPosition Last(const std::string &path) { return index_.Last(table_, Text(path)); }
    std::vector<EntryPosition> All(const std::string &path) {
        return index_.All(table_, Text(path));
    }
    EntryTable &table() { return table_; }
    EntryIndex &index() { return index_; }

  private:
    EntryTable table_;
    EntryIndex index_{&KVManifestEntryClass::relativePath};
};

} // namespace

TEST(TextHash, IsTheSameHoweverAStringIsStored) {
    const std::string path(500, 'x');
    const auto mutableText = CF::Adopt(CFStringCreateMutable(nullptr, 0));
    for (const char c : path) {
        const auto unit = static_cast<UniChar>(c);
        CFStringAppendCharacters(mutableText.get(), &unit, 1);
    }
    EXPECT_EQ(HashText(mutableText.get()), HashText(Text(path)));
    const UniChar units[] = {'a', '/', 'b'};
    const auto fromUnits = CF::String::Adopt(CFStringCreateWithCharacters(nullptr, units, 3));
    EXPECT_EQ(HashText(fromUnits), HashText(CFSTR("a/b")));
    EXPECT_EQ(HashText(nullptr), HashText(CFSTR("")));
}

TEST(TextHash, TakesEveryUnitAndTheLengthIntoAccount) {
    std::set<std::uint32_t> hashes;
    constexpr std::size_t kLength = 300;
    for (std::size_t i = 0; i < kLength; ++i) {
        std::string path(kLength, 'x');
        path[i] = 'y';
        hashes.insert(HashText(Text(path)));
        hashes.insert(HashText(Text(std::string(i, '\0'))));
    }
    // By chance, one in some 24,000 runs sees a pair of equal hashes.
    EXPECT_GE(hashes.size(), 2 * kLength - 1);
}

TEST(EntryIndex, FindsNothingWhenEmpty) {
    IndexedTable indexed;
    EXPECT_EQ(indexed.First("a"), kNoEntry);
    EXPECT_EQ(indexed.index().Last(indexed.table(), nullptr), kNoEntry);
    EXPECT_THAT(indexed.All("a"), IsEmpty());
}

TEST(EntryIndex, FindsFirstLastAndAllOfATextInOrder) {
    IndexedTable indexed;
    for (const char *path : {"a", "b", "a", "c", "a"}) {
        indexed.Append(path);
    }
    EXPECT_EQ(indexed.First("a"), 0U);
    EXPECT_EQ(indexed.Last("a"), 4U);
    EXPECT_EQ(indexed.First("b"), 1U);
    EXPECT_THAT(indexed.All("a"), ElementsAre(0U, 2U, 4U));
    EXPECT_EQ(indexed.First("d"), kNoEntry);
}

TEST(EntryIndex, PassesOverRemovedEntries) {
    IndexedTable indexed;
    for (const char *path : {"a", "b", "a", "a", "a"}) {
        indexed.Append(path);
    }
    indexed.Remove(4);
    EXPECT_EQ(indexed.Last("a"), 3U);
    indexed.Remove(0);
    EXPECT_EQ(indexed.First("a"), 2U);
    indexed.Remove(1);
    EXPECT_EQ(indexed.First("b"), kNoEntry);
    EXPECT_THAT(indexed.All("a"), ElementsAre(2U, 3U));
    indexed.Remove(2);
    indexed.Remove(3);
    EXPECT_EQ(indexed.Last("a"), kNoEntry);
}

TEST(EntryIndex, FindsAnEntryThatCameBack) {
    IndexedTable indexed;
    for (EntryPosition i = 0; i < 100; ++i) {
        indexed.Append("a");
        EXPECT_EQ(indexed.First("a"), i);
        indexed.Remove(i);
        EXPECT_EQ(indexed.First("a"), kNoEntry);
    }
}

TEST(EntryIndex, FindsEverythingInALargeTable) {
    IndexedTable indexed;
    for (int i = 0; i < 5000; ++i) {
        indexed.Append(std::to_string(i));
    }
    for (EntryPosition i = 0; i < 5000; ++i) {
        ASSERT_EQ(indexed.First(std::to_string(i)), i);
    }
}

TEST(EntryIndex, FollowsTheTableWhenItIsCompacted) {
    IndexedTable indexed;
    for (int i = 0; i < 300; ++i) {
        indexed.Append(std::to_string(i % 100));
    }
    for (EntryPosition i = 0; i < 300; i += 2) {
        indexed.Remove(i);
    }
    indexed.Compact();
    EXPECT_THAT(indexed.All("1"), ElementsAre(0U, 50U, 100U));
    EXPECT_EQ(indexed.First("2"), kNoEntry);
    indexed.Append("2");
    EXPECT_EQ(indexed.First("2"), 150U);
}

TEST(EntryIndex, FindsTheLastPlacesOfAnEntry) {
    IndexedTable indexed;
    const auto entry = MakeEntry("D", "a");
    for (int i = 0; i < 3; ++i) {
        indexed.AppendEntry(entry);
        indexed.Append("a");
    }
    std::vector<EntryPosition> found;
    std::size_t steps = 100;
    EXPECT_TRUE(indexed.index().AppendOccurrences(indexed.table(), *entry.get(), 2, steps, found));
    EXPECT_THAT(found, ElementsAre(4U, 2U));
    EXPECT_EQ(steps, 96U);
    EXPECT_FALSE(indexed.index().AppendOccurrences(indexed.table(), *entry.get(), 4, steps, found));
    steps = 1;
    EXPECT_FALSE(indexed.index().AppendOccurrences(indexed.table(), *entry.get(), 1, steps, found));
}

TEST(EntryIndex, TakesRememberedHashesForTheTexts) {
    EntryTable table;
    const auto remembered = MakeEntry("D", "a");
    Kelvane::SetFileID(*remembered.get(), remembered.get()->fileID);
    EXPECT_EQ(remembered.get()->fileIDHash, HashText(remembered.get()->fileID.get()));
    const auto other = MakeEntry("D", "a");
    ASSERT_EQ(other.get()->fileIDHash, 0U);
    table.Append(remembered.get());
    table.Append(other.get());
    EntryIndex index(&KVManifestEntryClass::fileID, &KVManifestEntryClass::fileIDHash);
    index.AddAll(table);
    EXPECT_THAT(index.All(table, other.get()->fileID.get()), ElementsAre(0U, 1U));
}

TEST(EntryIndex, AddsAllOfATableWithGaps) {
    EntryTable table;
    for (const char *path : {"a", "b", "c"}) {
        table.Append(MakeEntry("D", path).get());
    }
    table.Remove(1);
    EntryIndex index(&KVManifestEntryClass::relativePath);
    index.AddAll(table);
    EXPECT_EQ(index.First(table, CFSTR("a")), 0U);
    EXPECT_EQ(index.First(table, CFSTR("b")), kNoEntry);
    EXPECT_EQ(index.First(table, CFSTR("c")), 2U);
}

TEST(EntryIndex, BearsAHundredThousandEntriesOfOneText) {
    constexpr int kMany = 100000;
    IndexedTable indexed;
    indexed.AppendMany("a", kMany);
    for (EntryPosition last = kMany - 1; last > 0; --last) {
        ASSERT_EQ(indexed.Last("a"), last);
        indexed.Remove(last);
    }
    EXPECT_THAT(indexed.All("a"), ElementsAre(0U));
    indexed.AppendMany("a", kMany);
    EXPECT_EQ(indexed.First("a"), 0U);
    indexed.Remove(0);
    EXPECT_EQ(indexed.First("a"), static_cast<EntryPosition>(kMany));
}
