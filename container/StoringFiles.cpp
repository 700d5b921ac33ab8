// Storing a file in a container, over nothing or in the place of what is there.
#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "container/Edit.hpp"
#include "crypto/EntryKeys.hpp"
#include "foundation/Boundary.hpp"
#include "support/zk/Log.hpp"

namespace Kelvane {

namespace {

// What it is about a replaced file that the new entry keeps, and how it comes to a key.
enum class Manner {
    Store,  // a key for class 4 alone
    Replace // a key for any class; extended attributes; nothing of what is no file
};

struct Request {
    KVBackupContainerClass &container;
    CFStringRef domain;
    CFStringRef path;
    KVFileClass *file;
    Manner manner;
    const char *function;
};

EntryPointer makeEntry(const Request &request) {
    LocalError error;
    auto entry = CF::Adopt(KVManifestEntryCreateForFile(
        kCFAllocatorDefault, request.file, request.domain, request.path, nullptr, error.out()));
    if (!entry) {
        ZLLogError(error.get().get(), GetLogDomain(),
                   CFSTR("%s: Failed to generate entry for %@:%@"), request.function,
                   request.domain, request.path);
        throw error.get();
    }
    return entry;
}

void logReplacing(const Request &request, CFStringRef format, const EntryPointer &entry,
                  const KVManifestEntryClass *existing) {
    ZLLogDomain(GetLogDomain(), kZLLogLevelDetail, format, request.function, entry.get(), existing);
}

void takeOver(const Request &request, KVManifestEntryClass &entry,
              const KVManifestEntryClass &replaced) {
    _KVManifestEntryCloneAttributes(&entry, &replaced);
    TakeOrigin(entry, replaced);
    if (request.manner == Manner::Replace) {
        entry.properties = replaced.properties;
        entry.keptAttributes = replaced.keptAttributes;
    }
}

// Makes room for the entry: takes what is at its path away, or makes what is missing above.
void makeRoom(const Request &request, Edit &edit, const EntryPointer &entry) {
    KVManifestEntryClass *const existing = edit.Find(request.path);
    const bool atRoot = CFStringGetLength(request.path) == 0;
    if (!atRoot) {
        edit.EnsureRoot();
    }
    if (existing == nullptr && !atRoot) {
        ZLLogDomain(GetLogDomain(), kZLLogLevelDetail, CFSTR("%s: Generated new entry %@"),
                    request.function, entry.get());
        edit.EnsureParents(request.path);
    } else if (existing == nullptr) {
        // The domain is a directory, with or without an entry for its root.
        edit.RemoveTree(request.path);
    } else if (KVManifestEntryIsDirectory(existing)) {
        logReplacing(request, CFSTR("%s: Generated new entry %@ (replacing DIRECTORY %@)"), entry,
                     existing);
        edit.RemoveTree(request.path);
    } else {
        if (request.manner == Manner::Store || KVManifestEntryIsFile(existing)) {
            takeOver(request, *entry.get(), *existing);
        }
        logReplacing(request, CFSTR("%s: Generated new entry %@ (replacing FILE %@)"), entry,
                     existing);
        edit.Remove(existing);
    }
}

void giveKey(const Request &request, const KVManifestEntryClass &entry) {
    const auto &encryption = request.container.encryption;
    if (!encryption) {
        return;
    }
    if (request.manner == Manner::Replace) {
        RenewFileKey(entry, *encryption);
        return;
    }
    LocalError error;
    if (!KVManifestEntryGenerateFileKey(&entry, *encryption, error.out())) {
        throw error.get();
    }
}

void store(const Request &request) {
    if (request.file == nullptr) {
        throw Error(kKVErrorInvalidArgument, nullptr, CFSTR("No file reference"));
    }
    EntryPointer entry = makeEntry(request);
    Edit edit(request.container, request.domain);
    makeRoom(request, edit, entry);
    giveKey(request, *entry.get());
    edit.Add(std::move(entry));
    edit.Apply();
}

} // namespace

} // namespace Kelvane

Boolean KVBackupContainerStoreFileForPath(KVBackupContainerClass *container, CFStringRef domain,
                                          CFStringRef relativePath, KVFileClass *file,
                                          CFErrorRef *error) {
    return Kelvane::AtBoundary(error, Boolean{false}, [&] {
        Kelvane::store({*container, domain, relativePath, file, Kelvane::Manner::Store,
                        "KVBackupContainerStoreFileForPath"});
        return Boolean{true};
    });
}

Boolean KVBackupContainerReplaceFileForPath(KVBackupContainerClass *container, CFStringRef domain,
                                            CFStringRef relativePath, KVFileClass *file,
                                            CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, Boolean{false}, [&] {
        Kelvane::store({*container, domain, relativePath, file, Kelvane::Manner::Replace,
                        "KVBackupContainerReplaceFileForPath"});
        return Boolean{true};
    });
}
