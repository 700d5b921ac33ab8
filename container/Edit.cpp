#include "container/Edit.hpp"

#include "Kelvane/Error.hpp"

namespace Kelvane {

namespace {

bool isAt(const KVManifestEntryClass *entry, CFStringRef domain, CFStringRef path) {
    return CFEqual(KVManifestEntryGetPath(entry), path) &&
           CFEqual(KVManifestEntryGetDomain(entry), domain);
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
    if (found != nullptr && !isAt(found, domain_, path)) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    CFSTR("File ID (%@) belongs to another entry (%@)"),
                    KVManifestEntryGetFileID(found), KVManifestEntryGetDomainPathPair(found));
    }
    return found != nullptr ? found : findByPath(path);
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
    const CFIndex length = CFStringGetLength(path);
    for (CFIndex i = 0; i < length; ++i) {
        if (CFStringGetCharacterAtIndex(path, i) != u'/') {
            continue;
        }
        const auto parent = CF::String::Adopt(
            CFStringCreateWithSubstring(kCFAllocatorDefault, path, CFRangeMake(0, i)));
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
    if (!change_.removed.empty() || !change_.added.empty()) {
        ApplyChange(container_.manifest.get(), change_);
    }
}

} // namespace Kelvane
