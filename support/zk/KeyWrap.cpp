#include "support/cf/CF.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/OpenSSL.hpp"
#include "support/zk/Secret.hpp"
#include "support/zk/WipeStack.hpp"

#include <stdexcept>

namespace ZK::Encryption {
namespace {

// The unit of the algorithm, by which wrapping lengthens a key.
constexpr std::size_t kHalfBlock = 8;
// The algorithm is defined for two units and more.
constexpr std::size_t kMinPlain = 2 * kHalfBlock;
// Longest key that may be wrapped: far above any real key, and within libcrypto's int.
constexpr std::size_t kMaxPlain = std::size_t{1} << 20;

void requireLength(std::size_t plainLength) {
    if (plainLength < kMinPlain || plainLength > kMaxPlain || plainLength % kHalfBlock != 0) {
        throw std::invalid_argument("Wrong length of a key to wrap or unwrap");
    }
}

CF::Error integrityError() {
    const auto info = CF::Dictionary::Mutable();
    info.Set(kCFErrorLocalizedDescriptionKey, CFSTR("Key unwrap failed"));
    info.Set(kCFErrorLocalizedFailureReasonKey,
             CFSTR("Integrity check failed: the key-encryption key is wrong or the wrapped "
                   "key damaged"));
    return CF::Error::Adopt(
        CF::Made(CFErrorCreate(kCFAllocatorDefault, CFSTR("ZK.EncryptionErrorDomain"),
                               kKeyUnwrapIntegrityError, info.get())));
}

detail::CipherContext begin(const KeyEncryptionKey &key, const std::optional<WrapInitialValue> &iv,
                            bool wrapping) {
    static const EVP_CIPHER *const cipher = detail::FetchCipher("AES-256-WRAP");
    detail::CipherContext context(EVP_CIPHER_CTX_new());
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    if (EVP_CipherInit_ex2(context.get(), cipher, key.data(), iv ? iv->data() : nullptr,
                           wrapping ? 1 : 0, nullptr) != 1) {
        detail::Fail("Failed to set up the key wrap");
    }
    return context;
}

} // namespace

std::vector<std::uint8_t> RFC3394Wrap(const KeyEncryptionKey &key,
                                      const std::optional<WrapInitialValue> &iv,
                                      std::span<const std::uint8_t> plain) {
    const WipeStackOnExit wipeStack;
    requireLength(plain.size());
    const auto context = begin(key, iv, true);
    std::vector<std::uint8_t> wrapped(plain.size() + kHalfBlock);
    int count = 0;
    if (EVP_CipherUpdate(context.get(), wrapped.data(), &count, plain.data(),
                         static_cast<int>(plain.size())) != 1 ||
        static_cast<std::size_t>(count) != wrapped.size()) {
        detail::Fail("Key wrap failed");
    }
    return wrapped;
}

std::vector<std::uint8_t> RFC3394Unwrap(const KeyEncryptionKey &key,
                                        const std::optional<WrapInitialValue> &iv,
                                        std::span<const std::uint8_t> wrapped) {
    const WipeStackOnExit wipeStack;
    requireLength(wrapped.size() < kHalfBlock ? 0 : wrapped.size() - kHalfBlock);
    const auto context = begin(key, iv, false);
    std::vector<std::uint8_t> plain(wrapped.size());
    int count = 0;
    if (EVP_CipherUpdate(context.get(), plain.data(), &count, wrapped.data(),
                         static_cast<int>(wrapped.size())) != 1) {
        Wipe(plain);
        ERR_clear_error();
        throw integrityError(); // the only fault left once length and key are right
    }
    plain.resize(static_cast<std::size_t>(count));
    return plain;
}

} // namespace ZK::Encryption
