// The body of a KVManifest.
#pragma once

#include "KVManifest.h"
#include "manifest/EntryTable.hpp"
#include "manifest/LookupTables.hpp"
#include "manifest/ManifestBudget.hpp"
#include "manifest/ManifestSource.hpp"
#include "support/cf/Array.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Dictionary.hpp"

#include <CoreFoundation/CFRuntime.h>

#include <cstdint>
#include <memory>

struct KVManifestClass {
    CFRuntimeBase base;

    Kelvane::EntryTable entries; // in read order
    Kelvane::LookupTables tables;
    // File IDs of all entries that are no directory and no link; null until asked for and
    // again when the entries change. Replaced, never changed: callers hold it.
    CF::Array fileIDs;
    // Entries without a file ID were reported since the entries changed.
    bool reportedMissingFileIDs = false;
    KVManifestDataVersion dataVersion = kKVManifestDataVersionNone;
    CF::Dictionary placeholderFileIDs; // file ID -> flags of database rows without an entry
    KVGetFileFunction getFileFunc;
    // What the entries were read from; null when they were not.
    std::shared_ptr<const Kelvane::ManifestSource> source;

    // What goes with every change of the entries.
    void DropReports() noexcept {
        fileIDs = nullptr;
        reportedMissingFileIDs = false;
    }
};

namespace Kelvane {

// What a reader has gathered for a new manifest.
struct ManifestContents {
    EntryTable entries;
    CF::Dictionary placeholders = CF::Dictionary::Mutable();
    ManifestBudget budget;
    std::shared_ptr<const ManifestSource> source; // null for none

    // Appends the entry and counts it. Throws CF::Error when the manifest gets too large.
    void Append(KVManifestEntryClass *entry) {
        budget.TakeEntry(*entry);
        entries.Append(entry);
    }
};

// A new manifest of the contents.
KVManifestClass *CreateManifest(CFAllocatorRef allocator, ManifestContents contents,
                                KVManifestDataVersion version);

// The entries in the order in which manifests are written: by "domain-path", compared by
// UTF-16 code units. Entries that compare equal keep their order.
CF::Array CopySortedEntries(KVManifestClass *manifest);
// Whether the first comes before the second in that order.
bool IsWrittenBefore(const KVManifestEntryClass *a, const KVManifestEntryClass *b);

// A manifest of the bytes of a Manifest.mbdb; null, with a line on standard output, when they
// are none. Throws CF::Error when it is too large.
KVManifestClass *ReadBinaryManifest(CFAllocatorRef allocator, const CF::Data &data,
                                    KVManifestDataVersion version,
                                    const KVGetFileFunction &getFileFunc,
                                    const KVProgressFunction &progress);

} // namespace Kelvane
