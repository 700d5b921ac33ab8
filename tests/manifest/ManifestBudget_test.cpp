// What manifests may cost in memory.
#include "manifest/ManifestBudget.hpp"

#include "tests/manifest/ManifestFixtures.hpp"
#include "tests/support/ErrorMatchers.hpp"

#include <functional>

#ifdef __GLIBC__
#include <malloc.h>
#endif

using namespace manifest_test;
using Kelvane::EntryPointer;
using Kelvane::ManifestBudget;
using Kelvane::MemoryOfEntry;

namespace {

constexpr std::uint64_t kNoLimit = UINT64_MAX;

// The reason with which the budget refuses; empty when it does not.
std::string RefusalOf(ManifestBudget &budget, const EntryPointer &entry) {
    try {
        budget.TakeEntry(*entry.get());
        return "";
    } catch (const CF::Error &error) {
        EXPECT_EQ(error.GetCode(), kKVErrorInvalidBackup);
        return error.GetFailureReason().GetUTF8();
    }
}

CF::Data Bytes(std::size_t count) { return CF::Data(Octets(count, 0x5A)); }

EntryPointer WithProperties(int count, const CF::Data &value) {
    auto entry = MakeEntry("D", "p");
    const auto properties = CF::Dictionary::Mutable();
    for (int i = 0; i < count; ++i) {
        properties.Set(Text("com.example.attribute." + std::to_string(i)), value);
    }
    entry.get()->properties = properties.get();
    return entry;
}

std::size_t BytesInUse() {
#ifdef __GLIBC__
    return mallinfo2().uordblks + mallinfo2().hblkhd;
#else
    return 0;
#endif
}

// The estimate must be above what the entries take, and not far above it.
void ExpectHonestEstimate(const std::function<EntryPointer(int)> &make) {
    constexpr int kCount = 5000;
    Kelvane::EntryTable table;
    std::uint64_t estimate = 0;
    EntryPointer previous = MakeEntry("AppDomain", "");
    const std::size_t before = BytesInUse();
    for (int i = 0; i < kCount; ++i) {
        const EntryPointer entry = make(i);
        estimate += MemoryOfEntry(*entry.get(), nullptr, kNoLimit);
        table.Append(entry.get());
    }
    const std::size_t taken = BytesInUse() - before;
    if (BytesInUse() == 0 || taken == 0) {
        GTEST_SKIP() << "the allocator does not tell how much is in use";
    }
    EXPECT_GE(estimate, taken);
    EXPECT_LE(estimate, 3 * taken);
}

} // namespace

TEST(ManifestBudget, RefusesMoreRecordsThanItHas) {
    ManifestBudget budget(2, 1 << 20);
    const auto entry = MakeEntry("D", "p");
    EXPECT_EQ(RefusalOf(budget, entry), "");
    EXPECT_EQ(RefusalOf(budget, entry), "");
    EXPECT_EQ(RefusalOf(budget, entry), "The manifest has too many entries");
}

TEST(ManifestBudget, RefusesTextsBeyondItsMemory) {
    ManifestBudget budget(10, 200'000);
    EXPECT_EQ(RefusalOf(budget, MakeEntry("D", std::string(50'000, 'x'))), "");
    EXPECT_EQ(RefusalOf(budget, MakeEntry("D", std::string(50'000, 'x'))),
              "The manifest's entries take too much memory");
}

TEST(ManifestBudget, CountsPlaceholdersToo) {
    ManifestBudget budget(1, 1 << 20);
    budget.TakePlaceholder(Text("0123"));
    EXPECT_THROW(budget.TakePlaceholder(Text("0124")), CF::Error);
}

TEST(ManifestBudget, HasRoomForFourTimesTheLargestBackups) {
    const auto entry = MakeEntry("AppDomain-com.example.application",
                                 "Library/Caches/com.example.application/files/000000/image.jpg");
    entry.get()->dataHash = Bytes(20).get();
    entry.get()->encryptionData = Bytes(44).get();
    const std::uint64_t size = MemoryOfEntry(*entry.get(), entry.get()->domain.get(), kNoLimit);
    EXPECT_GE(Kelvane::kMaximumManifestMemory / size, 2'500'000u);
    EXPECT_GE(Kelvane::kMaximumManifestRecords, 10'000'000u);
}

TEST(ManifestBudget, CountsADomainOfItsOwnForEachEntry) {
    const auto entry = MakeEntry(std::string(60'000, 'd'), "p");
    EXPECT_GE(MemoryOfEntry(*entry.get(), nullptr, kNoLimit), 60'000u);
    EXPECT_LT(MemoryOfEntry(*entry.get(), entry.get()->domain.get(), kNoLimit), 1000u);
}

TEST(ManifestBudget, EstimatesBareEntries) {
    ExpectHonestEstimate([](int i) { return MakeEntry("D", std::to_string(i)); });
}

TEST(ManifestBudget, EstimatesEntriesWithTextsAndData) {
    ExpectHonestEstimate([](int i) {
        auto entry = MakeEntry("AppDomain-com.example." + std::to_string(i),
                               "Library/Caches/" + std::to_string(i) + std::string(200, 'x'));
        entry.get()->dataHash = Bytes(20).get();
        entry.get()->encryptionData = Bytes(44).get();
        entry.get()->target = Text("target of the link " + std::to_string(i)).get();
        return entry;
    });
}

TEST(ManifestBudget, EstimatesEntriesWithProperties) {
    ExpectHonestEstimate([](int i) {
        return WithProperties(1 + i % 20, Bytes(static_cast<std::size_t>(i % 100 + 1)));
    });
}

TEST(ManifestBudget, EndsTheWalkOverSharedValuesAtTheLimit) {
    // As a tree it has 2^60 leaves.
    CF::Array value = CF::Array::Mutable();
    for (int level = 0; level < 60; ++level) {
        const auto outer = CF::Array::Mutable();
        outer.Append(value.get());
        outer.Append(value.get());
        value = outer;
    }
    const auto entry = MakeEntry("D", "p");
    const auto properties = CF::Dictionary::Mutable();
    properties.Set(Text("a"), value.get());
    entry.get()->properties = properties.get();
    EXPECT_GT(MemoryOfEntry(*entry.get(), nullptr, 100'000), 100'000u);
}
