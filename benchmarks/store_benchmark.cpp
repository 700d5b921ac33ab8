// Storing new small files in containers with a small and with a large manifest: an edit must
// not cost more the larger the manifest is.
//
// Each round makes a container of each size in a process of its own and stores files in it
// twice: first with no lookup table there yet (cold), then again with the tables warm. The
// medians are compared. Counters, in microseconds of processor time for each file stored:
//   small_cold_us, small_warm_us, large_cold_us, large_warm_us
//   cold_ratio, warm_ratio   large / small (wanted: at most 3)
//   first_ms                 the first store in the large manifest, which makes the tables
//   *_wall                   the same in time on the clock
// Entries lie in 200 domains as on a device, or all in one domain. The files are made before
// the clock starts: reading, hashing and keeping them costs the same everywhere. In encrypted
// backups a store includes a pass of encryption over the content.
//
// Run: store_benchmark
// KELVANE_BENCH_ROWS: entries of the large manifest, by default 500000; the small one has a
// hundredth. KELVANE_BENCH_DIR: where the files are stored, by default /dev/shm/kvbench.

#include "KVFile.h"
#include "LargeManifest.hpp"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using large_manifest::Container;
using large_manifest::require;
using measure::Seconds;
using Files = std::vector<CF::Pointer<KVFileClass *>>;

constexpr int kRounds = 5; // odd, so that the median is one of them
constexpr long kFiles = 1000;
constexpr long kSmallerBy = 100;

struct Setting {
    bool encrypted;
    long domains;
};

struct Stored {
    Seconds cold;
    Seconds warm;
    Seconds first;
};

long largeCount() { return measure::NumberFromEnvironment("KELVANE_BENCH_ROWS", 500'000); }

Files makeFiles() {
    Files files;
    for (long i = 0; i < 2 * kFiles; ++i) {
        const std::string content = "content of the new file " + std::to_string(i);
        const auto data = CF::Data(std::vector<std::uint8_t>(content.begin(), content.end()));
        files.push_back(CF::Adopt(KVFileCreateFromData(data.get(), nullptr)));
        require(static_cast<bool>(files.back()), "a file cannot be made");
    }
    return files;
}

// Into a directory of a domain that is there already.
void store(const Container &container, const Files &files, long from, long to) {
    const CF::String domain = large_manifest::domainName(0);
    for (long i = from; i < to; ++i) {
        const CF::String path("Documents/Inbox/new file " + std::to_string(i));
        const bool stored =
            KVBackupContainerStoreFileForPath(container.get(), domain.get(), path.get(),
                                              files[static_cast<std::size_t>(i)].get(), nullptr);
        require(stored, "a file cannot be stored");
    }
}

Stored measureStores(const Setting &setting, long count) {
    large_manifest::usePrivateDirectory();
    const Files files = makeFiles();
    const Container container = setting.encrypted ? large_manifest::openEncryptedSample()
                                                  : large_manifest::makeEmptyContainer();
    large_manifest::setEntries(container, large_manifest::makeEntries(count, setting.domains));
    Stored result;
    result.cold = measure::Timed([&] {
        result.first = measure::Timed([&] { store(container, files, 0, 1); });
        store(container, files, 1, kFiles);
    });
    result.warm = measure::Timed([&] { store(container, files, kFiles, 2 * kFiles); });
    require(KVBackupContainerGetTotalFileCount(container.get()) > 2 * kFiles, "files are missing");
    return result;
}

void dropStoredFiles() {
    const std::string command = "rm -rf '" + measure::DataDirectory() + "/temporary'";
    require(std::system(command.c_str()) == 0, "stored files stay");
}

Stored measureInChild(const Setting &setting, long count) {
    const Stored stored = measure::InChild([&] { return measureStores(setting, count); });
    dropStoredFiles();
    return stored;
}

struct SizeSeries {
    measure::Series cold, warm, first;
    void Add(const Stored &stored) {
        cold.Add(stored.cold);
        warm.Add(stored.warm);
        first.Add(stored.first);
    }
};

double perFile(double seconds) { return seconds * 1e6 / static_cast<double>(kFiles); }

void setCounters(benchmark::State &state, const SizeSeries &small, const SizeSeries &large) {
    state.counters["small_cold_us"] = perFile(small.cold.Processor());
    state.counters["small_warm_us"] = perFile(small.warm.Processor());
    state.counters["large_cold_us"] = perFile(large.cold.Processor());
    state.counters["large_warm_us"] = perFile(large.warm.Processor());
    state.counters["cold_ratio"] = large.cold.Processor() / small.cold.Processor();
    state.counters["warm_ratio"] = large.warm.Processor() / small.warm.Processor();
    state.counters["cold_ratio_wall"] = large.cold.Wall() / small.cold.Wall();
    state.counters["warm_ratio_wall"] = large.warm.Wall() / small.warm.Wall();
    state.counters["first_ms"] = large.first.Processor() * 1e3;
}

void StoreFiles(benchmark::State &state, const Setting &setting) {
    SizeSeries small, large;
    for (auto _ : state) {
        small.Add(measureInChild(setting, largeCount() / kSmallerBy));
        const Stored stored = measureInChild(setting, largeCount());
        large.Add(stored);
        state.SetIterationTime(stored.cold.wall);
    }
    setCounters(state, small, large);
}

constexpr long kDomainsOfADevice = 200;

BENCHMARK_CAPTURE(StoreFiles, plain, Setting{false, kDomainsOfADevice})
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(StoreFiles, plain_one_domain, Setting{false, 1})
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(StoreFiles, encrypted, Setting{true, kDomainsOfADevice})
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
