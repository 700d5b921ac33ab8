// Listing a directory of 100 children in a domain of 200,000 entries, against a walk of the
// whole domain and of all entries below the directory: a listing must cost in proportion to
// the children.
//
// Two directories are listed: one whose children are directories with half of the domain
// below them, and one of files alone. All are measured in turn, round by round, and the
// medians are compared. Counters:
//   list_us           one listing, the table of paths being there
//   walk_us           finding the children in the array of the domain's entries
//   below_us          finding them among the entries at and below the directory
//   walk_by_list      walk_us / list_us
//   first_ms          the first listing, which makes the tables
//   bare_us           listing the like directory in a domain that holds nothing else
//   list_by_bare      list_us / bare_us
//
// Run: listing_benchmark
// KELVANE_BENCH_ROWS: entries of the domain, by default 200000.

#include "LargeManifest.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>

namespace {

using large_manifest::Container;
using large_manifest::require;

constexpr int kRounds = 9; // odd, so that the median is one of them
constexpr int kListings = 200;
constexpr int kWalks = 3;
constexpr long kChildren = 100;

long domainCount() { return measure::NumberFromEnvironment("KELVANE_BENCH_ROWS", 200'000); }

CF::String domain() { return large_manifest::domainName(0); }

// "deep": directories with that many entries below all of them; "flat": files.
void appendDirectories(large_manifest::Entries &entries, long below) {
    for (const char *const path : {"", "deep", "flat"}) {
        large_manifest::appendEntry(entries, domain(), path, true);
    }
    for (long child = 0; child < kChildren; ++child) {
        const std::string number = std::to_string(child);
        large_manifest::appendEntry(entries, domain(), "deep/" + number, true);
        large_manifest::appendEntry(entries, domain(), "flat/" + number, false);
        for (long i = 0; i < below / kChildren; ++i) {
            large_manifest::appendEntry(entries, domain(),
                                        "deep/" + number + "/Caches/" + std::to_string(i), false);
        }
    }
}

Container makeContainer(long count) {
    large_manifest::Entries entries;
    appendDirectories(entries, count / 2);
    for (auto i = static_cast<long>(entries.size()); i < count; ++i) {
        large_manifest::appendEntry(entries, domain(),
                                    "Library/Application Support/" + std::to_string(i), false);
    }
    Container container = large_manifest::makeEmptyContainer();
    large_manifest::setEntries(container, entries);
    return container;
}

void list(const Container &container, const CF::String &path) {
    const auto children = CF::Array::Adopt(KVBackupContainerCopyEntriesContainedInDirectoryAtPath(
        container.get(), domain().get(), path.get()));
    require(children.GetCount() == kChildren, "the listing is wrong");
}

// How many of the entries have a path of that beginning with one component behind it.
void walk(const CF::Array &entries, const CF::String &path) {
    const std::string prefix = path.GetUTF8() + "/";
    long children = 0;
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        const auto *const entry = static_cast<const KVManifestEntryClass *>(entries.GetAt(i));
        const std::string own = CF::String::GetUTF8(KVManifestEntryGetPath(entry));
        children += own.compare(0, prefix.size(), prefix) == 0 &&
                            own.find('/', prefix.size()) == std::string::npos
                        ? 1
                        : 0;
    }
    require(children == kChildren, "the walk is wrong");
}

void walkDomain(const Container &container, const CF::String &path) {
    walk(CF::Array::Adopt(KVManifestCopyEntriesInDomain(
             KVBackupContainerGetManifest(container.get()), domain().get())),
         path);
}

void walkBelow(const Container &container, const CF::String &path) {
    walk(CF::Array::Adopt(KVManifestCopyEntriesAtPath(KVBackupContainerGetManifest(container.get()),
                                                      domain().get(), path.get())),
         path);
}

using Work = void (*)(const Container &, const CF::String &);

measure::Seconds repeated(Work work, int times, const Container &container,
                          const CF::String &path) {
    auto seconds = measure::Timed([&] {
        for (int i = 0; i < times; ++i) {
            work(container, path);
        }
    });
    seconds.processor /= times;
    return seconds;
}

void ListDirectory(benchmark::State &state, const char *name) {
    large_manifest::usePrivateDirectory();
    const CF::String path(name);
    const Container container = makeContainer(domainCount());
    const Container bare = makeContainer(0);
    const double first = repeated(list, 1, container, path).processor;
    list(bare, path);
    measure::Series listing, domainWalk, belowWalk, bareListing;
    for (auto _ : state) {
        const auto seconds = repeated(list, kListings, container, path);
        listing.Add(seconds);
        bareListing.Add(repeated(list, kListings, bare, path));
        domainWalk.Add(repeated(walkDomain, kWalks, container, path));
        belowWalk.Add(repeated(walkBelow, kWalks, container, path));
        state.SetIterationTime(seconds.wall / kListings);
    }
    state.counters["list_us"] = listing.Processor() * 1e6;
    state.counters["bare_us"] = bareListing.Processor() * 1e6;
    state.counters["walk_us"] = domainWalk.Processor() * 1e6;
    state.counters["below_us"] = belowWalk.Processor() * 1e6;
    state.counters["walk_by_list"] = domainWalk.Processor() / listing.Processor();
    state.counters["list_by_bare"] = listing.Processor() / bareListing.Processor();
    state.counters["first_ms"] = first * 1e3;
}
BENCHMARK_CAPTURE(ListDirectory, deep, "deep")
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ListDirectory, flat, "flat")
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
