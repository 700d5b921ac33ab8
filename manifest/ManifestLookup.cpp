// Lookups in a manifest and the tables behind them.
#include "KVManifest.h"
#include "KVManifestEntry.h"
#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/String.hpp"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

KVManifestEntryClass *AsEntry(CFTypeRef object) {
    return static_cast<KVManifestEntryClass *>(const_cast<void *>(object));
}

template <class Visitor>
void ForEachEntry(KVManifestClass *manifest, Visitor visit) {
    CFArrayRef entries = manifest->entries.get();
    const CFIndex count = CFArrayGetCount(entries);
    for (CFIndex i = 0; i < count; ++i) {
        visit(AsEntry(CFArrayGetValueAtIndex(entries, i)));
    }
}

CFMutableArrayRef ArrayForDomain(const CF::Dictionary &byDomain, CFStringRef domain) {
    CFTypeRef present = byDomain.GetValue(domain);
    if (present == nullptr) {
        const auto created = CF::Array::Mutable();
        byDomain.Set(domain, created.get());
        present = created.get();
    }
    return static_cast<CFMutableArrayRef>(const_cast<void *>(present));
}

CF::Dictionary BuildDomains(KVManifestClass *manifest) {
    const auto byDomain = CF::Dictionary::Mutable();
    // Entries of one domain mostly come in a row and share its string.
    CFStringRef last = nullptr;
    CFMutableArrayRef array = nullptr;
    ForEachEntry(manifest, [&](KVManifestEntryClass *entry) {
        CFStringRef domain = KVManifestEntryGetDomain(entry);
        if (CFStringGetLength(domain) == 0) {
            return;
        }
        if (domain != last) {
            array = ArrayForDomain(byDomain, domain);
            last = domain;
        }
        CFArrayAppendValue(array, entry);
    });
    return byDomain;
}

const CF::Dictionary &Domains(KVManifestClass *manifest) {
    if (manifest->entriesByDomain.GetCount() == 0) {
        manifest->entriesByDomain = BuildDomains(manifest);
    }
    return manifest->entriesByDomain;
}

// Borrowed; null when the domain has no entries.
CFArrayRef EntriesOfDomain(KVManifestClass *manifest, CFStringRef domain) {
    return static_cast<CFArrayRef>(Domains(manifest).GetValue(domain));
}

const Kelvane::PathIndex &PathsOfDomain(KVManifestClass *manifest, CFStringRef domain,
                                        CFArrayRef entries) {
    const CF::String key(domain);
    const auto found = manifest->pathsByDomain.find(key);
    if (found != manifest->pathsByDomain.end()) {
        return found->second;
    }
    // A copy of its own: the caller's string may be a mutable one.
    const auto kept = CF::String::Adopt(CFStringCreateCopy(kCFAllocatorDefault, domain));
    return manifest->pathsByDomain.emplace(kept, Kelvane::PathIndex(entries)).first->second;
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

CF::Dictionary BuildEntriesByFileID(KVManifestClass *manifest) {
    const auto byFileID = CF::Dictionary::Mutable();
    ForEachEntry(manifest, [&](KVManifestEntryClass *entry) {
        if (HasFileID(entry, "KVManifestGetEntryForFileID")) {
            byFileID.Set(KVManifestEntryGetFileID(entry), entry);
        }
    });
    return byFileID;
}

CF::Array BuildFileIDs(KVManifestClass *manifest) {
    const auto fileIDs = CF::Array::Mutable();
    ForEachEntry(manifest, [&](KVManifestEntryClass *entry) {
        if (!KVManifestEntryIsDirectory(entry) && !KVManifestEntryIsSymlink(entry) &&
            HasFileID(entry, "KVManifestGetFileIDs")) {
            fileIDs.Append(KVManifestEntryGetFileID(entry));
        }
    });
    return fileIDs;
}

} // namespace

KVManifestEntryClass *KVManifestGetEntryForFileID(KVManifestClass *manifest, CFStringRef fileID) {
    if (manifest->entriesByFileID.GetCount() == 0) {
        manifest->entriesByFileID = BuildEntriesByFileID(manifest);
    }
    return AsEntry(manifest->entriesByFileID.GetValue(fileID));
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
    const auto domains = CF::Array::Mutable();
    Domains(manifest).ForEach([&](CFTypeRef domain, CFTypeRef) { domains.Append(domain); });
    CFArraySortValues(
        const_cast<CFMutableArrayRef>(domains.get()), CFRangeMake(0, domains.GetCount()),
        [](const void *a, const void *b, void *) {
            return CFStringCompare(static_cast<CFStringRef>(a), static_cast<CFStringRef>(b), 0);
        },
        nullptr);
    return domains.copyRef();
}

CFArrayRef KVManifestCopyEntriesInDomain(KVManifestClass *manifest, CFStringRef domain) {
    return CF::Array(EntriesOfDomain(manifest, domain)).detach();
}

CFArrayRef KVManifestCopyEntriesAtPath(KVManifestClass *manifest, CFStringRef domain,
                                       CFStringRef path) {
    CFArrayRef entries = EntriesOfDomain(manifest, domain);
    if (entries == nullptr) {
        return CF::Array::Mutable().detach();
    }
    if (path == nullptr || CFStringGetLength(path) == 0) {
        return CF::Array(entries).detach();
    }
    const auto found = PathsOfDomain(manifest, domain, entries).AtOrBelow(entries, path);
    std::vector<std::uint32_t> positions(found.begin(), found.end());
    std::sort(positions.begin(), positions.end());
    auto result = CF::Array::Mutable();
    for (const std::uint32_t position : positions) {
        result.Append(CFArrayGetValueAtIndex(entries, static_cast<CFIndex>(position)));
    }
    return result.detach();
}

KVManifestEntryClass *KVManifestGetEntryMatchingPath(KVManifestClass *manifest, CFStringRef domain,
                                                     CFStringRef path) {
    CFArrayRef entries = EntriesOfDomain(manifest, domain);
    if (entries == nullptr || path == nullptr) {
        return nullptr;
    }
    const auto found = PathsOfDomain(manifest, domain, entries).At(entries, path);
    return found.empty()
               ? nullptr
               : AsEntry(CFArrayGetValueAtIndex(entries, static_cast<CFIndex>(found.front())));
}
