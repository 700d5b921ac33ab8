// Writing a large Manifest.db against its floor: a bare SQLite loop that inserts the same
// rows, their records encoded beforehand, into the same schema in one transaction.
//
// Both are measured in turn, round by round, each in a process of its own, and the medians
// are compared. Counters:
//   of_bare          time of writing / time of the loop (wanted: at most 3)
//   of_bare_cpu      the same in processor time, which neighbours disturb less
//   of_bare_wal      the same against a loop in a database with a write-ahead log, as the
//                    manifest's has, and the same page cache
//   encode_s         encoding all records alone
//   bytes_per_entry  growth of the process (VmHWM) by the writing, divided by the entries
//
// Run: manifest_write_benchmark
// KELVANE_BENCH_ROWS: rows, by default 500000. KELVANE_BENCH_DIR: where the databases are
// made, by default /dev/shm/kvbench.

#include "KVManifestEntry.h"
#include "KVTemporaryPath.h"
#include "Measure.hpp"
#include "manifest/EntryToMBFile.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "support/cf/CF.hpp"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
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

void require(bool condition, const char *what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

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
    body.fileID = CF::Adopt(KVManifestEntryCopyFileIDForPath(domain, path));
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

// A row as the loop inserts it.
struct Row {
    std::string fileID;
    std::string domain;
    std::string path;
    std::vector<std::uint8_t> record;
};

std::vector<Row> makeRows(const ManifestPointer &manifest) {
    const CF::Array entries = Kelvane::CopySortedEntries(manifest.get());
    std::vector<Row> rows(static_cast<std::size_t>(entries.GetCount()));
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto *const entry =
            static_cast<const KVManifestEntryClass *>(entries.GetAt(static_cast<CFIndex>(i)));
        rows[i] = {CF::String::GetUTF8(entry->fileID.get()),
                   CF::String::GetUTF8(entry->domain.get()),
                   CF::String::GetUTF8(entry->relativePath.get()),
                   {}};
        require(Kelvane::EncodeEntryRecord(*entry, rows[i].record), "an entry has no record");
    }
    return rows;
}

void run(sqlite3 *database, const char *statement) {
    require(sqlite3_exec(database, statement, nullptr, nullptr, nullptr) == SQLITE_OK, statement);
}

void insert(sqlite3_stmt *statement, const Row &row) {
    const auto text = [&](int index, const std::string &value) {
        sqlite3_bind_text(statement, index, value.data(), static_cast<int>(value.size()),
                          SQLITE_STATIC);
    };
    text(1, row.fileID);
    text(2, row.domain);
    text(3, row.path);
    sqlite3_bind_int(statement, 4, 1);
    sqlite3_bind_blob(statement, 5, row.record.data(), static_cast<int>(row.record.size()),
                      SQLITE_STATIC);
    require(sqlite3_step(statement) == SQLITE_DONE, "a row cannot be inserted");
    sqlite3_reset(statement);
}

std::string barePath() { return measure::DataDirectory() + "/bare.db"; }

void writeBarely(const std::vector<Row> &rows, const std::vector<const char *> &settings) {
    sqlite3 *database = nullptr;
    sqlite3_stmt *statement = nullptr;
    require(sqlite3_open(barePath().c_str(), &database) == SQLITE_OK, "no bare database");
    run(database, "CREATE TABLE Files (fileID TEXT PRIMARY KEY, domain TEXT, relativePath TEXT, "
                  "flags INTEGER, file BLOB);"
                  "CREATE TABLE Properties (key TEXT PRIMARY KEY, value BLOB);"
                  "CREATE INDEX FilesDomainIdx ON Files (domain);"
                  "CREATE INDEX FilesFlagsIdx ON Files (flags);"
                  "CREATE INDEX FilesRelativePathIdx ON Files (relativePath);");
    for (const char *setting : settings) {
        run(database, setting);
    }
    run(database, "BEGIN;");
    require(sqlite3_prepare_v2(database,
                               "INSERT OR REPLACE INTO Files (fileID,domain,relativePath,flags,"
                               "file)VALUES (?,?,?,?,?)",
                               -1, &statement, nullptr) == SQLITE_OK,
            "no statement");
    for (const Row &row : rows) {
        insert(statement, row);
    }
    sqlite3_finalize(statement);
    run(database, "COMMIT;");
    sqlite3_close(database);
}

Seconds measureBare(const std::vector<Row> &rows, const std::vector<const char *> &settings) {
    const Seconds seconds =
        measure::InChild([&] { return measure::Timed([&] { writeBarely(rows, settings); }); });
    ::unlink(barePath().c_str());
    return seconds;
}

void encodeAll(const ManifestPointer &manifest) {
    const CFArrayRef entries = KVManifestGetEntries(manifest.get());
    std::vector<std::uint8_t> record;
    for (CFIndex i = 0; i < CFArrayGetCount(entries); ++i) {
        require(Kelvane::EncodeEntryRecord(
                    *static_cast<const KVManifestEntryClass *>(CFArrayGetValueAtIndex(entries, i)),
                    record),
                "an entry has no record");
        benchmark::DoNotOptimize(record.data());
    }
}

struct Writing {
    Seconds seconds;
    double bytesPerEntry = 0;
};

// The most that the process had resident, in bytes.
double peakBytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) * 1024;
}

Writing measureWriting(const ManifestPointer &manifest) {
    Writing result;
    const auto before = static_cast<double>(measure::ResidentBytes());
    std::string path;
    result.seconds = measure::Timed([&] {
        path = Kelvane::WriteManifestDatabaseFile(manifest.get(), kKVManifestDataVersion33);
    });
    result.bytesPerEntry = (peakBytes() - before) / static_cast<double>(rowCount());
    Kelvane::RemoveManifestDatabaseFile(path);
    return result;
}

void usePrivateDirectory() {
    const std::string directory = measure::DataDirectory() + "/temporary";
    ::mkdir(directory.c_str(), 0700);
    KelvaneSetTemporaryPath(CF::String(directory).get());
}

void WriteManifest(benchmark::State &state) {
    measure::Series bare, bareLog, encoding, writing;
    std::vector<double> memory;
    usePrivateDirectory();
    const ManifestPointer manifest = makeManifest();
    const std::vector<Row> rows = makeRows(manifest);
    for (auto _ : state) {
        bare.Add(measureBare(rows, {}));
        bareLog.Add(measureBare(rows, {"PRAGMA journal_mode=WAL;", "PRAGMA cache_size=-65536;"}));
        encoding.Add(
            measure::InChild([&] { return measure::Timed([&] { encodeAll(manifest); }); }));
        const Writing written = measure::InChild([&] { return measureWriting(manifest); });
        writing.Add(written.seconds);
        memory.push_back(written.bytesPerEntry);
        state.SetIterationTime(written.seconds.wall);
    }
    state.counters["bare_s"] = bare.Wall();
    state.counters["bare_cpu_s"] = bare.Processor();
    state.counters["write_s"] = writing.Wall();
    state.counters["write_cpu_s"] = writing.Processor();
    state.counters["encode_s"] = encoding.Processor();
    state.counters["of_bare"] = writing.Wall() / bare.Wall();
    state.counters["of_bare_cpu"] = writing.Processor() / bare.Processor();
    state.counters["of_bare_wal"] = writing.Wall() / bareLog.Wall();
    state.counters["of_bare_wal_cpu"] = writing.Processor() / bareLog.Processor();
    state.counters["bytes_per_entry"] = measure::Median(memory);
}
BENCHMARK(WriteManifest)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
