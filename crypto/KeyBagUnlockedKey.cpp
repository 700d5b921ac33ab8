// Taking the wraps off a class key.
#include "MB/KeyBag.hpp"

#include "Kelvane/Error.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/Secret.hpp"

#include <algorithm>
#include <stdexcept>

namespace MB {
namespace {

using Bytes = std::vector<std::uint8_t>;
using ZK::Encryption::Algorithm;
using ZK::Encryption::Cryptor;
using ZK::Encryption::Operation;

constexpr std::size_t kCipherBlock = 16;

Bytes withoutPasswordWrap(const KeyBag::WrappedKey &wrapped, const KeyBag::Key &kek) {
    try {
        return ZK::Encryption::RFC3394Unwrap(kek, std::nullopt, wrapped);
    } catch (const CF::Error &cause) {
        // The only thing that the integrity check can tell: the key does not fit.
        throw Kelvane::Error(kKVErrorIncorrectPassword, cause, CFSTR("%s"),
                             cause.GetDescription().GetUTF8().c_str());
    } catch (const std::exception &cause) {
        throw Kelvane::Error(kKVErrorCrypto, nullptr, CFSTR("RFC3394Unwrap failed: %s"),
                             cause.what());
    }
}

// The block that would follow the bytes if they had been encrypted with padding, as the
// cryptor wants it; keys are encrypted without.
Bytes paddingBlockAfter(const Bytes &encrypted, const KeyBag::DeviceKey &key) {
    const auto last = std::span(encrypted).last(kCipherBlock);
    return Cryptor::Crypt(Operation::Encrypt, Algorithm::AES128, key, last, {});
}

Bytes withoutDeviceWrap(Bytes encrypted, const KeyBag::DeviceKey &key) {
    try {
        if (!encrypted.empty() && encrypted.size() % kCipherBlock == 0) {
            const Bytes padding = paddingBlockAfter(encrypted, key);
            encrypted.insert(encrypted.end(), padding.begin(), padding.end());
        }
        return Cryptor::Decrypt(Algorithm::AES128, key, {}, encrypted);
    } catch (const std::exception &cause) {
        throw Kelvane::Error(kKVErrorCrypto, nullptr, CFSTR("Decrypt failed: %s"), cause.what());
    }
}

Bytes withoutWraps(const KeyBag::LockedKey &locked, const KeyBag::Key &kek,
                   const std::optional<KeyBag::DeviceKey> &deviceKey) {
    Bytes key(locked.wrappedKey.begin(), locked.wrappedKey.end());
    if ((locked.wrap & KeyBag::kWrappedUnderPassword) != 0) {
        key = withoutPasswordWrap(locked.wrappedKey, kek);
    }
    if ((locked.wrap & KeyBag::kWrappedUnderDeviceKey) != 0) {
        const ZK::WipeOnExit wipeBetween(key);
        if (!deviceKey) {
            throw std::invalid_argument("Cannot decode without deviceKey");
        }
        return withoutDeviceWrap(key, *deviceKey);
    }
    return key;
}

} // namespace

KeyBag::UnlockedKey::UnlockedKey(const LockedKey &locked, const Key &kek,
                                 const std::optional<DeviceKey> &deviceKey)
    : uuid(locked.uuid), keyType(locked.keyType) {
    Bytes plain = withoutWraps(locked, kek, deviceKey);
    const ZK::WipeOnExit wipePlain(plain);
    if (plain.size() != key.size()) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Unwrapped bad key length"));
    }
    std::copy(plain.begin(), plain.end(), key.begin());
}

KeyBag::UnlockedKey::~UnlockedKey() { ZK::Wipe(key); }

} // namespace MB
