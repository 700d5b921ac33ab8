// Lookups in a manifest and the tables behind them.
#include "KVManifest.h"
#include "KVManifestEntry.h"
#include "manifest/DirectoryListing.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/String.hpp"

#include <cstdio>

namespace {

Kelvane::DomainEntries *FindDomain(KVManifestClass *manifest, CFStringRef domain) {
    return manifest->tables.Domains(manifest->entries).Find(domain);
}

KVManifestEntryClass *EntryAt(const KVManifestClass *manifest, Kelvane::EntryPosition position) {
    return position == Kelvane::kNoEntry ? nullptr : manifest->entries.At(position);
}

// False, with a line on standard output, for an entry that cannot be found by file ID.
bool HasFileID(KVManifestEntryClass *entry, const char *function) {
    if (CFStringGetLength(KVManifestEntryGetFileID(entry)) > 0) {
        return true;
    }
    const auto description = CF::String::Adopt(CFCopyDescription(entry)).GetUTF8();
    std::printf("%s: DEVELOPER BUG KVManifestEntry does not have a fileID (%s)\n", function,
                description.c_str());
    return false;
}

// Once for each state of the entries, and at every lookup while none can be found.
void ReportMissingFileIDs(KVManifestClass *manifest, Kelvane::EntryIndex &byFileID) {
    if (manifest->reportedMissingFileIDs) {
        return;
    }
    const Kelvane::EntryTable &entries = manifest->entries;
    const auto missing = byFileID.All(entries, Kelvane::EmptyString());
    for (const Kelvane::EntryPosition position : missing) {
        (void)HasFileID(entries.At(position), "KVManifestGetEntryForFileID");
    }
    manifest->reportedMissingFileIDs = missing.size() < entries.Count();
}

CF::Array BuildFileIDs(KVManifestClass *manifest) {
    const auto fileIDs = CF::Array::Mutable();
    manifest->entries.ForEach([&](KVManifestEntryClass *entry) {
        if (!KVManifestEntryIsDirectory(entry) && !KVManifestEntryIsSymlink(entry) &&
            HasFileID(entry, "KVManifestGetFileIDs")) {
            fileIDs.Append(KVManifestEntryGetFileID(entry));
        }
    });
    return fileIDs;
}

} // namespace

KVManifestEntryClass *KVManifestGetEntryForFileID(KVManifestClass *manifest, CFStringRef fileID) {
    Kelvane::EntryIndex &byFileID = manifest->tables.ByFileID(manifest->entries);
    ReportMissingFileIDs(manifest, byFileID);
    if (fileID == nullptr || CFStringGetLength(fileID) == 0) {
        return nullptr;
    }
    return EntryAt(manifest, byFileID.Last(manifest->entries, fileID));
}

CFArrayRef KVManifestGetFileIDs(KVManifestClass *manifest) {
    if (manifest->fileIDs.GetCount() == 0) {
        const auto built = BuildFileIDs(manifest);
        // An empty array that a caller may still hold stays the one that is lent out.
        if (!manifest->fileIDs || built.GetCount() > 0) {
            manifest->fileIDs = built;
        }
    }
    return manifest->fileIDs.get();
}

CFArrayRef KVManifestCopyDomainsList(KVManifestClass *manifest) {
    const CF::Array domains = manifest->tables.Domains(manifest->entries).Names();
    CFArraySortValues(
        const_cast<CFMutableArrayRef>(domains.get()), CFRangeMake(0, domains.GetCount()),
        [](const void *a, const void *b, void *) {
            return CFStringCompare(static_cast<CFStringRef>(a), static_cast<CFStringRef>(b), 0);
        },
        nullptr);
    return domains.copyRef();
}

CFArrayRef KVManifestCopyEntriesInDomain(KVManifestClass *manifest, CFStringRef domain) {
    Kelvane::DomainEntries *const entries = FindDomain(manifest, domain);
    return entries == nullptr ? nullptr : entries->Listing(manifest->entries).copyRef();
}

CFArrayRef KVManifestCopyEntriesAtPath(KVManifestClass *manifest, CFStringRef domain,
                                       CFStringRef path) {
    Kelvane::DomainEntries *const entries = FindDomain(manifest, domain);
    if (entries == nullptr) {
        return CF::Array::Mutable().detach();
    }
    const Kelvane::EntryTable &table = manifest->entries;
    if (path == nullptr || CFStringGetLength(path) == 0) {
        return entries->Listing(table).copyRef();
    }
    return table.ArrayOf(entries->Paths(table).AtOrBelow(table, path)).detach();
}

CF::Array Kelvane::CopyChildren(KVManifestClass *manifest, CFStringRef domain, CFStringRef path) {
    DomainEntries *const entries = FindDomain(manifest, domain);
    if (entries == nullptr) {
        return CF::Array::Mutable();
    }
    const EntryTable &table = manifest->entries;
    CFStringRef parent = path == nullptr ? EmptyString() : path;
    return table.ArrayOf(entries->Paths(table).Children(table, parent));
}

KVManifestEntryClass *KVManifestGetEntryMatchingPath(KVManifestClass *manifest, CFStringRef domain,
                                                     CFStringRef path) {
    Kelvane::DomainEntries *const entries = FindDomain(manifest, domain);
    if (entries == nullptr || path == nullptr) {
        return nullptr;
    }
    return EntryAt(manifest, entries->FirstAtPath(manifest->entries, path));
}
