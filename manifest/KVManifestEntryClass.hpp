// The body of a manifest entry, and what readers of manifests need to fill one.
//
// A backup has hundreds of thousands of entries, so the body is kept small: fields are
// single pointers, times are plain numbers, what is empty is shared by all entries,
// texts that follow from others are made on first use, and all entries of a manifest
// share one loading function.
#pragma once

#include "KVManifestEntry.h"
#include "manifest/ManifestSource.hpp"
#include "support/cf/Pointer.hpp"
#include "support/zk/Secret.hpp"

#include <CoreFoundation/CFRuntime.h>

#include <cstdint>
#include <memory>

namespace Kelvane {

// The loading function that the entries of one manifest share; null means none.
using FileLoader = std::shared_ptr<const KVGetFileFunction>;
// Null when the function is empty.
FileLoader ShareFileLoader(const KVGetFileFunction &function);

// What stands for an absent string, data, dictionary or array in every entry.
// Borrowed; they live as long as the process.
CFStringRef EmptyString() noexcept;
CFDataRef EmptyData() noexcept;
CFDictionaryRef EmptyDictionary() noexcept;
CFArrayRef EmptyArray() noexcept;

} // namespace Kelvane

// Built in place inside a zero-filled CoreFoundation instance. The pointers are never
// null once the entry is handed out, but for those that say so. Mutable members are
// completed through entries that callers hold as constant.
struct KVManifestEntryClass {
    KVManifestEntryClass() noexcept;
    ~KVManifestEntryClass();
    KVManifestEntryClass(const KVManifestEntryClass &) = delete;
    KVManifestEntryClass &operator=(const KVManifestEntryClass &) = delete;

    CFRuntimeBase base;
    CF::Pointer<CFStringRef> domain;
    CF::Pointer<CFStringRef> relativePath;
    CF::Pointer<CFStringRef> givenPath;
    CF::Pointer<CFStringRef> target;
    mutable CF::Pointer<CFDataRef> dataHash;
    mutable CF::Pointer<CFDataRef> encryptionData;
    std::uint8_t fileType = 0;
    bool external = false;
    std::uint16_t mode = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    EntryProtectionClass protectionClass = kEntryProtectionClassNotSet;
    // HashText of the file ID, or 0 when it was not remembered: an index of all entries of a
    // manifest then need not read every file ID.
    std::uint32_t fileIDHash = 0;
    // The flags that the record of a database has beside those of its row.
    std::int32_t recordFlags = 0;
    CFAbsoluteTime birth = 0;
    CFAbsoluteTime lastModified = 0;
    CFAbsoluteTime lastStatusChange = 0;
    mutable std::int64_t size = 0;
    std::uint64_t inode = 0;
    // Every function that changes what a row says of the entry marks it; what is resolved or
    // derived on first use is no change.
    mutable Kelvane::EntryOrigin origin;
    // Names to data, and nothing else: hosts rely on it.
    CF::Pointer<CFDictionaryRef> properties;
    // All extended attributes of a record, to be written back as they are, where the properties
    // do not tell them: the data in which devices write them, or a dictionary that holds more
    // than names and data. Null where the properties are all there is.
    CF::Pointer<CFTypeRef> keptAttributes;
    // Null until first asked for.
    mutable CF::Pointer<CFStringRef> domainPathPair;
    mutable CF::Pointer<CFStringRef> deviceFilename;
    CF::Pointer<CFStringRef> fileID;
    CF::Pointer<CFArrayRef> auxiliaryArray;
    // Dropped once the content is resolved: an entry loads at most once.
    mutable Kelvane::FileLoader getFileFunc;
    // The resolved content; null until then.
    mutable CF::Pointer<KVFileClass *> file;
    // The unwrapped file key; null until first needed. Wiped with the entry.
    mutable std::unique_ptr<ZK::SecretArray<32>> unlockedFileKey;
};

namespace Kelvane {

using EntryPointer = CF::Pointer<KVManifestEntryClass *>;

// A new entry with one reference: everything empty or 0, no content, not external.
EntryPointer AllocateEntry(CFAllocatorRef allocator);
// Sets domain and path (given path included) and forgets the texts made from the old
// ones. Null reads as empty; mutable strings are copied.
void SetEntryPath(KVManifestEntryClass &entry, CFStringRef domain, CFStringRef relativePath);
// Sets the file ID, an immutable string, and remembers its hash.
void SetFileID(KVManifestEntryClass &entry, CF::Pointer<CFStringRef> fileID) noexcept;
// What KVManifestEntryCreateCopy does, with a loading function that many copies share. The copy
// has the same origin.
EntryPointer CopyEntry(CFAllocatorRef allocator, const KVManifestEntryClass &source,
                       FileLoader loader);

// For an entry that takes the place of another at its path: it is written as a change of the
// other's row, which keeps what the entries do not tell.
void TakeOrigin(KVManifestEntryClass &entry, const KVManifestEntryClass &replaced) noexcept;

// The class with that code in data from outside. Throws std::invalid_argument,
// "invalid protection class code", for 5 and above.
EntryProtectionClass ProtectionClassFromCode(std::uint32_t code);
// The code to write for a class. Another value than the five is a programming error
// and ends the process.
std::uint32_t CodeOfProtectionClass(EntryProtectionClass protectionClass);

// The Unix seconds that manifests are written with: the whole seconds since 2001 cut
// to 32 unsigned bits, plus the seconds from 1970 to 2001. A time before 2001 comes
// out 2^32 too large, of which Manifest.mbdb keeps the low 32 bits, the right value.
std::int64_t WrittenUnixTime(CFAbsoluteTime time) noexcept;
// The absolute time of Unix seconds read from a manifest.
CFAbsoluteTime AbsoluteTimeFromUnix(std::int64_t seconds) noexcept;

} // namespace Kelvane
