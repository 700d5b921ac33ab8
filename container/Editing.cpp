// Edits of a container beside the storing of files.
#include "Kelvane/Error.hpp"
#include "container/Edit.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/ExtendedAttributes.hpp"

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

// Content from outside lies plain, whatever it was to become in the backup that the entry
// comes from.
void forgetKey(KVManifestEntryClass &entry) {
    if (!entry.file || CFDataGetLength(entry.encryptionData.get()) == 0) {
        return;
    }
    entry.encryptionData = CF::Pointer<CFDataRef>(EmptyData());
    entry.unlockedFileKey = nullptr;
    CF::Data hash(KVFileGetHash(entry.file.get()));
    entry.dataHash = CF::Adopt(hash.detach());
    entry.size = static_cast<std::int64_t>(KVFileGetSize(entry.file.get()));
}

// A binary manifest has no place for attributes in the form that databases hold.
void convertAttributes(KVManifestEntryClass &entry) {
    if (!entry.keptAttributes) {
        return;
    }
    CF::Dictionary attributes = DecodeExtendedAttributes(entry.keptAttributes.get());
    if (!attributes) {
        throw Error(kKVErrorInvalidArgument, nullptr,
                    "The entry's extended attributes cannot be put into a binary manifest");
    }
    if (CFDictionaryGetCount(entry.properties.get()) == 0) {
        entry.properties = CF::Adopt(attributes.detach());
    }
    entry.keptAttributes = nullptr;
}

KVManifestEntryClass *addEntry(KVBackupContainerClass &container,
                               const KVManifestEntryClass *entry) {
    EntryPointer copy = copyWithContent(entry);
    copy.get()->origin = EntryOrigin(); // its row, if any, is the given entry's
    if (container.Version() == kKVManifestDataVersion24) {
        convertAttributes(*copy.get());
    }
    if (container.encryption && KVManifestEntryIsFile(copy.get())) {
        LocalError error;
        if (!KVManifestEntryGenerateFileKey(copy.get(), *container.encryption, error.out())) {
            throw error.get();
        }
        // The key is this container's, the content still plain, wherever it came from: it
        // is encrypted on its way out, as content from outside is.
        copy.get()->external = true;
    }
    if (!container.encryption && KVManifestEntryIsExternal(copy.get())) {
        forgetKey(*copy.get());
    }
    KVManifestEntryClass *const added = copy.get();
    Edit edit(container, KVManifestEntryGetDomain(added));
    edit.RequireFileIDFor(*added);
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
        // Entries without a domain, which only some manifests hold, are found one by one.
        if (entry != nullptr && CFStringGetLength(domain) == 0) {
            edit.Remove(entry);
        }
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
    if (existing != nullptr) {
        TakeOrigin(*link.get(), *existing);
    }
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
