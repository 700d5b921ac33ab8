// Reading a decrypted file of 1 GiB through KVFileGetData in pieces of the default size
// against what OpenSSL needs to decrypt the same pieces.
//
// The floor is measured twice: with the file mapped into memory and handed to
// EVP_DecryptUpdate piece by piece, which is decryption and nothing else, and with the
// pieces read from the file by read(2), which is what any reader has to do. All are
// measured in turn, round by round, and the medians are compared. Counters:
//   of_evp          speed of ours / speed of EVP over pieces in memory (wanted: at least 0.7)
//   of_read_evp     speed of ours / speed of read(2) and EVP
//   *_cpu           the same in processor time, which neighbours disturb less
//   grown_kib       growth of the process (VmRSS) from the first piece of a file to its
//                   last, for a file of a 64th of the size and for the whole one
//
// Run: read_benchmark
// KELVANE_BENCH_BYTES: size of the file, by default 1073741824. KELVANE_BENCH_DIR: where
// it is made and kept, by default /dev/shm/kvbench.

#include "KVFile.h"
#include "Measure.hpp"
#include "support/cf/CF.hpp"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using measure::Seconds;

constexpr int kRounds = 9; // odd, so that the median is one of them
constexpr std::size_t kChunk = 32768;
constexpr std::array<std::uint8_t, 32> kKey = {7, 1, 8, 2, 8, 1, 8, 2, 8, 4, 5, 9};
constexpr std::array<std::uint8_t, 16> kZeroIV{};
using Chunk = std::array<std::uint8_t, kChunk + EVP_MAX_BLOCK_LENGTH>;

void require(bool condition, const char *what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

long fileSize() { return measure::NumberFromEnvironment("KELVANE_BENCH_BYTES", 1L << 30); }

struct FreeCipher {
    void operator()(EVP_CIPHER_CTX *context) const noexcept { EVP_CIPHER_CTX_free(context); }
};
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, FreeCipher>;

Cipher makeCipher(bool encrypt) {
    Cipher cipher(EVP_CIPHER_CTX_new());
    require(EVP_CipherInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, kKey.data(), kZeroIV.data(),
                              encrypt ? 1 : 0) == 1,
            "the cipher cannot be set up");
    return cipher;
}

void writeBytes(int fd, const std::uint8_t *bytes, int size) {
    require(::write(fd, bytes, static_cast<std::size_t>(size)) == size, "cannot write the file");
}

// Ciphertext of the wanted size: that of a block less in plaintext, padded.
void makeFile(const std::string &path, long size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    require(fd >= 0, "the file cannot be made");
    const Cipher cipher = makeCipher(true);
    const auto plain = std::make_unique<Chunk>();
    const auto output = std::make_unique<Chunk>();
    int count = 0;
    for (long left = size - 16; left > 0; left -= static_cast<long>(kChunk)) {
        const int piece = static_cast<int>(std::min(left, static_cast<long>(kChunk)));
        plain->fill(static_cast<std::uint8_t>(left / 5));
        EVP_EncryptUpdate(cipher.get(), output->data(), &count, plain->data(), piece);
        writeBytes(fd, output->data(), count);
    }
    EVP_EncryptFinal_ex(cipher.get(), output->data(), &count);
    writeBytes(fd, output->data(), count);
    ::close(fd);
}

std::string encryptedFile(long size) {
    const std::string path = measure::DataDirectory() + "/encrypted-" + std::to_string(size);
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || status.st_size != size) {
        makeFile(path, size);
    }
    return path;
}

class Descriptor {
  public:
    explicit Descriptor(const std::string &path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        require(fd_ >= 0, "the file cannot be opened");
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { ::close(fd_); }
    int get() const { return fd_; }

  private:
    int fd_;
};

// Decrypts the pieces that next() gives until it gives an empty one.
template <class Next>
void decrypt(Next next) {
    const Cipher cipher = makeCipher(false);
    const auto output = std::make_unique<Chunk>();
    int count = 0;
    long total = 0;
    for (std::span<const std::uint8_t> piece = next(); !piece.empty(); piece = next()) {
        EVP_DecryptUpdate(cipher.get(), output->data(), &count, piece.data(),
                          static_cast<int>(piece.size()));
        benchmark::DoNotOptimize(*output);
        total += count;
    }
    require(EVP_DecryptFinal_ex(cipher.get(), output->data(), &count) == 1, "wrong padding");
    require(total + count == fileSize() - 16, "wrong length");
}

// The file's pages are mapped before the clock starts.
Seconds decryptMapped(const std::string &path) {
    const Descriptor file(path);
    const auto size = static_cast<std::size_t>(fileSize());
    void *const mapped = ::mmap(nullptr, size, PROT_READ, MAP_SHARED | MAP_POPULATE, file.get(), 0);
    require(mapped != MAP_FAILED, "the file cannot be mapped");
    std::span<const std::uint8_t> left(static_cast<const std::uint8_t *>(mapped), size);
    const Seconds seconds = measure::Timed([&] {
        decrypt([&] {
            const auto piece = left.first(std::min(left.size(), kChunk));
            left = left.subspan(piece.size());
            return piece;
        });
    });
    ::munmap(mapped, size);
    return seconds;
}

Seconds decryptRead(const std::string &path) {
    return measure::Timed([&] {
        const Descriptor file(path);
        const auto input = std::make_unique<Chunk>();
        decrypt([&] {
            const ::ssize_t count = ::read(file.get(), input->data(), kChunk);
            require(count >= 0, "the file cannot be read");
            return std::span<const std::uint8_t>(input->data(), static_cast<std::size_t>(count));
        });
    });
}

using File = CF::Pointer<KVFileClass *>;

File openDecrypted(const std::string &path) {
    auto file = CF::Adopt(_KVFileCreateFromAbsolutePath(CF::String(path).get(), {}, 0, nullptr));
    require(static_cast<bool>(file), "the file cannot be opened");
    KVFileEnableDecryption(file.get(), kKey);
    return file;
}

Seconds readThrough(const File &file) {
    std::uint64_t total = 0;
    const Seconds seconds = measure::Timed([&] {
        KVFileGetData(file.get(), kKVFileDefaultDataChunkSize,
                      [&](const std::vector<std::uint8_t> &piece) {
                          benchmark::DoNotOptimize(piece.data());
                          total += piece.size();
                          return true;
                      });
    });
    require(total == KVFileGetSize(file.get()), "wrong length");
    return seconds;
}

double grownKiB(long size) {
    const File file = openDecrypted(encryptedFile(size));
    std::size_t first = 0;
    std::size_t largest = 0;
    std::uint64_t pieces = 0;
    KVFileGetData(file.get(), kKVFileDefaultDataChunkSize, [&](const std::vector<std::uint8_t> &) {
        if (++pieces == 1) {
            first = measure::ResidentBytes();
        } else if (pieces % 64 == 0) {
            largest = std::max(largest, measure::ResidentBytes());
        }
        return true;
    });
    return (static_cast<double>(largest) - static_cast<double>(first)) / 1024;
}

void setRatios(benchmark::State &state, const measure::Series &ours, const measure::Series &mapped,
               const measure::Series &read) {
    state.counters["evp_s"] = mapped.Wall();
    state.counters["read_evp_s"] = read.Wall();
    state.counters["ours_s"] = ours.Wall();
    state.counters["of_evp"] = mapped.Wall() / ours.Wall();
    state.counters["of_evp_cpu"] = mapped.Processor() / ours.Processor();
    state.counters["of_read_evp"] = read.Wall() / ours.Wall();
    state.counters["of_read_evp_cpu"] = read.Processor() / ours.Processor();
}

void ReadDecrypted(benchmark::State &state) {
    const std::string path = encryptedFile(fileSize());
    const double small = measure::InChild([] { return grownKiB(fileSize() / 64); });
    const double whole = measure::InChild([] { return grownKiB(fileSize()); });
    const File file = openDecrypted(path);
    measure::Series mapped, read, ours;
    for (auto _ : state) {
        mapped.Add(decryptMapped(path));
        read.Add(decryptRead(path));
        const Seconds seconds = readThrough(file);
        ours.Add(seconds);
        state.SetIterationTime(seconds.wall);
    }
    setRatios(state, ours, mapped, read);
    state.counters["grown_kib_small"] = small;
    state.counters["grown_kib"] = whole;
}
BENCHMARK(ReadDecrypted)->Iterations(kRounds)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
