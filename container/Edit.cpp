#include "container/Edit.hpp"

#include "Kelvane/Error.hpp"
#include "manifest/MbdbLimits.hpp"

#include <set>
#include <string>

namespace Kelvane {

namespace {

bool isAt(const KVManifestEntryClass *entry, CFStringRef domain, CFStringRef path) {
    return CFEqual(KVManifestEntryGetPath(entry), path) &&
           CFEqual(KVManifestEntryGetDomain(entry), domain);
}

void requireAt(const KVManifestEntryClass *found, CFStringRef domain, CFStringRef path) {
    if (found != nullptr && !isAt(found, domain, path)) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    CFSTR("File ID (%@) belongs to another entry (%@)"),
                    KVManifestEntryGetFileID(found), KVManifestEntryGetDomainPathPair(found));
    }
}

// A manifest that holds one such text cannot be written at all.
void requireEncodable(CFStringRef text) {
    const CFIndex length = CFStringGetLength(text);
    if (CFStringGetBytes(text, CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false, nullptr, 0,
                         nullptr) != length) {
        throw Error(kKVErrorInvalidArgument, nullptr, "Text cannot be encoded as UTF-8");
    }
}

// Every level above the path may become an entry that holds the path down to it. Devices
// take paths of 1,024 bytes.
constexpr CFIndex kMaximumPathLength = 16384;
constexpr CFIndex kMaximumLevels = 1024;

CFIndex countLevels(CFStringRef path) {
    CFIndex levels = 1;
    for (CFIndex i = 0; i < CFStringGetLength(path); ++i) {
        levels += CFStringGetCharacterAtIndex(path, i) == u'/' ? 1 : 0;
    }
    return levels;
}

void requireReasonablePath(CFStringRef path) {
    const CFIndex levels = countLevels(path);
    if (CFStringGetLength(path) > kMaximumPathLength || levels > kMaximumLevels) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    CFSTR("Path is too long or too deep (%ld levels)"), static_cast<long>(levels));
    }
}

} // namespace

KVManifestEntryClass *Edit::findByFileID(CFStringRef path) const {
    return KVBackupContainerGetEntryForPath(&container_, domain_, path);
}

// Its row may carry any file ID.
KVManifestEntryClass *Edit::findByPath(CFStringRef path) const {
    return KVManifestGetEntryMatchingPath(container_.manifest.get(), domain_, path);
}

KVManifestEntryClass *Edit::FindOwn(CFStringRef path) const {
    KVManifestEntryClass *const found = findByFileID(path);
    return found != nullptr && isAt(found, domain_, path) ? found : findByPath(path);
}

KVManifestEntryClass *Edit::Find(CFStringRef path) const {
    KVManifestEntryClass *const found = findByFileID(path);
    requireAt(found, domain_, path);
    return found != nullptr ? found : findByPath(path);
}

void Edit::RequireFileIDFor(const KVManifestEntryClass &entry) const {
    requireAt(KVManifestGetEntryForFileID(container_.manifest.get(), entry.fileID.get()), domain_,
              KVManifestEntryGetPath(&entry));
}

void Edit::Add(EntryPointer entry) {
    // A database row without a domain is no entry, and refuses the whole manifest.
    if (CFStringGetLength(KVManifestEntryGetDomain(entry.get())) == 0) {
        throw Error(kKVErrorInvalidArgument, nullptr, "An entry must have a domain");
    }
    requireEncodable(KVManifestEntryGetDomain(entry.get()));
    requireEncodable(KVManifestEntryGetPath(entry.get()));
    requireEncodable(KVManifestEntryGetTarget(entry.get()));
    if (container_.Version() == kKVManifestDataVersion24) {
        RequireMbdbRecord(*entry.get());
    }
    change_.added.push_back(std::move(entry));
}

void Edit::addDirectory(CFStringRef path) {
    Add(CF::Adopt(KVManifestEntryCreateForDirectory(kCFAllocatorDefault, domain_, path)));
}

void Edit::EnsureRoot() {
    if (Find(CFSTR("")) == nullptr) {
        addDirectory(CFSTR(""));
    }
}

void Edit::EnsureParents(CFStringRef path) {
    requireReasonablePath(path);
    const CFIndex length = CFStringGetLength(path);
    for (CFIndex i = 0; i < length; ++i) {
        if (CFStringGetCharacterAtIndex(path, i) != u'/') {
            continue;
        }
        const auto parent = CF::String::Adopt(
            CF::Made(CFStringCreateWithSubstring(kCFAllocatorDefault, path, CFRangeMake(0, i))));
        // A leading slash makes an empty first component, which stands for the root.
        if (!parent.IsEmpty() && Find(parent.get()) == nullptr) {
            addDirectory(parent.get());
        }
    }
}

void Edit::RemoveTree(CFStringRef path) {
    const auto entries =
        CF::Array::Adopt(KVManifestCopyEntriesAtPath(container_.manifest.get(), domain_, path));
    const CFIndex count = entries.GetCount();
    change_.removed.reserve(change_.removed.size() + static_cast<std::size_t>(count));
    for (CFIndex i = 0; i < count; ++i) {
        Remove(static_cast<KVManifestEntryClass *>(const_cast<void *>(entries.GetAt(i))));
    }
}

void Edit::Apply() {
    if (change_.removed.empty() && change_.added.empty()) {
        return;
    }
    std::set<std::string> removed;
    for (const EntryPointer &entry : change_.removed) {
        if (!entry.get()->external && KVManifestEntryIsFile(entry.get())) {
            removed.insert(CF::String::GetUTF8(entry.get()->fileID.get()));
        }
    }
    ApplyChange(container_.manifest.get(), change_);
    container_.removedFileIDs.merge(removed); // takes no memory, and so cannot fail
}

} // namespace Kelvane
