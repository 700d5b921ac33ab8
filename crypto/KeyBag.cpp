#include "MB/KeyBag.hpp"

#include "Kelvane/Error.hpp"
#include "MB/ManifestEncryption.hpp"
#include "crypto/KeyBagRecords.hpp"
#include "support/zk/Secret.hpp"

#include <algorithm>

namespace MB {
namespace {

constexpr std::size_t kHeaderRecords = 2; // VERS and TYPE

CF::Error invalid(CFStringRef reason) {
    return Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, reason);
}

// One of the two numbers that stand before the blocks.
std::uint32_t headerNumber(const KeyBag::Record &record, const char *tag) {
    if (record.first != tag) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Missing %s field"), tag);
    }
    if (record.second.size() != sizeof(std::uint32_t)) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Invalid %s field"), tag);
    }
    return Kelvane::keybag::ReadBigEndian32(record.second);
}

// Opens one class key; failures name the class.
KeyBag::UnlockedKey unlock(const KeyBag::LockedKey &locked, const KeyBag::Key &kek) {
    try {
        return KeyBag::UnlockedKey(locked, kek, std::nullopt);
    } catch (const CF::Error &cause) {
        throw Kelvane::Error(kKVErrorUnlockFailed, cause,
                             CFSTR("Failed to unlock a key (class %u)"), locked.protectionClass);
    } catch (const std::exception &cause) {
        throw Kelvane::Error(kKVErrorUnlockFailed, nullptr,
                             CFSTR("Failed to unlock a key (class %u): %s"), locked.protectionClass,
                             cause.what());
    }
}

bool isDeviceBound(const KeyBag::LockedKey &key) noexcept {
    return (key.wrap & KeyBag::kWrappedUnderDeviceKey) != 0;
}
bool isUnderPassword(const KeyBag::LockedKey &key) noexcept {
    return (key.wrap & KeyBag::kWrappedUnderPassword) != 0;
}

// For when no class key was opened, so that a wrong password went unnoticed. The device's
// wrap lies beneath the password's, whose integrity check works without the device's key.
void verifyPassword(const std::vector<KeyBag::LockedKey> &lockedKeys, const KeyBag::Key &kek) {
    const auto bound = std::find_if(lockedKeys.begin(), lockedKeys.end(), isUnderPassword);
    if (bound != lockedKeys.end()) {
        KeyBag::LockedKey outer = *bound;
        outer.wrap = KeyBag::kWrappedUnderPassword;
        unlock(outer, kek);
    }
}

} // namespace

KeyBag::KeyBag(const CF::Data &blob, const std::string &password, DeviceBoundKeys deviceBoundKeys)
    : KeyBag(blob, password, deviceBoundKeys, {}) {}

KeyBag::KeyBag(const CF::Data &blob, const std::string &password, DeviceBoundKeys deviceBoundKeys,
               const DerivationProgress &progress)
    : KeyBag(blob, password, KeyBagOptions{deviceBoundKeys, OldKeyBags::Refuse, progress}) {}

// Delegates first, so that the destructor runs, and wipes, when a step below throws.
KeyBag::KeyBag(const CF::Data &blob, const std::string &password, const KeyBagOptions &options)
    : KeyBag() {
    options_ = options;
    password_.assign(password.begin(), password.end());
    records_ = Kelvane::keybag::SplitRecords(blob.GetBytes());
    parseFromRaw();
}

KeyBag::~KeyBag() { ZK::Wipe(password_); }

const KeyBag::UnlockedKey *KeyBag::FindClassKey(std::uint32_t protectionClass) const noexcept {
    const auto found = classKeys_.find(protectionClass);
    return found == classKeys_.end() ? nullptr : &found->second;
}

void KeyBag::parseFromRaw() {
    if (type_ != kTypeNotParsed) {
        throw Kelvane::Error(kKVErrorInvalidArgument, nullptr, CFSTR("%s: Already called"),
                             "parseFromRaw");
    }
    readHeader();
    const auto lockedKeys = readBlocks();
    Key kek = ManifestEncryption::GenerateKEKFromPassword(password_, info_, options_.progress);
    options_.progress = nullptr;
    const ZK::WipeOnExit wipeKEK(kek);
    unlockClassKeys(lockedKeys, kek);
    ZK::Wipe(password_);
    password_.clear();
}

void KeyBag::readHeader() {
    if (records_.size() < kHeaderRecords) {
        throw invalid(CFSTR("Incomplete header"));
    }
    version_ = headerNumber(records_[0], "VERS");
    if (version_ != 3 && version_ != 5) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Unknown version '%u'"),
                             version_);
    }
    const std::uint32_t type = headerNumber(records_[1], "TYPE");
    if (type >= 4) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Unknown type '%u'"), type);
    }
    type_ = type;
}

std::vector<KeyBag::LockedKey> KeyBag::readBlocks() {
    const auto first = records_.cbegin() + kHeaderRecords;
    if (first == records_.cend()) {
        throw invalid(CFSTR("Expected one ManifestKey block"));
    }
    std::vector<Block> blocks;
    parseNextBlock(getUUID(first), first + 1, records_.cend(), blocks);
    info_ = ManifestInfo(blocks.front(), options_.old);
    return {blocks.begin() + 1, blocks.end()};
}

void KeyBag::unlockClassKeys(const std::vector<LockedKey> &lockedKeys, const Key &kek) {
    bool passwordTried = false;
    for (const LockedKey &locked : lockedKeys) {
        if (options_.deviceBound == DeviceBoundKeys::KeepLocked && isDeviceBound(locked)) {
            continue;
        }
        classKeys_.emplace(locked.protectionClass, unlock(locked, kek));
        passwordTried = passwordTried || isUnderPassword(locked);
    }
    if (!passwordTried) {
        verifyPassword(lockedKeys, kek);
    }
}

} // namespace MB
