#include "container/EncryptedContent.hpp"

#include "Kelvane/Error.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Encryption.hpp"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace Kelvane {

namespace {

using ZK::Encryption::Algorithm;
using ZK::Encryption::Cryptor;
using ZK::Encryption::Operation;

constexpr std::size_t kBlockSize = 16;
constexpr std::array<std::uint8_t, kBlockSize> kZeroIV{};

[[noreturn]] void throwCryptoError(Operation operation, const char *cause) {
    throw Error(kKVErrorCrypto, nullptr,
                operation == Operation::Encrypt ? CFSTR("Failed to encrypt: %s")
                                                : CFSTR("Failed to decrypt: %s"),
                cause);
}

// Runs a step of the cipher, whose failures say what is wrong with the content.
template <class Step>
auto withCryptoErrors(Operation operation, Step step) {
    try {
        return step();
    } catch (const std::invalid_argument &exception) {
        throwCryptoError(operation, exception.what());
    } catch (const std::runtime_error &exception) {
        throwCryptoError(operation, exception.what());
    }
}

// Puts the content through the cipher, from its first piece to the padding behind the last.
void crypt(Operation operation, const ZK::SecretArray<32> &key, const StoredContent &content,
           const ContentConsumer &consumer) {
    std::optional<Cryptor> cryptor;
    withCryptoErrors(operation,
                     [&] { cryptor.emplace(operation, Algorithm::AES256, key.get(), kZeroIV); });
    std::vector<std::uint8_t> output;
    const ZK::WipeOnExit wipe(output);
    content.Read([&](std::span<const std::uint8_t> piece) {
        output.clear();
        withCryptoErrors(operation, [&] { cryptor->Update(piece, output); });
        consumer(output);
    });
    std::vector<std::uint8_t> last =
        withCryptoErrors(operation, [&] { return cryptor->Finalize(); });
    const ZK::WipeOnExit wipeLast(last);
    consumer(last);
}

} // namespace

EncryptedContent::EncryptedContent(const ZK::file::readable_file &plain, const ContentKey &key)
    : plain_(plain), key_(key) {}

std::uint64_t EncryptedContent::Size() const {
    return (plain_.Size() / kBlockSize + 1) * kBlockSize;
}

void EncryptedContent::Read(const ContentConsumer &consumer) const {
    crypt(Operation::Encrypt, key_, plain_, consumer);
}

DecryptedContent::DecryptedContent(ZK::file::unique_descriptor stored, const ContentKey &key,
                                   PlainFacts &facts)
    : stored_(std::move(stored)), key_(key), facts_(facts) {
    facts_.storedSize = stored_.Size();
    facts_.size = plainSize();
}

// The last block tells how much padding there is, and needs only the one before to be decrypted.
std::uint64_t DecryptedContent::plainSize() const {
    const std::uint64_t size = stored_.Size();
    if (size == 0) {
        return 0; // as we stored empty files once
    }
    if (size % kBlockSize != 0) {
        throwCryptoError(Operation::Decrypt, "the length is no multiple of the block size");
    }
    std::array<std::uint8_t, 2 * kBlockSize> end{};
    const std::size_t count = size == kBlockSize ? kBlockSize : end.size();
    const std::span<std::uint8_t> read = std::span(end).last(count);
    const ::ssize_t got =
        ::pread(stored_.Descriptor(), read.data(), count, static_cast<::off_t>(size - count));
    if (got != static_cast<::ssize_t>(count)) {
        throw MakeFSError(got < 0 ? errno : EIO, CFSTR("The stored file could not be read - %s"),
                          "its end is missing");
    }
    const std::span<const std::uint8_t> blocks(end);
    std::vector<std::uint8_t> last = withCryptoErrors(Operation::Decrypt, [&] {
        return Cryptor::Crypt(Operation::Decrypt, Algorithm::AES256, key_.get(),
                              blocks.first(kBlockSize), blocks.last(kBlockSize));
    });
    const ZK::WipeOnExit wipe(last);
    return size - kBlockSize + last.size();
}

void DecryptedContent::Read(const ContentConsumer &consumer) const {
    ZK::Encryption::Hasher hasher;
    crypt(Operation::Decrypt, key_, stored_, [&](std::span<const std::uint8_t> piece) {
        hasher.Update(piece);
        consumer(piece);
    });
    const std::vector<std::uint8_t> digest = hasher.Finalize();
    std::copy_n(digest.begin(), std::min(digest.size(), facts_.digest.size()),
                facts_.digest.begin());
}

std::array<std::uint8_t, 20> DigestOfEncryptedNothing(const ContentKey &key) {
    return withCryptoErrors(Operation::Encrypt, [&] {
        return ZK::Encryption::SHA1(Cryptor::Crypt(Operation::Encrypt, Algorithm::AES256, key,
                                                   kZeroIV, std::span<const std::uint8_t>()));
    });
}

} // namespace Kelvane
