// What can be done with a backup, done to one that was opened from an input.
#pragma once

#include "KVBackupContainer.h"
#include "foundation/Boundary.hpp"
#include "fuzz/Workplace.hpp"
#include "support/cf/CF.hpp"

namespace Fuzz {

using Container = CF::Pointer<KVBackupContainerClass *>;
using FileReference = CF::Pointer<KVFileClass *>;

// A container or an error, never both nor neither.
inline Container OpenBackup(const std::string &path) {
    Kelvane::LocalError error;
    const auto open = boost::filesystem::is_directory(path) ? KVBackupContainerOpenDirectory
                                                            : KVBackupContainerOpenZipFile;
    Container container = CF::Adopt(open(nullptr, CF::String(path).get(), nullptr,
                                         kKVBackupOpenDefault, nullptr, nullptr, error.out()));
    Require(static_cast<bool>(container) != static_cast<bool>(error.get()));
    return container;
}

// As many bytes as it says, or an error.
inline void ReadContent(const FileReference &file) {
    Kelvane::LocalError error;
    std::uint64_t read = 0;
    const auto count = [](const std::uint8_t *, CFIndex length, void *total) -> Boolean {
        *static_cast<std::uint64_t *>(total) += static_cast<std::uint64_t>(length);
        return true;
    };
    const bool done = KVFileReadData(file.get(), 0, count, &read, error.out()) != 0;
    Require(done != static_cast<bool>(error.get()));
    Require(!done || read == KVFileGetSize(file.get()));
}

inline void ReadEntry(const Container &container, const KVManifestEntryClass *entry) {
    Kelvane::LocalError error;
    const FileReference file =
        CF::Adopt(KVBackupContainerCopyFileForEntry(container.get(), entry, error.out()));
    if (KVManifestEntryIsFile(entry)) {
        Require(static_cast<bool>(file) != static_cast<bool>(error.get()));
    }
    if (file) {
        ReadContent(file);
    }
    CF::Adopt(KVBackupContainerCopyEntriesContainedInDirectoryAtPath(
        container.get(), KVManifestEntryGetDomain(entry), KVManifestEntryGetPath(entry)));
}

inline void ReadEntries(const Container &container) {
    const CF::Array entries(KVManifestGetEntries(KVBackupContainerGetManifest(container.get())));
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        ReadEntry(container, static_cast<const KVManifestEntryClass *>(entries.GetAt(i)));
    }
}

// Every file as it would be written.
inline void ReadStoredFiles(const Container &container) {
    const auto names =
        CF::Array::Adopt(KVBackupContainerCopyFilesystemPathsList(container.get(), false));
    for (CFIndex i = 0; i < names.GetCount(); ++i) {
        Kelvane::LocalError error;
        const FileReference file = CF::Adopt(KVBackupContainerCopyFileForLocalFilename(
            container.get(), static_cast<CFStringRef>(names.GetAt(i)), error.out()));
        Require(static_cast<bool>(file) != static_cast<bool>(error.get()));
    }
}

inline void ListSource(const Container &container) {
    Kelvane::LocalError error;
    const auto visit = [](const KVBackupSourceFile *file, void *) -> Boolean {
        Require(file->name != nullptr && file->size >= 0);
        return true;
    };
    const bool listed =
        KVBackupContainerListSourceFiles(container.get(), visit, nullptr, error.out()) != 0;
    Require(listed != static_cast<bool>(error.get()));
    Kelvane::LocalError manifestError;
    const FileReference manifest =
        CF::Adopt(KVBackupContainerCopySourceManifest(container.get(), manifestError.out()));
    Require(static_cast<bool>(manifest) != static_cast<bool>(manifestError.get()));
}

// Writes the backup to a new directory or zip. What is a backup by the report opens again;
// whether it is one is the result.
inline bool Export(const Container &container, const std::string &path,
                   decltype(KVBackupContainerWriteDirectory) *write) {
    KVBackupExportReport report{};
    const bool done =
        write(container.get(), CF::String(path).get(), nullptr, nullptr, &report) != 0;
    const auto errors = CF::Array::Adopt(report.errors);
    const auto notes = CF::Array::Adopt(report.notes);
    Require(static_cast<bool>(errors) && static_cast<bool>(notes) &&
            (done || errors.GetCount() == 1));
    if (report.metadataWritten) {
        Require(static_cast<bool>(OpenBackup(path)));
    }
    return report.metadataWritten != 0;
}

inline void UseBackup(const Container &container, const Workplace &work) {
    ReadEntries(container);
    ReadStoredFiles(container);
    ListSource(container);
    Export(container, (work / "export").string(), KVBackupContainerWriteDirectory);
    Export(container, (work / "export.zip").string(), KVBackupContainerWriteZipFile);
}

} // namespace Fuzz
