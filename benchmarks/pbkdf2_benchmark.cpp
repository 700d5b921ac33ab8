// PBKDF2 at 1,000,000 iterations against its floor, the 2,000,000 bare block transforms
// that it cannot do without, and against OpenSSL's PKCS5_PBKDF2_HMAC.
//
// The three are measured in turn, round by round, so that a change of the processor's
// clock or a busy neighbour meets all of them, and the medians are compared. Counters:
//   of_transforms   time of ours / time of the bare transforms (wanted: at most 1.25)
//   times_openssl   time of OpenSSL's / time of ours (wanted: at least 2.8; SHA-512 has no
//                   such goal: its compression outweighs the overhead that we avoid)
//
// Run: pbkdf2_benchmark

// The bare transforms are the low-level interface that OpenSSL 3 marks deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "fastpbkdf2.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <vector>

namespace {

constexpr std::uint32_t kIterations = 1'000'000;
constexpr int kRounds = 11; // odd, so that the median is one of them
constexpr std::string_view kPassword = "correct horse";
constexpr std::array<std::uint8_t, 20> kSalt = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};

struct SHA1Hash {
    using Context = SHA_CTX;
    static constexpr std::size_t kBlockSize = SHA_CBLOCK;
    static constexpr std::size_t kDigestSize = SHA_DIGEST_LENGTH;
    static constexpr auto Init = SHA1_Init;
    static constexpr auto Transform = SHA1_Transform;
    static constexpr auto Derive = fastpbkdf2_hmac_sha1;
    static constexpr auto Algorithm = EVP_sha1;
};
struct SHA256Hash {
    using Context = SHA256_CTX;
    static constexpr std::size_t kBlockSize = SHA256_CBLOCK;
    static constexpr std::size_t kDigestSize = SHA256_DIGEST_LENGTH;
    static constexpr auto Init = SHA256_Init;
    static constexpr auto Transform = SHA256_Transform;
    static constexpr auto Derive = fastpbkdf2_hmac_sha256;
    static constexpr auto Algorithm = EVP_sha256;
};
struct SHA512Hash {
    using Context = SHA512_CTX;
    static constexpr std::size_t kBlockSize = SHA512_CBLOCK;
    static constexpr std::size_t kDigestSize = SHA512_DIGEST_LENGTH;
    static constexpr auto Init = SHA512_Init;
    static constexpr auto Transform = SHA512_Transform;
    static constexpr auto Derive = fastpbkdf2_hmac_sha512;
    static constexpr auto Algorithm = EVP_sha512;
};

template <class Hash>
void transforms() {
    typename Hash::Context context;
    Hash::Init(&context);
    alignas(16) std::array<std::uint8_t, Hash::kBlockSize> block{};
    for (std::uint32_t i = 0; i < 2 * kIterations; ++i) {
        Hash::Transform(&context, block.data());
    }
    benchmark::DoNotOptimize(context);
}

template <class Hash>
void ours() {
    std::array<std::uint8_t, Hash::kDigestSize> output;
    Hash::Derive(reinterpret_cast<const std::uint8_t *>(kPassword.data()), kPassword.size(),
                 kSalt.data(), kSalt.size(), kIterations, output.data(), output.size());
    benchmark::DoNotOptimize(output);
}

template <class Hash>
void openssl() {
    std::array<std::uint8_t, Hash::kDigestSize> output;
    PKCS5_PBKDF2_HMAC(kPassword.data(), static_cast<int>(kPassword.size()), kSalt.data(),
                      static_cast<int>(kSalt.size()), static_cast<int>(kIterations),
                      Hash::Algorithm(), static_cast<int>(output.size()), output.data());
    benchmark::DoNotOptimize(output);
}

double secondsOf(void (*work)()) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

template <class Hash>
void PBKDF2(benchmark::State &state) {
    std::vector<double> floor, own, theirs;
    for (auto _ : state) {
        floor.push_back(secondsOf(transforms<Hash>));
        own.push_back(secondsOf(ours<Hash>));
        theirs.push_back(secondsOf(openssl<Hash>));
        state.SetIterationTime(own.back());
    }
    state.counters["transforms_s"] = median(floor);
    state.counters["openssl_s"] = median(theirs);
    state.counters["of_transforms"] = median(own) / median(floor);
    state.counters["times_openssl"] = median(theirs) / median(own);
}
BENCHMARK_TEMPLATE(PBKDF2, SHA1Hash)
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(PBKDF2, SHA256Hash)
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(PBKDF2, SHA512Hash)
    ->Iterations(kRounds)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
