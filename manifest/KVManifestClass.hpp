// The body of a KVManifest.
#pragma once

#include "KVManifest.h"
#include "manifest/PathIndex.hpp"
#include "support/cf/Array.hpp"
#include "support/cf/Dictionary.hpp"

#include <CoreFoundation/CFRuntime.h>

#include <cstdint>
#include <unordered_map>

struct KVManifestClass {
    CFRuntimeBase base;

    CF::Array entries; // of KVManifestEntry, in read order; never null
    // Lookup tables, null until they are asked for and again when the entries change.
    // They are replaced, never emptied in place: callers hold arrays out of them.
    CF::Dictionary entriesByDomain; // domain -> mutable array of entries
    CF::Dictionary entriesByFileID; // file ID -> entry
    CF::Array fileIDs;              // of all entries that are no directory and no link
    KVManifestDataVersion dataVersion = kKVManifestDataVersionNone;
    CF::Dictionary placeholderFileIDs; // file ID -> flags of database rows without an entry
    std::int64_t totalFileSize = 0;
    std::int64_t totalFileCount = 0;
    KVGetFileFunction getFileFunc;
    // Where paths lie within the arrays of entriesByDomain; goes with that table.
    std::unordered_map<CF::String, Kelvane::PathIndex, CF::TypeHash> pathsByDomain;
};

namespace Kelvane {

// What a reader has gathered for a new manifest.
struct ManifestContents {
    CF::Array entries = CF::Array::Mutable();
    CF::Dictionary placeholders = CF::Dictionary::Mutable();
    std::int64_t totalFileSize = 0;
    std::int64_t totalFileCount = 0;

    // Appends the entry and counts it.
    void Append(KVManifestEntryClass *entry);
};

// A new manifest over the contents, which the caller does not touch again.
KVManifestClass *CreateManifest(CFAllocatorRef allocator, const ManifestContents &contents,
                                KVManifestDataVersion version);

// The entries in the order in which manifests are written: by "domain-path", compared by
// UTF-16 code units. Entries that compare equal keep their order.
CF::Array CopySortedEntries(KVManifestClass *manifest);

} // namespace Kelvane
