#include "KVManifest.h"

#include "KVManifestEntry.h"
#include "foundation/RuntimeClass.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/String.hpp"

#include <algorithm>
#include <vector>

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

// Sizes come from outside and may be anything: the sum wraps instead of overflowing.
std::int64_t AddSizes(std::int64_t sum, std::int64_t size) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(sum) +
                                     static_cast<std::uint64_t>(size));
}

KVManifestEntryClass *EntryAt(CFArrayRef entries, CFIndex index) {
    return static_cast<KVManifestEntryClass *>(
        const_cast<void *>(CFArrayGetValueAtIndex(entries, index)));
}

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

void ManifestContents::Append(KVManifestEntryClass *entry) {
    entries.Append(entry);
    totalFileSize = AddSizes(totalFileSize, KVManifestEntryGetFileSize(entry));
    totalFileCount += KVManifestEntryIsFile(entry) ? 1 : 0;
}

KVManifestClass *CreateManifest(CFAllocatorRef allocator, const ManifestContents &contents,
                                KVManifestDataVersion version) {
    auto *const manifest = RuntimeBody<KVManifestClass>::Create(allocator, KVManifestGetTypeID());
    manifest->entries = contents.entries;
    manifest->placeholderFileIDs = contents.placeholders;
    manifest->totalFileSize = contents.totalFileSize;
    manifest->totalFileCount = contents.totalFileCount;
    manifest->dataVersion = version;
    return manifest;
}

CF::Array CopySortedEntries(KVManifestClass *manifest) {
    const auto sorted = CF::Array::MutableCopy(manifest->entries.get());
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
    Kelvane::ManifestContents contents;
    const CFIndex count = manifest->entries.GetCount();
    for (CFIndex i = 0; i < count; ++i) {
        const auto entry = CF::Adopt(
            KVManifestEntryCreateCopy(allocator, EntryAt(manifest->entries.get(), i), getFileFunc));
        contents.entries.Append(entry.get());
    }
    contents.placeholders = CF::Dictionary::MutableCopy(manifest->placeholderFileIDs.get());
    contents.totalFileSize = manifest->totalFileSize;
    contents.totalFileCount = manifest->totalFileCount;
    // The copy belongs to no format until it is written in one.
    auto *const copy = Kelvane::CreateManifest(allocator, contents, kKVManifestDataVersionNone);
    copy->getFileFunc = getFileFunc;
    return copy;
}

CFArrayRef KVManifestGetEntries(KVManifestClass *manifest) { return manifest->entries.get(); }

void KVManifestUpdateEntries(KVManifestClass *manifest, CFArrayRef entries) {
    Kelvane::ManifestContents updated;
    if (entries != nullptr) {
        // Costs nothing for an immutable array, which is shared instead of copied.
        updated.entries = CF::Array::Adopt(CFArrayCreateCopy(kCFAllocatorDefault, entries));
    }
    std::int64_t size = 0;
    std::int64_t files = 0;
    const CFIndex count = updated.entries.GetCount();
    for (CFIndex i = 0; i < count; ++i) {
        const auto *const entry = EntryAt(updated.entries.get(), i);
        size = AddSizes(size, KVManifestEntryGetFileSize(entry));
        files += KVManifestEntryIsFile(entry) ? 1 : 0;
    }
    manifest->entries = updated.entries;
    manifest->totalFileSize = size;
    manifest->totalFileCount = files;
    manifest->entriesByDomain = nullptr;
    manifest->entriesByFileID = nullptr;
    manifest->fileIDs = nullptr;
    manifest->pathsByDomain.clear();
}

std::int64_t KVManifestGetTotalFileSize(KVManifestClass *manifest) {
    return manifest->totalFileSize;
}

std::int64_t KVManifestGetTotalFileCount(KVManifestClass *manifest) {
    return manifest->totalFileCount;
}
