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

// Compares "domain-path" of both. Making these texts for all entries would take more
// time and memory than the entries themselves, and the domains alone mostly decide.
CFComparisonResult CompareDomainsAndPaths(const void *first, const void *second, void *) {
    const auto *const a = static_cast<const KVManifestEntryClass *>(first);
    const auto *const b = static_cast<const KVManifestEntryClass *>(second);
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

KVManifestClass *CreateManifest(CFAllocatorRef allocator, ManifestContents contents,
                                KVManifestDataVersion version) {
    auto *const manifest = RuntimeBody<KVManifestClass>::Create(allocator, KVManifestGetTypeID());
    manifest->entries = std::move(contents.entries);
    manifest->placeholderFileIDs = contents.placeholders;
    manifest->dataVersion = version;
    return manifest;
}

CF::Array CopySortedEntries(KVManifestClass *manifest) {
    const auto sorted = CF::Array::MutableCopy(manifest->entries.Listing());
    CFArraySortValues(const_cast<CFMutableArrayRef>(sorted.get()),
                      CFRangeMake(0, sorted.GetCount()), CompareDomainsAndPaths, nullptr);
    return sorted;
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
    for (const Kelvane::EntryPosition position : entries.Positions()) {
        const auto entry =
            CF::Adopt(KVManifestEntryCreateCopy(allocator, entries.At(position), getFileFunc));
        contents.entries.Append(entry.get(), entries.WeightAt(position));
    }
    contents.placeholders = CF::Dictionary::MutableCopy(manifest->placeholderFileIDs.get());
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
        updated =
            Kelvane::EntryTable(CF::Array::Adopt(CFArrayCreateCopy(kCFAllocatorDefault, entries)));
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
