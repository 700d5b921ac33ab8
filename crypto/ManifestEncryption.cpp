#include "MB/ManifestEncryption.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/Log.hpp"
#include "support/zk/Secret.hpp"

#include <algorithm>
#include <stdexcept>

namespace MB {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kClassSize = 4;
constexpr std::size_t kBlobSize = kClassSize + sizeof(KeyBag::WrappedKey);

CF::Data requiredData(const CF::Dictionary &manifestPlist, CFStringRef key) {
    const auto data = manifestPlist.Get<CF::Data>(key);
    if (!data) {
        throw Kelvane::Error(kKVErrorInvalidMetadata, nullptr, CFSTR("%@ is missing"), key);
    }
    return data;
}

// Key blobs count their bytes from the least significant one, unlike the keybag.
std::uint32_t readLittleEndian32(std::span<const std::uint8_t> bytes) noexcept {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
}

void appendLittleEndian32(std::uint32_t value, Bytes &bytes) {
    for (unsigned int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

ManifestEncryption::Key unwrap(const ManifestEncryption::Key &classKey,
                               std::span<const std::uint8_t> wrapped) {
    try {
        Bytes plain = ZK::Encryption::RFC3394Unwrap(classKey, std::nullopt, wrapped);
        const ZK::WipeOnExit wipePlain(plain);
        ManifestEncryption::Key key;
        if (plain.size() != key.size()) {
            throw std::length_error("Unwrapped key is wrong length");
        }
        std::copy(plain.begin(), plain.end(), key.begin());
        return key;
    } catch (const std::exception &cause) {
        throw Kelvane::Error(kKVErrorCrypto, nullptr, CFSTR("RFC3394Unwrap failed: %s"),
                             cause.what());
    }
}

Bytes wrap(const ManifestEncryption::Key &classKey, const ManifestEncryption::Key &key) {
    try {
        return ZK::Encryption::RFC3394Wrap(classKey, std::nullopt, key);
    } catch (const std::exception &cause) {
        throw Kelvane::Error(kKVErrorCrypto, nullptr, CFSTR("RFC3394Wrap failed: %s"),
                             cause.what());
    }
}

// One step done by the object.
void logStep(CFStringRef format, const ManifestEncryption *object) {
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelDetail, format,
                static_cast<const void *>(object));
}

void logClass(CFStringRef format, const ManifestEncryption *object, unsigned int protectionClass) {
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelDetail, format,
                static_cast<const void *>(object), protectionClass);
}

} // namespace

ManifestEncryption::ManifestEncryption(const CF::Dictionary &manifestPlist,
                                       const std::string &password, DeviceBoundKeys deviceBoundKeys)
    : ManifestEncryption(manifestPlist, password, deviceBoundKeys, {}) {}

ManifestEncryption::ManifestEncryption(const CF::Dictionary &manifestPlist,
                                       const std::string &password, DeviceBoundKeys deviceBoundKeys,
                                       const DerivationProgress &progress)
    : ManifestEncryption(manifestPlist, password,
                         KeyBagOptions{deviceBoundKeys, OldKeyBags::Refuse, progress},
                         ManifestKeys::Required) {}

// Delegates first, so that the destructor runs, and wipes, when a step below throws.
ManifestEncryption::ManifestEncryption(const CF::Dictionary &manifestPlist,
                                       const std::string &password, const KeyBagOptions &options,
                                       ManifestKeys manifestKeys)
    : ManifestEncryption() {
    const CF::Data keyBag = requiredData(manifestPlist, CFSTR("BackupKeyBag"));
    const CF::Data manifestKey = manifestKeys == ManifestKeys::Required
                                     ? requiredData(manifestPlist, CFSTR("ManifestKey"))
                                     : CF::Data();
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelDetail,
                CFSTR("(MB::ManifestEncryption %p) BackupKeyBag: %ld bytes, ManifestKey: %ld "
                      "bytes"),
                static_cast<const void *>(this), static_cast<long>(keyBag.GetLength()),
                static_cast<long>(manifestKey.GetLength()));
    keyBag_.emplace(keyBag, password, options);
    logStep(CFSTR("(MB::ManifestEncryption %p) KeyBag opened"), this);
    if (manifestKeys == ManifestKeys::Required) {
        unlockManifestKey(manifestKey);
    }
}

void ManifestEncryption::unlockManifestKey(const CF::Data &blob) {
    try {
        Key key = UnlockKey(blob);
        const ZK::WipeOnExit wipeKey(key);
        manifestKey_ = key;
    } catch (const CF::Error &cause) {
        throw Kelvane::Error(kKVErrorUnlockFailed, cause, CFSTR("Failed to unlock manifest key"));
    }
    logStep(CFSTR("(MB::ManifestEncryption %p) Manifest unlocked"), this);
}

ManifestEncryption::~ManifestEncryption() { ZK::Wipe(manifestKey_); }

const ManifestEncryption::Key &ManifestEncryption::classKey(std::uint32_t protectionClass) const {
    const auto *found = keyBag_->FindClassKey(protectionClass);
    if (found == nullptr) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Missing key class %u"),
                             protectionClass);
    }
    return found->key;
}

ManifestEncryption::Key ManifestEncryption::UnlockKey(const CF::Data &blob) const {
    const auto bytes = blob.GetBytes();
    if (bytes.size() != kBlobSize) {
        throw Kelvane::Error(kKVErrorInvalidMetadata, nullptr, CFSTR("Key blob is wrong size"));
    }
    const std::uint32_t protectionClass = readLittleEndian32(bytes);
    logClass(CFSTR("(MB::ManifestEncryption %p) Unwrapping with clas %u"), this, protectionClass);
    const Key key = unwrap(classKey(protectionClass), bytes.subspan(kClassSize));
    logStep(CFSTR("(MB::ManifestEncryption %p) Key unlocked"), this);
    return key;
}

CF::Data ManifestEncryption::LockKey(unsigned int protectionClass, const Key &key) const {
    logClass(CFSTR("(MB::ManifestEncryption %p) Wrapping with clas %u"), this, protectionClass);
    const Bytes wrapped = wrap(classKey(protectionClass), key);
    logStep(CFSTR("(MB::ManifestEncryption %p) Key locked"), this);
    Bytes blob;
    blob.reserve(kBlobSize);
    appendLittleEndian32(protectionClass, blob);
    blob.insert(blob.end(), wrapped.begin(), wrapped.end());
    if (blob.size() != kBlobSize) {
        throw Kelvane::Error(kKVErrorInvalidArgument, nullptr, CFSTR("Blob is wrong size"));
    }
    return CF::Data(blob);
}

} // namespace MB
