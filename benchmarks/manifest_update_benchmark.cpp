// Bringing a large Manifest.db up to date against its floor: a copy of the file, which is made
// first in either case.
//
// A database of the devices' form is read, ten of its entries are edited (four removed, three
// changed, three added), and it is copied and updated. Counters:
//   of_copy          time of copying and updating / time of copying (wanted: at most 1.5)
//   update_s         updating alone
//   rewrite_all_s    writing every row over, without its key, as for a plain copy
//   bytes_per_entry  growth of the process (VmHWM) by writing every row over, divided by the
//                    entries
//   write_new_s      writing the same rows into a new database
//
// Run: manifest_update_benchmark
// KELVANE_BENCH_ROWS: rows, by default 500000. KELVANE_BENCH_DIR: where the databases are
// made, by default /dev/shm/kvbench.

#include "KVManifestEntry.h"
#include "KVTemporaryPath.h"
#include "Measure.hpp"
#include "manifest/DeviceDatabase.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/ManifestChange.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/File.hpp"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using measure::Seconds;
using ManifestPointer = CF::Pointer<KVManifestClass *>;

constexpr int kRounds = 5; // odd, so that the median is one of them
constexpr int kRowsPerDomain = 2500;

long rowCount() { return measure::NumberFromEnvironment("KELVANE_BENCH_ROWS", 500'000); }

CF::Data filled(std::size_t size, long seed) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(static_cast<std::size_t>(seed) * 31 + i * 7);
    }
    return CF::Data(bytes);
}

Kelvane::EntryPointer entryAt(long i) {
    const auto domain =
        CF::String::Format(CFSTR("AppDomain-com.example.application%ld"), i / kRowsPerDomain);
    const auto path = CF::String::Format(CFSTR("Library/Caches/Storage/%04ld/Resource-%08ld.data"),
                                         i % kRowsPerDomain / 50, i * 7919 % 100'000'000);
    auto entry = Kelvane::AllocateEntry(kCFAllocatorDefault);
    KVManifestEntryClass &body = *entry.get();
    Kelvane::SetEntryPath(body, domain, path);
    Kelvane::SetFileID(body, CF::Adopt(KVManifestEntryCopyFileIDForPath(domain, path)));
    body.fileType = 1;
    body.mode = 0100644;
    body.uid = body.gid = 501;
    body.size = 4096 * i;
    body.inode = 12'884'901'888U + static_cast<std::uint64_t>(i);
    body.lastModified = body.lastStatusChange = 700'000'000.0 + static_cast<double>(i);
    body.birth = 600'000'000.0;
    body.protectionClass = kEntryProtectionClassCompleteUntilUnlocked;
    body.dataHash = filled(20, i).get();
    body.encryptionData = filled(44, i).get();
    return entry;
}

ManifestPointer makeManifest() {
    const auto entries = CF::Array::Mutable();
    for (long i = 0; i < rowCount(); ++i) {
        entries.Append(entryAt(i).get());
    }
    auto manifest = CF::Adopt(KVManifestCreateEmpty(kCFAllocatorDefault));
    KVManifestUpdateEntries(manifest.get(), entries);
    return manifest;
}

ManifestPointer readManifest(const std::string &path) {
    auto manifest = CF::Adopt(KVManifestCreateFromManifestDatabase(
        kCFAllocatorDefault, CF::String(path).get(), kKVManifestDataVersion33, {}, {}, nullptr));
    if (!manifest) {
        throw std::runtime_error("the database cannot be read");
    }
    return manifest;
}

void edit(KVManifestClass *manifest) {
    const auto at = [&](long i) {
        return manifest->entries.At(static_cast<Kelvane::EntryPosition>(rowCount() / 11 * i));
    };
    Kelvane::ManifestChange change;
    for (long i = 0; i < 4; ++i) {
        change.removed.emplace_back(at(i));
    }
    for (long i = 4; i < 7; ++i) {
        at(i)->size += 1;
        at(i)->origin.MarkChanged();
        change.added.push_back(entryAt(rowCount() + i));
    }
    Kelvane::ApplyChange(manifest, change);
}

std::string copyPath() { return measure::DataDirectory() + "/copy.db"; }

Seconds measureCopy(const std::string &source) {
    const Seconds seconds = measure::InChild(
        [&] { return measure::Timed([&] { ZK::file::copy_new(source, copyPath()); }); });
    ::unlink(copyPath().c_str());
    return seconds;
}

struct Updating {
    Seconds all;
    Seconds update;
    double bytesPerEntry = 0;
};

double peakBytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) * 1024;
}

Updating measureUpdate(const std::string &source, KVManifestClass *manifest,
                       const Kelvane::DeviceRowRules &rules) {
    Updating result;
    const auto before = static_cast<double>(measure::ResidentBytes());
    result.all = measure::Timed([&] {
        ZK::file::copy_new(source, copyPath());
        result.update = measure::Timed([&] {
            if (Kelvane::UpdateManifestDatabaseFile(copyPath(), manifest, rules) !=
                Kelvane::ManifestUpdate::Updated) {
                throw std::runtime_error("nothing was updated");
            }
        });
    });
    result.bytesPerEntry = (peakBytes() - before) / static_cast<double>(rowCount());
    ::unlink(copyPath().c_str());
    return result;
}

Kelvane::DeviceRowRules withoutKeys() {
    Kelvane::DeviceRowRules rules;
    rules.rewrites = [](const KVManifestEntryClass &) { return true; };
    rules.adjust = [](Kelvane::DeviceRow &row) { row.encryptionKey = nullptr; };
    return rules;
}

void usePrivateDirectory() {
    const std::string directory = measure::DataDirectory() + "/temporary";
    ::mkdir(directory.c_str(), 0700);
    KelvaneSetTemporaryPath(CF::String(directory).get());
}

void UpdateManifest(benchmark::State &state) {
    measure::Series copying, all, update, rewriting, writing;
    std::vector<double> memory;
    usePrivateDirectory();
    const std::string source = Kelvane::WriteDeviceDatabaseFile(makeManifest().get(), {});
    const ManifestPointer manifest = readManifest(source);
    edit(manifest.get());
    for (auto _ : state) {
        copying.Add(measureCopy(source));
        const Updating updated =
            measure::InChild([&] { return measureUpdate(source, manifest.get(), {}); });
        all.Add(updated.all);
        update.Add(updated.update);
        const Updating rewritten =
            measure::InChild([&] { return measureUpdate(source, manifest.get(), withoutKeys()); });
        rewriting.Add(rewritten.update);
        memory.push_back(rewritten.bytesPerEntry);
        writing.Add(measure::InChild([&] {
            return measure::Timed([&] {
                Kelvane::RemoveManifestDatabaseFile(
                    Kelvane::WriteDeviceDatabaseFile(manifest.get(), {}));
            });
        }));
        state.SetIterationTime(updated.all.wall);
    }
    Kelvane::RemoveManifestDatabaseFile(source);
    state.counters["copy_s"] = copying.Wall();
    state.counters["update_s"] = update.Wall();
    state.counters["of_copy"] = all.Wall() / copying.Wall();
    state.counters["of_copy_cpu"] = all.Processor() / copying.Processor();
    state.counters["rewrite_all_s"] = rewriting.Wall();
    state.counters["bytes_per_entry"] = measure::Median(memory);
    state.counters["write_new_s"] = writing.Wall();
}
BENCHMARK(UpdateManifest)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
