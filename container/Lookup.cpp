// Finding entries and listing names.
#include "container/KVBackupContainerClass.hpp"

#include "container/StoredName.hpp"
#include "manifest/DirectoryListing.hpp"

namespace {

// The three metadata property lists and the manifest.
constexpr std::int64_t kFilesBesideTheManifests = 4;

} // namespace

KVManifestClass *KVBackupContainerGetManifest(const KVBackupContainerClass *container) {
    return container->manifest.get();
}

int64_t KVBackupContainerGetTotalFileCount(const KVBackupContainerClass *container) {
    return KVManifestGetTotalFileCount(container->manifest.get()) + kFilesBesideTheManifests;
}

KVManifestEntryClass *KVBackupContainerGetEntryForPath(const KVBackupContainerClass *container,
                                                       CFStringRef domain,
                                                       CFStringRef relativePath) {
    const auto fileID = CF::String::Adopt(KVManifestEntryCopyFileIDForPath(domain, relativePath));
    return KVManifestGetEntryForFileID(container->manifest.get(), fileID.get());
}

KVManifestEntryClass *
KVBackupContainerGetEntryForLocalFilename(const KVBackupContainerClass *container,
                                          CFStringRef storedName, Boolean *isMetadata) {
    if (isMetadata != nullptr) {
        *isMetadata = false;
    }
    const CF::String fileID =
        Kelvane::FileIDForStoredName(CF::String(storedName), container->Version());
    KVManifestEntryClass *entry =
        fileID ? KVManifestGetEntryForFileID(container->manifest.get(), fileID.get()) : nullptr;
    if (entry == nullptr && isMetadata != nullptr) {
        *isMetadata = Kelvane::IsMetadataName(storedName);
    }
    return entry;
}

CFArrayRef
KVBackupContainerCopyEntriesContainedInDirectoryAtPath(const KVBackupContainerClass *container,
                                                       CFStringRef domain, CFStringRef path) {
    KVManifestClass *manifest = container->manifest.get();
    const KVManifestEntryClass *directory = KVManifestGetEntryMatchingPath(manifest, domain, path);
    if (directory == nullptr || !KVManifestEntryIsDirectory(directory)) {
        return CF::Array::Mutable().detach();
    }
    return Kelvane::CopyChildren(manifest, domain, path).detach();
}

CFArrayRef KVBackupContainerCopyFilesystemPathsList(const KVBackupContainerClass *container,
                                                    Boolean) {
    CF::Array names = CF::Array::Mutable();
    const CF::Array fileIDs(KVManifestGetFileIDs(container->manifest.get()));
    const CFIndex count = fileIDs.GetCount();
    const KVManifestDataVersion version = container->Version();
    for (CFIndex i = 0; i < count; ++i) {
        names.Append(Kelvane::ExternalFilePath(CF::String::Cast(fileIDs.GetAt(i)), version).get());
    }
    if (version == kKVManifestDataVersion24) {
        names.Append(CF::String(Kelvane::kManifestMbdbName).get());
    } else if (Kelvane::UsesManifestDatabase(version)) {
        names.Append(CF::String(Kelvane::kManifestDatabaseName).get());
    }
    names.Append(CF::String(Kelvane::kManifestPlistName).get());
    names.Append(CF::String(Kelvane::kInfoPlistName).get());
    names.Append(CF::String(Kelvane::kStatusPlistName).get());
    return names.detach();
}
