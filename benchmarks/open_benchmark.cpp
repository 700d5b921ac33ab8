// Opening a backup with a large Manifest.db against its floor: SHA-1 over the database,
// one copy of it, and a bare SQLite loop over the same rows that touches every byte.
//
// All of them are measured in turn, round by round, each in a process of its own, and the
// medians are compared. Counters:
//   of_floor         time of opening / time of the floor (wanted: at most 3)
//   of_floor_cpu     the same in processor time, which neighbours disturb less
//   bytes_per_entry  growth of the process (VmRSS) by an open backup, divided by the number
//                    of its entries (wanted: at most 1200)
//
// Run: open_benchmark
// KELVANE_BENCH_ROWS: rows of the database, by default 500000. KELVANE_BENCH_DIR: where
// the backup is made and kept, by default /dev/shm/kvbench.

#include "KVBackupContainer.h"
#include "KVManifest.h"
#include "KVTemporaryPath.h"
#include "Measure.hpp"
#include "support/cf/CF.hpp"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <sqlite3.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using measure::Seconds;

constexpr int kRounds = 7; // odd, so that the median is one of them
constexpr std::size_t kBufferSize = std::size_t{1} << 20;

void require(bool condition, const char *what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

long rowCount() { return measure::NumberFromEnvironment("KELVANE_BENCH_ROWS", 500'000); }

std::string makeBackup() {
    const std::string rows = std::to_string(rowCount());
    const std::string path = measure::DataDirectory() + "/rows-" + rows;
    if (::access((path + "/Status.plist").c_str(), F_OK) != 0) {
        const std::string command =
            "'" KELVANE_SOURCE_DIR "/tests/tools/make_backup.py' '" + path + "' --rows " + rows;
        require(std::system(command.c_str()) == 0, "the backup cannot be made");
    }
    return path;
}

const std::string &backupPath() {
    static const std::string path = makeBackup();
    return path;
}
std::string databasePath() { return backupPath() + "/Manifest.db"; }

template <class Consumer>
void readFile(const std::string &path, Consumer consumer) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    require(fd >= 0, "the database cannot be opened");
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(kBufferSize);
    for (::ssize_t count; (count = ::read(fd, buffer.get(), kBufferSize)) > 0;) {
        consumer(buffer.get(), static_cast<std::size_t>(count));
    }
    ::close(fd);
}

void hashDatabase() {
    EVP_MD_CTX *const context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_sha1(), nullptr);
    readFile(databasePath(), [&](const std::uint8_t *bytes, std::size_t size) {
        EVP_DigestUpdate(context, bytes, size);
    });
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
    require(EVP_DigestFinal_ex(context, digest.data(), nullptr) == 1, "SHA-1 failed");
    benchmark::DoNotOptimize(digest);
    EVP_MD_CTX_free(context);
}

std::string copyPath() { return measure::DataDirectory() + "/copy.db"; }

void copyDatabase() {
    const int fd = ::open(copyPath().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    require(fd >= 0, "the copy cannot be made");
    readFile(databasePath(), [&](const std::uint8_t *bytes, std::size_t size) {
        require(::write(fd, bytes, size) == static_cast<::ssize_t>(size), "cannot write the copy");
    });
    ::close(fd);
}

std::uint64_t touch(sqlite3_stmt *statement) {
    std::uint64_t sum = 0;
    for (const int column : {0, 1, 2, 4}) {
        const auto *const bytes =
            static_cast<const std::uint8_t *>(column == 4 ? sqlite3_column_blob(statement, column)
                                                          : sqlite3_column_text(statement, column));
        const int size = sqlite3_column_bytes(statement, column);
        for (int i = 0; i < size; ++i) {
            sum += bytes[i];
        }
    }
    return sum + static_cast<std::uint64_t>(sqlite3_column_int(statement, 3));
}

void selectRows() {
    sqlite3 *database = nullptr;
    sqlite3_stmt *statement = nullptr;
    require(sqlite3_open_v2(databasePath().c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) ==
                    SQLITE_OK &&
                sqlite3_prepare_v2(database,
                                   "SELECT fileID, domain, relativePath, flags, file FROM Files;",
                                   -1, &statement, nullptr) == SQLITE_OK,
            "the database cannot be read");
    std::uint64_t sum = 0;
    long rows = 0;
    for (; sqlite3_step(statement) == SQLITE_ROW; ++rows) {
        sum += touch(statement);
    }
    require(rows == rowCount(), "the database has another number of rows");
    benchmark::DoNotOptimize(sum);
    sqlite3_finalize(statement);
    sqlite3_close(database);
}

using Container = CF::Pointer<KVBackupContainerClass *>;

Container openBackup() {
    CFErrorRef error = nullptr;
    auto container = CF::Adopt(KVBackupContainerCreateFromDirectory(
        kCFAllocatorDefault, CF::String(backupPath()).get(), nullptr, &error));
    require(static_cast<bool>(container), "the backup cannot be opened");
    return container;
}

struct Opening {
    Seconds seconds;
    double bytesPerEntry = 0;
};

Opening measureOpening() {
    Opening result;
    const std::size_t before = measure::ResidentBytes();
    Container container;
    result.seconds = measure::Timed([&] { container = openBackup(); });
    const std::size_t grown = measure::ResidentBytes() - before;
    const CFArrayRef entries = KVManifestGetEntries(KVBackupContainerGetManifest(container.get()));
    require(CFArrayGetCount(entries) == rowCount(), "the backup has another number of entries");
    result.bytesPerEntry = static_cast<double>(grown) / static_cast<double>(rowCount());
    return result;
}

Seconds floorOf(void (*work)()) {
    return measure::InChild([&] { return measure::Timed(work); });
}

void usePrivateDirectory() {
    const std::string directory = measure::DataDirectory() + "/temporary";
    ::mkdir(directory.c_str(), 0700);
    KelvaneSetTemporaryPath(CF::String(directory).get());
}

// Children leave their working copies behind.
void dropWorkingCopies() {
    const std::string command = "rm -rf '" + measure::DataDirectory() + "/temporary/KVManifestDB'";
    require(std::system(command.c_str()) == 0, "working copies stay");
}

void OpenBackup(benchmark::State &state) {
    measure::Series hash, copy, select, opening;
    std::vector<double> memory;
    usePrivateDirectory();
    (void)backupPath();
    for (auto _ : state) {
        hash.Add(floorOf(hashDatabase));
        copy.Add(floorOf(copyDatabase));
        ::unlink(copyPath().c_str());
        select.Add(floorOf(selectRows));
        const Opening opened = measure::InChild(measureOpening);
        dropWorkingCopies();
        opening.Add(opened.seconds);
        memory.push_back(opened.bytesPerEntry);
        state.SetIterationTime(opened.seconds.wall);
    }
    const double floor = hash.Wall() + copy.Wall() + select.Wall();
    state.counters["sha1_s"] = hash.Wall();
    state.counters["copy_s"] = copy.Wall();
    state.counters["select_s"] = select.Wall();
    state.counters["open_s"] = opening.Wall();
    state.counters["open_cpu_s"] = opening.Processor();
    state.counters["of_floor"] = opening.Wall() / floor;
    state.counters["of_floor_cpu"] =
        opening.Processor() / (hash.Processor() + copy.Processor() + select.Processor());
    state.counters["bytes_per_entry"] = measure::Median(memory);
}
BENCHMARK(OpenBackup)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
