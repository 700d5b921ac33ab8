// The keys of single files: between manifest entries and the keys of the backup.
#include "crypto/EntryKeys.hpp"

#include "KVFile.h"
#include "Kelvane/Error.hpp"
#include "MB/ManifestEncryption.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Abort.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/Secret.hpp"
#include "support/zk/WipeStack.hpp"

#include <algorithm>
#include <stdexcept>

namespace {

using FileKey = std::array<std::uint8_t, 32>;

// Stores what the caught error becomes for the caller.
void report(CFErrorRef *error, KVError code, const CF::Error &cause, CFStringRef reason) {
    if (error != nullptr) {
        Kelvane::StoreError(Kelvane::Error(code, cause, reason), error);
    }
}

void requireFile(const KVManifestEntryClass &entry) {
    if (!KVManifestEntryIsFile(&entry) || !entry.file) {
        throw Kelvane::Error(kKVErrorInvalidArgument, nullptr,
                             CFSTR("Impossible to generate a file key for an entry that doesn't "
                                   "represent a file"));
    }
}

void requireNoKey(const KVManifestEntryClass &entry) {
    // Only entries as they are made for new files get keys; a key of another class would
    // have to replace one that the content may already be encrypted with.
    if (entry.protectionClass != kEntryProtectionClassNone ||
        CFDataGetLength(entry.encryptionData.get()) != 0) {
        throw Kelvane::Error(kKVErrorInvalidArgument, nullptr,
                             CFSTR("Impossible to generate a file key for an entry that already "
                                   "has one (protection class %s)"),
                             to_string(entry.protectionClass).c_str());
    }
}

std::vector<std::uint8_t> randomBytes(std::size_t count) {
    try {
        return ZK::Encryption::RandomBytes(count);
    } catch (const std::runtime_error &cause) {
        // A host in C can be told of an error, but not of an exception.
        throw Kelvane::Error(kKVErrorCrypto, nullptr, CFSTR("%s"), cause.what());
    }
}

FileKey randomKey() {
    auto keyData = randomBytes(std::tuple_size_v<FileKey>);
    const ZK::WipeOnExit wipeData(keyData);
    FileKey key;
    if (keyData.size() != key.size()) {
        ZK::AssertionFailed("Kelvane/KVManifestEntry.cpp", __LINE__,
                            "KVManifestEntryGenerateFileKey", "keyData.size() == key.size()");
    }
    std::copy(keyData.begin(), keyData.end(), key.begin());
    return key;
}

// A reference to the entry's content that delivers it encrypted; the entry's own stays
// as it is.
CF::Pointer<KVFileClass *> encryptedCopy(const KVManifestEntryClass &entry, const FileKey &key) {
    auto copy = CF::Adopt(KVFileCreateCopy(entry.file.get()));
    if (!copy) {
        throw Kelvane::Error(kKVErrorInvalidArgument, nullptr,
                             CFSTR("File reference is still appendable"));
    }
    KVFileEnableEncryption(copy.get(), key);
    return copy;
}

void giveKey(const KVManifestEntryClass &entry, const MB::ManifestEncryption &encryption,
             const FileKey &key) {
    const auto copy = encryptedCopy(entry, key);
    CF::Data blob = encryption.LockKey(entry.protectionClass, key);
    entry.origin.MarkChanged();
    entry.encryptionData = CF::Adopt(blob.detach());
    entry.unlockedFileKey = std::make_unique<ZK::SecretArray<32>>(key);
    CF::Data hash(KVFileGetHash(copy.get()));
    entry.dataHash = CF::Adopt(hash.detach());
    entry.size = static_cast<std::int64_t>(KVFileGetSize(copy.get()));
}

} // namespace

void Kelvane::RenewFileKey(const KVManifestEntryClass &entry,
                           const MB::ManifestEncryption &encryption) {
    const ZK::WipeStackOnExit wipeStack;
    requireFile(entry);
    try {
        FileKey key = randomKey();
        const ZK::WipeOnExit wipeKey(key);
        giveKey(entry, encryption, key);
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorCrypto, cause, CFSTR("Failed to generate a file key for entry"));
    }
}

std::optional<std::array<uint8_t, 32>>
KVManifestEntryGetUnlockedFileKey(const KVManifestEntryClass *entry,
                                  const MB::ManifestEncryption &encryption, CFErrorRef *error) {
    const ZK::WipeStackOnExit wipeStack;
    if (entry->unlockedFileKey) {
        return entry->unlockedFileKey->get();
    }
    if (CFDataGetLength(entry->encryptionData.get()) == 0) {
        return std::nullopt;
    }
    try {
        FileKey key = encryption.UnlockKey(CF::Data(entry->encryptionData.get()));
        const ZK::WipeOnExit wipeKey(key);
        entry->unlockedFileKey = std::make_unique<ZK::SecretArray<32>>(key);
        return entry->unlockedFileKey->get();
    } catch (const CF::Error &cause) {
        report(error, kKVErrorUnlockFailed, cause, CFSTR("Failed to unlock file key for entry"));
        return std::nullopt;
    }
}

bool KVManifestEntryGenerateFileKey(const KVManifestEntryClass *entry,
                                    const MB::ManifestEncryption &encryption, CFErrorRef *error) {
    return Kelvane::AtBoundary(error, false, [&] {
        requireFile(*entry);
        requireNoKey(*entry);
        Kelvane::RenewFileKey(*entry, encryption);
        return true;
    });
}
