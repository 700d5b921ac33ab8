// Edits of a container beside the storing of files.
#include "Kelvane/Error.hpp"
#include "container/Edit.hpp"
#include "foundation/Boundary.hpp"

namespace Kelvane {

namespace {

EntryPointer copyWithContent(const KVManifestEntryClass *entry) {
    LocalError cause;
    const KVFileClass *file = KVManifestEntryGetFile(entry, cause.out());
    if (file == nullptr && KVManifestEntryIsFile(entry)) {
        throw Error(kKVErrorFileNotInCache, cause.get(),
                    CFSTR("A file reference could not be loaded for an entry that represents a "
                          "file"));
    }
    return CF::Adopt(KVManifestEntryCreateCopy(kCFAllocatorDefault, entry, nullptr));
}

KVManifestEntryClass *addEntry(KVBackupContainerClass &container,
                               const KVManifestEntryClass *entry) {
    EntryPointer copy = copyWithContent(entry);
    if (container.encryption && KVManifestEntryIsFile(copy.get())) {
        LocalError error;
        if (!KVManifestEntryGenerateFileKey(copy.get(), *container.encryption, error.out())) {
            throw error.get();
        }
        // The key is this container's, the content still plain, wherever it came from: it
        // is encrypted on its way out, as content from outside is.
        copy.get()->external = true;
    }
    KVManifestEntryClass *const added = copy.get();
    Edit edit(container, KVManifestEntryGetDomain(added));
    edit.Add(std::move(copy));
    edit.Apply();
    return added;
}

KVManifestEntryClass *createDirectory(KVBackupContainerClass &container, CFStringRef domain,
                                      CFStringRef path) {
    Edit edit(container, domain);
    KVManifestEntryClass *directory = edit.Find(path);
    if (directory != nullptr && !KVManifestEntryIsDirectory(directory)) {
        return nullptr;
    }
    if (CFStringGetLength(path) > 0) {
        edit.EnsureRoot();
    }
    if (directory == nullptr) {
        EntryPointer created =
            CF::Adopt(KVManifestEntryCreateForDirectory(kCFAllocatorDefault, domain, path));
        directory = created.get();
        edit.Add(std::move(created));
    }
    edit.Apply();
    return directory;
}

void removePath(KVBackupContainerClass &container, CFStringRef domain, CFStringRef path) {
    Edit edit(container, domain);
    KVManifestEntryClass *const entry = edit.FindOwn(path);
    if (entry != nullptr && !KVManifestEntryIsDirectory(entry)) {
        edit.Remove(entry);
    } else {
        edit.RemoveTree(path);
    }
    edit.Apply();
}

KVManifestEntryClass *createSymlink(KVBackupContainerClass &container, CFStringRef domain,
                                    CFStringRef path, CFStringRef target) {
    Edit edit(container, domain);
    KVManifestEntryClass *const existing = edit.Find(path);
    if (existing != nullptr && !KVManifestEntryIsSymlink(existing)) {
        return nullptr;
    }
    if (existing != nullptr) {
        edit.Remove(existing);
    }
    // A link at the empty path takes the root's place.
    if (CFStringGetLength(path) > 0) {
        edit.EnsureRoot();
    }
    EntryPointer link =
        CF::Adopt(KVManifestEntryCreateForSymlink(kCFAllocatorDefault, domain, path, target));
    KVManifestEntryClass *const created = link.get();
    edit.Add(std::move(link));
    edit.Apply();
    return created;
}

} // namespace

} // namespace Kelvane

KVManifestEntryClass *KVBackupContainerAddEntry(KVBackupContainerClass *container,
                                                KVManifestEntryClass *entry, CFErrorRef *error) {
    return Kelvane::AtBoundary<KVManifestEntryClass *>(
        error, nullptr, [&] { return Kelvane::addEntry(*container, entry); });
}

KVManifestEntryClass *KVBackupContainerCreateDirectoryAtPath(KVBackupContainerClass *container,
                                                             CFStringRef domain, CFStringRef path) {
    return Kelvane::AtBoundary<KVManifestEntryClass *>(
        nullptr, nullptr, [&] { return Kelvane::createDirectory(*container, domain, path); });
}

Boolean KVBackupContainerRemovePath(KVBackupContainerClass *container, CFStringRef domain,
                                    CFStringRef path) {
    return Kelvane::AtBoundary(nullptr, Boolean{false}, [&] {
        Kelvane::removePath(*container, domain, path);
        return Boolean{true};
    });
}

KVManifestEntryClass *KVBackupContainerCreateSymlinkAtPath(KVBackupContainerClass *container,
                                                           CFStringRef domain, CFStringRef path,
                                                           CFStringRef target) {
    return Kelvane::AtBoundary<KVManifestEntryClass *>(
        nullptr, nullptr, [&] { return Kelvane::createSymlink(*container, domain, path, target); });
}
