// Getting contents out of a container.
#include "container/CopyOut.hpp"

#include "Kelvane/Error.hpp"
#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/ManifestDatabaseFile.hpp"
#include "support/zk/Secret.hpp"

#include <array>
#include <optional>

namespace Kelvane {

namespace {

using FileKey = std::array<std::uint8_t, 32>;

FileRef retain(KVFileClass *file) { return FileRef(file); }

// A copy of the reference, on which a crypt step can be enabled without touching the entry's.
FileRef copyOf(const KVFileClass *file) { return FileRef(CF::adopt, KVFileCreateCopy(file)); }

enum class Crypt { Decrypt, Encrypt };

// A copy that reads through the entry's key. Empty, perhaps without an error, when the key
// cannot be had.
FileRef throughEntryKey(const KVBackupContainerClass &container, const KVManifestEntryClass *entry,
                        const KVFileClass *file, Crypt crypt, CFErrorRef *error) {
    std::optional<FileKey> key =
        KVManifestEntryGetUnlockedFileKey(entry, *container.encryption, error);
    if (!key) {
        return {};
    }
    const ZK::WipeOnExit wipe(*key);
    FileRef copy = copyOf(file);
    if (crypt == Crypt::Decrypt) {
        KVFileEnableDecryption(copy.get(), *key);
    } else {
        KVFileEnableEncryption(copy.get(), *key);
    }
    return copy;
}

// The content in readable form.
FileRef copyFileForEntry(const KVBackupContainerClass &container, const KVManifestEntryClass *entry,
                         CFErrorRef *error) {
    KVFileClass *file = KVManifestEntryGetFile(entry, error);
    if (file == nullptr) {
        return {};
    }
    if (container.encryption && !KVManifestEntryIsExternal(entry) && KVManifestEntryIsFile(entry)) {
        return throughEntryKey(container, entry, file, Crypt::Decrypt, error);
    }
    return retain(file);
}

FileRef copyFileForPath(const KVBackupContainerClass &container, CFStringRef domain,
                        CFStringRef relativePath, CFErrorRef *error) {
    const KVManifestEntryClass *entry =
        KVBackupContainerGetEntryForPath(&container, domain, relativePath);
    if (entry == nullptr) {
        throw Error(kKVErrorNoSuchItem, nullptr, CFSTR("File not in backup"));
    }
    return copyFileForEntry(container, entry, error);
}

FileRef fileFromData(const CF::Data &data, CFStringRef failure, const CF::Error &cause) {
    if (!data) {
        throw Error(kKVErrorUnknown, cause, CF::String(failure));
    }
    LocalError error;
    FileRef file(CF::adopt, KVFileCreateFromData(data.get(), error.out()));
    if (!file) {
        throw Error(kKVErrorUnknown, error.get(), CF::String(failure));
    }
    return file;
}

constexpr const char *kDatabaseNotWritten = "Failed to create data representation of Manifest DB";

// An encrypted backup's database lies encrypted in it.
void encryptLikeBackup(const KVBackupContainerClass &container, const FileRef &file) {
    if (container.encryption) {
        KVFileEnableEncryption(file.get(), container.encryption->GetManifestKey());
    }
}

FileRef writeManifestDatabase(const KVBackupContainerClass &container) {
    CF::Data data;
    CF::Error cause;
    try {
        data = CF::Data::Adopt(KVManifestCreateManifestDBRepresentation(container.manifest.get(),
                                                                        container.Version()));
    } catch (const CF::Error &error) {
        cause = error;
    }
    FileRef file = fileFromData(data, CF::String(kDatabaseNotWritten).get(), cause);
    encryptLikeBackup(container, file);
    return file;
}

FileRef writeBinaryManifest(const KVBackupContainerClass &container) {
    LocalError error;
    const auto data = CF::Data::Adopt(KVManifestCreateManifestDataRepresentation(
        container.manifest.get(), container.Version(), error.out()));
    return fileFromData(data, CFSTR("Failed to create data representation of Manifest"),
                        error.get());
}

// The manifest and metadata files are written anew. Empty for every other name.
FileRef writeGenerated(const KVBackupContainerClass &container, const CF::String &name) {
    const std::string text = name.GetUTF8();
    if (text == kManifestDatabaseName) {
        return writeManifestDatabase(container);
    }
    if (text == kManifestMbdbName) {
        return writeBinaryManifest(container);
    }
    if (text == kManifestPlistName) {
        return WriteMetadata(container.manifestDict, name.get(), kCFPropertyListXMLFormat_v1_0);
    }
    if (text == kInfoPlistName) {
        return WriteMetadata(container.infoDict, name.get(), kCFPropertyListXMLFormat_v1_0);
    }
    if (text == kStatusPlistName) {
        return WriteMetadata(container.statusDict, name.get(), kCFPropertyListXMLFormat_v1_0);
    }
    return {};
}

FileRef copyStoredFile(const KVBackupContainerClass &container, const CF::String &name,
                       CFErrorRef *error) {
    KVManifestEntryClass *entry =
        KVBackupContainerGetEntryForLocalFilename(&container, name.get(), nullptr);
    if (entry == nullptr) {
        throw Error(kKVErrorNoSuchItem, nullptr, CFSTR("File not present in backup (%@)"),
                    name.get());
    }
    if (!KVManifestEntryIsFile(entry)) {
        throw Error(kKVErrorNoSuchItem, nullptr, CFSTR("Found entry referencing a non-file (%@)"),
                    name.get());
    }
    LocalError cause;
    KVFileClass *file = KVManifestEntryGetFile(entry, cause.out());
    if (file == nullptr) {
        throw Error(kKVErrorInvalidArgument, cause.get(),
                    CFSTR("Found file entry but no file ref is present (%@)"), name.get());
    }
    // Content of the backup itself already lies encrypted; content from outside does not.
    if (container.encryption && KVManifestEntryIsExternal(entry)) {
        return throughEntryKey(container, entry, file, Crypt::Encrypt, error);
    }
    return retain(file);
}

} // namespace

FileRef WriteMetadata(const CF::Dictionary &dictionary, CFStringRef name,
                      CFPropertyListFormat format) {
    LocalError error;
    const auto data =
        CF::PropertyListType<CF::Dictionary>::ToPropertyListData(dictionary, format, error.out());
    const auto failure =
        CF::String::Format(CFSTR("Failed to create data representation of metadata (%@)"), name);
    try {
        RequireSizeWithin(data ? static_cast<std::uint64_t>(data.GetLength()) : 0,
                          kMaxMetadataSize);
    } catch (const CF::Error &tooLarge) {
        throw Error(kKVErrorUnknown, tooLarge, failure); // nobody could open the backup
    }
    return fileFromData(data, failure.get(), error.get());
}

WrittenManifestDatabase::WrittenManifestDatabase(const KVBackupContainerClass &container) {
    try {
        path_ = WriteManifestDatabaseFile(container.manifest.get(), container.Version());
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorUnknown, cause, CF::String(kDatabaseNotWritten));
    }
    try {
        LocalError error;
        file_ = FileRef(CF::adopt, KVFileCreateFromFileAtPath(CF::String::FromUTF8(path_).get(),
                                                              false, error.out()));
        if (!file_) {
            throw Error(kKVErrorUnknown, error.get(), CF::String(kDatabaseNotWritten));
        }
        encryptLikeBackup(container, file_);
    } catch (...) {
        RemoveManifestDatabaseFile(path_);
        throw;
    }
}

WrittenManifestDatabase::~WrittenManifestDatabase() { RemoveManifestDatabaseFile(path_); }

} // namespace Kelvane

KVFileClass *KVBackupContainerCopyFileForPath(const KVBackupContainerClass *container,
                                              CFStringRef domain, CFStringRef relativePath,
                                              CFErrorRef *error) {
    return Kelvane::AtBoundary(error, static_cast<KVFileClass *>(nullptr), [&] {
        return Kelvane::copyFileForPath(*container, domain, relativePath, error).detach();
    });
}

KVFileClass *KVBackupContainerCopyFileForEntry(const KVBackupContainerClass *container,
                                               const KVManifestEntryClass *entry,
                                               CFErrorRef *error) {
    return Kelvane::AtClosedBoundary(error, static_cast<KVFileClass *>(nullptr), [&] {
        return Kelvane::copyFileForEntry(*container, entry, error).detach();
    });
}

KVFileClass *KVBackupContainerCopyFileForLocalFilename(const KVBackupContainerClass *container,
                                                       CFStringRef storedName, CFErrorRef *error) {
    return Kelvane::AtBoundary(error, static_cast<KVFileClass *>(nullptr), [&] {
        const CF::String name(storedName);
        Kelvane::FileRef file = Kelvane::writeGenerated(*container, name);
        if (!file) {
            file = Kelvane::copyStoredFile(*container, name, error);
        }
        return file.detach();
    });
}
