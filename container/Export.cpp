#include "container/Export.hpp"

#include "Kelvane/Error.hpp"
#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"

#include <boost/filesystem/operations.hpp>

#include <exception>

namespace Kelvane {

namespace {

// Runs a step of one file. One file must not end the export, so what fails in another way
// than by our own error becomes such an error.
template <class Step>
void asOwnError(Step step) {
    try {
        step();
    } catch (const std::exception &exception) {
        throw Error(kKVErrorUnknown, nullptr, CF::String(exception.what()));
    }
}

ExportPiece load(const Export &job, CFStringRef name, CFStringRef failure) {
    ExportPiece piece;
    try {
        asOwnError([&] { piece = job.form->Load(name); });
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorLoadRepresentation, cause, failure, name);
    }
    return piece;
}

void write(Export &job, ExportTarget &target, CFStringRef name, const ExportPiece &piece) {
    try {
        asOwnError([&] { target.Write(CF::String::GetUTF8(name), piece, job.progress); });
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorWriteRepresentation, cause, target.NotWritten(), name);
    }
}

// Names come from the manifest, which may have been made to lead out of the target, or to the place
// of the manifest or of metadata.
void requireSafe(const ExportTarget &target, CFStringRef name, bool isMetadata) {
    try {
        if (!IsSafeStoredName(CF::String(name)) || (!isMetadata && IsMetadataName(name))) {
            ThrowUnsafeStoredName(CF::String(name));
        }
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorWriteRepresentation, cause, target.NotWritten(), name);
    }
}

// Files whose ID is too short have no stored name by which the list could name them.
void reportNameless(Export &job, const ExportTarget &target) {
    const KVManifestDataVersion version = job.container->Version();
    job.container->manifest.get()->entries.ForEach([&](const KVManifestEntryClass *entry) {
        if (KVManifestEntryIsDirectory(entry) || KVManifestEntryIsSymlink(entry)) {
            return;
        }
        const CF::String fileID(KVManifestEntryGetFileID(entry));
        if (ExternalFilePath(fileID, version).IsEmpty()) {
            const CF::Error cause = Error(kKVErrorInvalidBackup, nullptr,
                                          CFSTR("Unsafe stored file name (%@)"), fileID.get());
            job.report.Skipped(Error(kKVErrorWriteRepresentation, cause, target.NotWritten(),
                                     KVManifestEntryGetDomainPathPair(entry)));
            job.form->Skipped(*entry);
        }
    });
}

void exportContent(Export &job, ExportTarget &target, CFStringRef name) {
    const ExportPiece piece = load(job, name, target.NotLoaded());
    if (piece.content == nullptr) {
        job.report.NotNeeded(CF::String::GetUTF8(name));
        return;
    }
    write(job, target, name, piece);
    job.report.Written(CF::String::GetUTF8(name));
    if (piece.note) {
        job.report.Noted(piece.note);
    }
}

void exportFile(Export &job, ExportTarget &target, CFStringRef name, bool isMetadata,
                StoredNames &known) {
    if (job.manner != ExportManner::Plain && CFStringGetLength(name) == 0) {
        return; // reported with its entry
    }
    try {
        requireSafe(target, name, isMetadata || job.manner == ExportManner::Plain);
        // Two entries of one file ID have one content, that of the entry which a lookup finds.
        if (known.insert(name).second) {
            exportContent(job, target, name);
        }
    } catch (const CF::Error &error) {
        job.report.Skipped(error);
        if (const auto *const entry =
                KVBackupContainerGetEntryForLocalFilename(job.container, name, nullptr)) {
            job.form->Skipped(*entry);
        }
    }
}

} // namespace

void RequireNothingAt(const CF::String &path) {
    boost::system::error_code ignored; // the status says it all
    const ZK::filesystem::path location = path.GetUTF8();
    const auto type = boost::filesystem::symlink_status(location, ignored).type();
    if (type != boost::filesystem::status_error && type != boost::filesystem::file_not_found) {
        throw Error(kKVErrorWriteRepresentation, nullptr, CFSTR("File already exists at path %@"),
                    path.get());
    }
}

void RequireWritableManifest(const Export &job) {
    if (job.manner != ExportManner::Plain && job.container->Version() == kKVManifestDataVersion24 &&
        job.container->manifest.get()->entries.Count() == 0) {
        throw Error(kKVErrorWriteRepresentation, nullptr,
                    "A backup of version 2.4 needs an entry: its manifest could not be read again "
                    "without any");
    }
}

void WriteStoredFiles(Export &job, ExportTarget &target) {
    const auto names =
        CF::Array::Adopt(KVBackupContainerCopyFilesystemPathsList(job.container, false));
    job.progress.SetTotal(KVManifestGetTotalFileSize(job.container->manifest.get()));
    if (job.manner != ExportManner::Plain) {
        reportNameless(job, target);
    }
    StoredNames known;
    const CFIndex count = names.GetCount();
    // Manifest and metadata stand behind all files.
    const CFIndex files = CFArrayGetCount(KVManifestGetFileIDs(job.container->manifest.get()));
    for (CFIndex i = 0; i < count; ++i) {
        exportFile(job, target, static_cast<CFStringRef>(names.GetAt(i)), i >= files, known);
        job.progress.FileDone();
    }
    if (job.manner == ExportManner::Device) {
        WriteUnlistedFiles(job, target, known);
    }
}

} // namespace Kelvane
