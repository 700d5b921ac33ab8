// Entries that this library makes: for added files, directories and links, and copies.

#include "KVFile.h"
#include "Kelvane/Error.hpp"
#include "filestore/KVFileClass.hpp"
#include "filestore/RootedFile.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/CF.hpp"
#include "support/zk/Math.hpp"

namespace {

// The owner that devices give to a user's files.
constexpr std::uint32_t kMobileUser = 501;

struct NewEntry {
    std::uint16_t mode;
    std::uint8_t fileType;
    EntryProtectionClass protectionClass;
};
constexpr NewEntry kNewFile{0100644, 1, kEntryProtectionClassNone};
constexpr NewEntry kNewDirectory{0040755, 2, kEntryProtectionClassNotSet};
constexpr NewEntry kNewSymlink{0120755, 4, kEntryProtectionClassNotSet};

Kelvane::EntryPointer makeEntry(CFAllocatorRef allocator, const NewEntry &kind, CFStringRef domain,
                                CFStringRef relativePath) {
    auto entry = Kelvane::AllocateEntry(allocator);
    KVManifestEntryClass &body = *entry.get();
    Kelvane::SetEntryPath(body, domain, relativePath);
    Kelvane::SetFileID(body, CF::Adopt(KVManifestEntryCopyFileIDForPath(domain, relativePath)));
    body.external = true;
    body.mode = kind.mode;
    body.fileType = kind.fileType;
    body.protectionClass = kind.protectionClass;
    body.uid = body.gid = kMobileUser;
    body.birth = body.lastModified = body.lastStatusChange = CFAbsoluteTimeGetCurrent();
    return entry;
}

// A reference to the content where the given file has it, under a registration of its own.
// Of a file that decrypts or encrypts while it is read, a copy of what it delivers: on disk
// lie other bytes than those of its hash.
CF::Pointer<KVFileClass *> cachedReference(const KVFileClass *file) {
    if (KVFileIsAppendable(file)) {
        throw Kelvane::Error(kKVErrorInvalidArgument, nullptr,
                             CFSTR("File reference is still appendable"));
    }
    if (file->cryptMode != Kelvane::CryptMode::None) {
        return Kelvane::CopyAsDelivered(*file);
    }
    return Kelvane::ReferenceAgain(*file);
}

void adoptContent(KVManifestEntryClass &entry, const KVFileClass *file) {
    try {
        entry.file = cachedReference(file);
    } catch (const CF::Error &cause) {
        throw Kelvane::Error(
            kKVErrorCachedFileAccess, cause,
            CF::String(CFSTR("No valid cache reference available for created file (%s)")),
            ZK::Math::hex_encode(KVFileGetHash(file)).c_str());
    }
    entry.size = static_cast<std::int64_t>(KVFileGetSize(entry.file.get()));
    entry.dataHash = CF::Data(KVFileGetHash(entry.file.get())).get();
}

} // namespace

KVManifestEntryClass *KVManifestEntryCreateForFile(CFAllocatorRef allocator, KVFileClass *file,
                                                   CFStringRef domain, CFStringRef relativePath,
                                                   CFDataRef encryptionData, CFErrorRef *error) {
    return Kelvane::AtBoundary(error, static_cast<KVManifestEntryClass *>(nullptr), [&] {
        auto entry = makeEntry(allocator, kNewFile, domain, relativePath);
        if (encryptionData != nullptr) {
            entry.get()->encryptionData =
                CF::Adopt(CF::Made(CFDataCreateCopy(kCFAllocatorDefault, encryptionData)));
        }
        adoptContent(*entry.get(), file);
        return entry.detach();
    });
}

KVManifestEntryClass *KVManifestEntryCreateForDirectory(CFAllocatorRef allocator,
                                                        CFStringRef domain,
                                                        CFStringRef relativePath) {
    return makeEntry(allocator, kNewDirectory, domain, relativePath).detach();
}

KVManifestEntryClass *KVManifestEntryCreateForSymlink(CFAllocatorRef allocator, CFStringRef domain,
                                                      CFStringRef relativePath,
                                                      CFStringRef target) {
    auto entry = makeEntry(allocator, kNewSymlink, domain, relativePath);
    if (target != nullptr) {
        entry.get()->target = CF::Adopt(CF::Made(CFStringCreateCopy(kCFAllocatorDefault, target)));
    }
    return entry.detach();
}

KVManifestEntryClass *KVManifestEntryCreateCopy(CFAllocatorRef allocator,
                                                const KVManifestEntryClass *entry,
                                                const KVGetFileFunction &getFileFunc) {
    return Kelvane::CopyEntry(allocator, *entry, Kelvane::ShareFileLoader(getFileFunc)).detach();
}

namespace Kelvane {

EntryPointer CopyEntry(CFAllocatorRef allocator, const KVManifestEntryClass &source,
                       FileLoader loader) {
    auto copy = AllocateEntry(allocator);
    KVManifestEntryClass &body = *copy.get();
    _KVManifestEntryCloneAttributes(&body, &source);
    body.origin = source.origin;
    body.recordFlags = source.recordFlags;
    body.domain = source.domain;
    body.relativePath = source.relativePath;
    body.givenPath = source.givenPath;
    body.target = source.target;
    body.dataHash = source.dataHash;
    body.encryptionData = source.encryptionData;
    body.size = source.size;
    body.properties = source.properties;
    body.keptAttributes = source.keptAttributes;
    body.domainPathPair = source.domainPathPair;
    body.deviceFilename = source.deviceFilename;
    body.fileID = source.fileID;
    body.fileIDHash = source.fileIDHash;
    body.auxiliaryArray = source.auxiliaryArray;
    body.file = source.file;
    body.external = source.external;
    body.getFileFunc = std::move(loader);
    if (source.unlockedFileKey != nullptr) {
        body.unlockedFileKey = std::make_unique<ZK::SecretArray<32>>(*source.unlockedFileKey);
    }
    return copy;
}

} // namespace Kelvane
