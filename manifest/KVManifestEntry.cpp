// Accessors of entries, and the content that they resolve on first use.

#include "KVManifestEntry.h"

#include "KVFile.h"
#include "Kelvane/Error.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/CF.hpp"

namespace {

// The type bits that tell entries apart; one fewer than in st_mode's own mask.
constexpr unsigned kTypeMask = 0xE000;
constexpr unsigned kTypeFile = 0x8000;
constexpr unsigned kTypeDirectory = 0x4000;
constexpr unsigned kTypeSymlink = 0xA000;

bool hasType(const KVManifestEntryClass *entry, unsigned type) {
    return (entry->mode & kTypeMask) == type;
}

CF::Pointer<CFStringRef> lastComponent(const CF::Pointer<CFStringRef> &path) {
    const CFIndex length = CFStringGetLength(path.get());
    const CFRange slash = CFStringFind(path.get(), CFSTR("/"), kCFCompareBackwards);
    if (slash.location == kCFNotFound) {
        return path;
    }
    const CFIndex start = slash.location + 1;
    return CF::Adopt(CF::Made(CFStringCreateWithSubstring(kCFAllocatorDefault, path.get(),
                                                          CFRangeMake(start, length - start))));
}

template <class T>
void storeIfWanted(T *destination, T value) {
    if (destination != nullptr) {
        *destination = value;
    }
}

void storeDateIfWanted(CFDateRef *destination, CFAbsoluteTime time) {
    if (destination != nullptr) {
        *destination = CF::Made(CFDateCreate(kCFAllocatorDefault, time));
    }
}

// Null when the loader fails; it has then stored the error.
KVFileClass *loadFile(const KVManifestEntryClass *entry, CFErrorRef *error) {
    if (entry->getFileFunc == nullptr) {
        throw Kelvane::Error(kKVErrorInvalidArgument, nullptr,
                             CF::String(CFSTR("Tried to get a File ref for entry, but "
                                              "getFileFunc is not set!")));
    }
    // Held here, for the loader may come back to this entry.
    const Kelvane::FileLoader loader = entry->getFileFunc;
    entry->file = CF::Adopt((*loader)(entry->fileID.get(), error));
    if (!entry->file) {
        return nullptr;
    }
    entry->getFileFunc = nullptr;
    _KVFileSetModifiedDate(entry->file.get(), CF::Date::FromAbsoluteTime(entry->lastModified));
    return entry->file.get();
}

} // namespace

CFStringRef KVManifestEntryGetDomain(const KVManifestEntryClass *entry) {
    return entry->domain.get();
}

CFStringRef KVManifestEntryGetPath(const KVManifestEntryClass *entry) {
    return entry->relativePath.get();
}

CFStringRef KVManifestEntryGetTarget(const KVManifestEntryClass *entry) {
    return entry->target.get();
}

CFStringRef KVManifestEntryGetDeviceFilename(const KVManifestEntryClass *entry) {
    if (!entry->deviceFilename) {
        entry->deviceFilename = lastComponent(entry->relativePath);
    }
    return entry->deviceFilename.get();
}

CFStringRef KVManifestEntryGetDomainPathPair(const KVManifestEntryClass *entry) {
    if (!entry->domainPathPair) {
        entry->domainPathPair = CF::Adopt(
            CF::Made(CFStringCreateWithFormat(kCFAllocatorDefault, nullptr, CFSTR("%@-%@"),
                                              entry->domain.get(), entry->relativePath.get())));
    }
    return entry->domainPathPair.get();
}

CFStringRef KVManifestEntryGetFileID(const KVManifestEntryClass *entry) {
    return entry->fileID.get();
}

CFDataRef KVManifestEntryGetDataHash(const KVManifestEntryClass *entry) {
    return entry->dataHash.get();
}

CFDataRef KVManifestEntryGetEncryptionData(const KVManifestEntryClass *entry) {
    return entry->encryptionData.get();
}

int64_t KVManifestEntryGetFileSize(const KVManifestEntryClass *entry) { return entry->size; }

uint16_t KVManifestEntryGetFileMode(const KVManifestEntryClass *entry) { return entry->mode; }

uint8_t KVManifestEntryGetFileType(const KVManifestEntryClass *entry) { return entry->fileType; }

EntryProtectionClass KVManifestEntryGetProtectionClass(const KVManifestEntryClass *entry) {
    return entry->protectionClass;
}

CFDictionaryRef KVManifestEntryGetProperties(const KVManifestEntryClass *entry) {
    return entry->properties.get();
}

bool KVManifestEntryIsExternal(const KVManifestEntryClass *entry) { return entry->external; }

bool KVManifestEntryIsFile(const KVManifestEntryClass *entry) { return hasType(entry, kTypeFile); }

bool KVManifestEntryIsDirectory(const KVManifestEntryClass *entry) {
    return hasType(entry, kTypeDirectory);
}

bool KVManifestEntryIsSymlink(const KVManifestEntryClass *entry) {
    return hasType(entry, kTypeSymlink);
}

void KVManifestEntryCopyFilesystemAttributes(const KVManifestEntryClass *entry, uint16_t *mode,
                                             uint32_t *uid, uint32_t *gid, CFDateRef *birth,
                                             CFDateRef *lastModified, CFDateRef *lastStatusChange) {
    storeIfWanted(mode, entry->mode);
    storeIfWanted(uid, entry->uid);
    storeIfWanted(gid, entry->gid);
    storeDateIfWanted(birth, entry->birth);
    storeDateIfWanted(lastModified, entry->lastModified);
    storeDateIfWanted(lastStatusChange, entry->lastStatusChange);
}

void _KVManifestEntryCloneAttributes(KVManifestEntryClass *destination,
                                     const KVManifestEntryClass *source) {
    destination->mode = source->mode;
    destination->uid = source->uid;
    destination->gid = source->gid;
    destination->birth = source->birth;
    destination->lastModified = source->lastModified;
    destination->lastStatusChange = source->lastStatusChange;
    destination->fileType = source->fileType;
    destination->inode = source->inode;
    destination->protectionClass = source->protectionClass;
    destination->origin.MarkChanged();
}

KVFileClass *KVManifestEntryGetFile(const KVManifestEntryClass *entry, CFErrorRef *error) {
    if (entry->file || !KVManifestEntryIsFile(entry)) {
        return entry->file.get();
    }
    return Kelvane::AtBoundary(error, static_cast<KVFileClass *>(nullptr),
                               [&] { return loadFile(entry, error); });
}
