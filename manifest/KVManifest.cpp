#include "KVManifest.h"

#include "KVManifestEntry.h"
#include "foundation/RuntimeClass.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/String.hpp"

#include <utility>

namespace {

constexpr const char *kClassName = "KVManifest";

CFStringRef CopyFormattingDescription(CFTypeRef manifest, CFDictionaryRef) {
    return CF::String::Format(CFSTR("<%s %p>"), kClassName, manifest).detach();
}

CFStringRef CopyDebugDescription(CFTypeRef manifest) {
    return CopyFormattingDescription(manifest, nullptr);
}

const CFRuntimeClass kRuntimeClass = Kelvane::RuntimeBody<KVManifestClass>::Record(
    kClassName, {nullptr, CopyFormattingDescription, CopyDebugDescription});

// Whether the first comes before the second by "domain-path". Making these texts for all entries
// would take more time and memory than the entries themselves, and the domains alone mostly decide.
CFComparisonResult CompareDomainsAndPaths(const KVManifestEntryClass *a,
                                          const KVManifestEntryClass *b) {
    CFStringRef domainA = KVManifestEntryGetDomain(a);
    CFStringRef domainB = KVManifestEntryGetDomain(b);
    if (domainA == domainB || CFEqual(domainA, domainB)) {
        return CFStringCompare(KVManifestEntryGetPath(a), KVManifestEntryGetPath(b), 0);
    }
    if (CFStringHasPrefix(domainA, domainB) || CFStringHasPrefix(domainB, domainA)) {
        return CFStringCompare(KVManifestEntryGetDomainPathPair(a),
                               KVManifestEntryGetDomainPathPair(b), 0);
    }
    return CFStringCompare(domainA, domainB, 0);
}

} // namespace

namespace Kelvane {

bool IsWrittenBefore(const KVManifestEntryClass *a, const KVManifestEntryClass *b) {
    return CompareDomainsAndPaths(a, b) == kCFCompareLessThan;
}

KVManifestClass *CreateManifest(CFAllocatorRef allocator, ManifestContents contents,
                                KVManifestDataVersion version) {
    auto *const manifest = RuntimeBody<KVManifestClass>::Create(allocator, KVManifestGetTypeID());
    manifest->entries = std::move(contents.entries);
    manifest->placeholderFileIDs = contents.placeholders;
    manifest->source = std::move(contents.source);
    manifest->dataVersion = version;
    return manifest;
}

CF::Array CopySortedEntries(KVManifestClass *manifest) {
    std::vector<EntryPosition> sorted = manifest->entries.Positions();
    // Stable, so that of entries with one file ID the row of the last stays.
    std::stable_sort(sorted.begin(), sorted.end(), [&](EntryPosition a, EntryPosition b) {
        return IsWrittenBefore(manifest->entries.At(a), manifest->entries.At(b));
    });
    return manifest->entries.ArrayOf(sorted);
}

} // namespace Kelvane

CFTypeID KVManifestGetTypeID(void) {
    static const CFTypeID typeID =
        Kelvane::RegisterRuntimeClass(&kRuntimeClass, "Kelvane/KVManifest.cpp", 104);
    return typeID;
}

KVManifestClass *KVManifestCreateEmpty(CFAllocatorRef allocator) {
    return Kelvane::CreateManifest(allocator, {}, kKVManifestDataVersionNone);
}

KVManifestClass *KVManifestCreateCopy(CFAllocatorRef allocator, KVManifestClass *manifest,
                                      const KVGetFileFunction &getFileFunc) {
    const Kelvane::EntryTable &entries = manifest->entries;
    Kelvane::ManifestContents contents;
    contents.entries.Reserve(entries.Count());
    const Kelvane::FileLoader loader = Kelvane::ShareFileLoader(getFileFunc);
    for (const Kelvane::EntryPosition position : entries.Positions()) {
        const auto entry = Kelvane::CopyEntry(allocator, *entries.At(position), loader);
        contents.entries.Append(entry.get(), entries.WeightAt(position));
    }
    contents.placeholders = CF::Dictionary::MutableCopy(manifest->placeholderFileIDs.get());
    contents.source = manifest->source;
    // The copy belongs to no format until it is written in one.
    auto *const copy =
        Kelvane::CreateManifest(allocator, std::move(contents), kKVManifestDataVersionNone);
    copy->getFileFunc = getFileFunc;
    return copy;
}

CFArrayRef KVManifestGetEntries(KVManifestClass *manifest) {
    return manifest->entries.Listing().get();
}

void KVManifestUpdateEntries(KVManifestClass *manifest, CFArrayRef entries) {
    Kelvane::EntryTable updated;
    if (entries != nullptr) {
        // Costs nothing for an immutable array, which is shared instead of copied.
        updated = Kelvane::EntryTable(
            CF::Array::Adopt(CF::Made(CFArrayCreateCopy(kCFAllocatorDefault, entries))));
    }
    manifest->entries = std::move(updated);
    manifest->tables.Clear();
    manifest->DropReports();
}

std::int64_t KVManifestGetTotalFileSize(KVManifestClass *manifest) {
    return manifest->entries.TotalSize();
}

std::int64_t KVManifestGetTotalFileCount(KVManifestClass *manifest) {
    return manifest->entries.TotalFiles();
}
