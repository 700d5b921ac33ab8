#include "support/zk/Encryption.hpp"
#include "support/zk/OpenSSL.hpp"

#include <algorithm>
#include <stdexcept>

namespace ZK::Encryption {
namespace {

constexpr std::size_t kSHA1Size = 20;

const EVP_MD *fetchSHA1() {
    detail::RequireLibrary();
    const EVP_MD *digest = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    if (digest == nullptr) {
        detail::Fail("SHA-1 is not available");
    }
    return digest;
}

// Looked up once; the look-up costs more than hashing a short text.
const EVP_MD *digestFor(HashAlgorithm algorithm) {
    if (algorithm != HashAlgorithm::SHA1) {
        throw std::invalid_argument("Unknown hash algorithm");
    }
    static const EVP_MD *const sha1 = fetchSHA1();
    return sha1;
}

struct FreeDigestContext {
    void operator()(EVP_MD_CTX *context) const noexcept { EVP_MD_CTX_free(context); }
};

// One context a thread, for texts so short that making one would cost as much again.
EVP_MD_CTX *threadContext() {
    thread_local const std::unique_ptr<EVP_MD_CTX, FreeDigestContext> context(EVP_MD_CTX_new());
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    return context.get();
}

} // namespace

Hasher::Hasher(HashAlgorithm algorithm) : context_(nullptr) {
    const EVP_MD *digest = digestFor(algorithm);
    std::unique_ptr<EVP_MD_CTX, FreeDigestContext> context(EVP_MD_CTX_new());
    if (context == nullptr || EVP_DigestInit_ex2(context.get(), digest, nullptr) != 1) {
        detail::Fail("Failed to begin a digest");
    }
    context_ = context.release();
}

Hasher::~Hasher() { EVP_MD_CTX_free(context_); }

void Hasher::Update(std::span<const std::uint8_t> bytes) {
    if (EVP_DigestUpdate(context_, bytes.data(), bytes.size()) != 1) {
        detail::Fail("Failed to update a digest");
    }
}

std::vector<std::uint8_t> Hasher::Finalize() {
    std::vector<std::uint8_t> digest(kSHA1Size);
    if (EVP_DigestFinal_ex(context_, digest.data(), nullptr) != 1) {
        detail::Fail("Failed to finish a digest");
    }
    return digest;
}

std::array<std::uint8_t, 20> SHA1(std::span<const std::uint8_t> bytes) {
    std::array<std::uint8_t, kSHA1Size> digest{};
    EVP_MD_CTX *const context = threadContext();
    if (EVP_DigestInit_ex2(context, digestFor(HashAlgorithm::SHA1), nullptr) != 1 ||
        EVP_DigestUpdate(context, bytes.data(), bytes.size()) != 1 ||
        EVP_DigestFinal_ex(context, digest.data(), nullptr) != 1) {
        detail::Fail("Failed to compute a digest");
    }
    return digest;
}

std::vector<std::uint8_t> Hash(std::span<const std::uint8_t> bytes, HashAlgorithm algorithm) {
    (void)digestFor(algorithm); // refuses what is not SHA-1
    const auto digest = SHA1(bytes);
    return {digest.begin(), digest.end()};
}

std::vector<std::uint8_t> HashOfFile(const filesystem::path &path, HashAlgorithm algorithm) {
    file::readable_file file(path);
    return HashOfFile(file, algorithm);
}

std::vector<std::uint8_t> HashOfFile(file::readable_file &file, HashAlgorithm algorithm) {
    constexpr std::uint64_t kBufferSize = 256 * 1024; // larger ones gain nothing
    Hasher hasher(algorithm);
    // One byte more than a small file has, so that it takes one read and the end another.
    const auto size = static_cast<std::size_t>(std::min(file.size() + 1, kBufferSize));
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    while (const std::size_t count = file.read_some({buffer.get(), size})) {
        hasher.Update({buffer.get(), count});
    }
    return hasher.Finalize();
}

} // namespace ZK::Encryption
