#include "support/zk/Encryption.hpp"
#include "support/zk/OpenSSL.hpp"
#include "support/zk/WipeStack.hpp"

#include <algorithm>
#include <stdexcept>

namespace ZK::Encryption {
namespace {

constexpr std::size_t kBlockSize = 16;
constexpr std::array<std::uint8_t, kBlockSize> kZeroIV{};
// libcrypto counts bytes in an int.
constexpr std::size_t kMaxPiece = std::size_t{1} << 30;

std::size_t keySize(Algorithm algorithm) {
    switch (algorithm) {
    case Algorithm::AES128:
        return 16;
    case Algorithm::AES256:
        return 32;
    }
    throw std::invalid_argument("Unknown cipher");
}

const EVP_CIPHER *cipherFor(Algorithm algorithm) {
    static const EVP_CIPHER *const aes128 = detail::FetchCipher("AES-128-CBC");
    static const EVP_CIPHER *const aes256 = detail::FetchCipher("AES-256-CBC");
    return algorithm == Algorithm::AES128 ? aes128 : aes256;
}

} // namespace

Cryptor::Cryptor(Operation operation, Algorithm algorithm, std::span<const std::uint8_t> key,
                 std::span<const std::uint8_t> iv)
    : context_(nullptr), decrypting_(operation == Operation::Decrypt) {
    const WipeStackOnExit wipeStack;
    if (key.size() != keySize(algorithm)) {
        throw std::invalid_argument("Wrong key size");
    }
    if (!iv.empty() && iv.size() != kBlockSize) {
        throw std::invalid_argument("Wrong size of the initial value");
    }
    const EVP_CIPHER *cipher = cipherFor(algorithm);
    detail::CipherContext context(EVP_CIPHER_CTX_new());
    if (context == nullptr || EVP_CipherInit_ex2(context.get(), cipher, key.data(),
                                                 iv.empty() ? kZeroIV.data() : iv.data(),
                                                 decrypting_ ? 0 : 1, nullptr) != 1) {
        detail::Fail("Failed to set up the cipher");
    }
    context_ = context.release();
}

Cryptor::~Cryptor() {
    const WipeStackOnExit wipeStack; // the rounds left keys there
    EVP_CIPHER_CTX_free(context_);
}

void Cryptor::Update(std::span<const std::uint8_t> bytes, std::vector<std::uint8_t> &output) {
    fed_ = fed_ || !bytes.empty();
    // Grows by a block at most from one call to the next of the same length.
    output.resize(bytes.size() + kBlockSize);
    std::size_t produced = 0;
    while (!bytes.empty()) {
        const auto piece = bytes.first(std::min(bytes.size(), kMaxPiece));
        int count = 0;
        if (EVP_CipherUpdate(context_, output.data() + produced, &count, piece.data(),
                             static_cast<int>(piece.size())) != 1) {
            detail::Fail("Cipher failed");
        }
        produced += static_cast<std::size_t>(count);
        bytes = bytes.subspan(piece.size());
    }
    output.resize(produced);
}

std::vector<std::uint8_t> Cryptor::Update(std::span<const std::uint8_t> bytes) {
    std::vector<std::uint8_t> output;
    Update(bytes, output);
    return output;
}

std::vector<std::uint8_t> Cryptor::Finalize() {
    // Backups store an empty file as no bytes at all, without a block of padding.
    if (decrypting_ && !fed_) {
        return {};
    }
    std::vector<std::uint8_t> output(kBlockSize);
    int count = 0;
    if (EVP_CipherFinal_ex(context_, output.data(), &count) != 1) {
        detail::Fail("Cipher failed to finish");
    }
    output.resize(static_cast<std::size_t>(count));
    return output;
}

std::vector<std::uint8_t> Cryptor::Crypt(Operation operation, Algorithm algorithm,
                                         std::span<const std::uint8_t> key,
                                         std::span<const std::uint8_t> iv,
                                         std::span<const std::uint8_t> bytes) {
    Cryptor cryptor(operation, algorithm, key, iv);
    std::vector<std::uint8_t> output = cryptor.Update(bytes);
    const std::vector<std::uint8_t> rest = cryptor.Finalize();
    output.insert(output.end(), rest.begin(), rest.end());
    return output;
}

std::vector<std::uint8_t> Cryptor::Decrypt(Algorithm algorithm, std::span<const std::uint8_t> key,
                                           std::span<const std::uint8_t> iv,
                                           std::span<const std::uint8_t> bytes) {
    return Crypt(Operation::Decrypt, algorithm, key, iv, bytes);
}

void Cryptor::Crypt(Operation operation, Algorithm algorithm, std::span<const std::uint8_t> key,
                    std::span<const std::uint8_t> iv, file::readable_file &source,
                    file::writable_file &destination) {
    constexpr std::size_t kBufferSize = 128 * 1024; // input and output fit a core's cache
    Cryptor cryptor(operation, algorithm, key, iv);
    const auto input = std::make_unique_for_overwrite<std::uint8_t[]>(kBufferSize);
    std::vector<std::uint8_t> output;
    while (const std::size_t count = source.read_some({input.get(), kBufferSize})) {
        cryptor.Update({input.get(), count}, output);
        destination.write(output);
    }
    destination.write(cryptor.Finalize());
}

} // namespace ZK::Encryption
