#include "container/Export.hpp"

#include "Kelvane/Error.hpp"
#include "container/CopyOut.hpp"
#include "container/StoredName.hpp"
#include "foundation/Boundary.hpp"
#include "manifest/KVManifestClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"

#include <boost/filesystem/operations.hpp>

#include <exception>
#include <optional>
#include <unordered_set>

namespace Kelvane {

namespace {

struct HashText {
    std::size_t operator()(CFStringRef text) const noexcept { return CFHash(text); }
};
struct EqualTexts {
    bool operator()(CFStringRef one, CFStringRef other) const noexcept {
        return CFEqual(one, other);
    }
};
// Borrowed names: there may be a million.
using NameSet = std::unordered_set<CFStringRef, HashText, EqualTexts>;

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

// An entry keeps its content once it is loaded, half a kilobyte of it. What an export loads
// it lets go again, or a million entries would grow by that for having been written. Out of
// a zip content is unpacked to be loaded, which is not to be done twice.
class LoadedForNow {
  public:
    LoadedForNow(const Export &job, CFStringRef name)
        : entry_(job.container->sourceKind == SourceKind::Directory
                     ? KVBackupContainerGetEntryForLocalFilename(job.container, name, nullptr)
                     : nullptr) {
        if (entry_ != nullptr && !entry_->file) {
            loader_ = entry_->getFileFunc;
        }
    }
    LoadedForNow(const LoadedForNow &) = delete;
    LoadedForNow &operator=(const LoadedForNow &) = delete;
    ~LoadedForNow() {
        if (loader_ != nullptr) {
            entry_->file = nullptr;
            entry_->getFileFunc = loader_;
        }
    }

  private:
    const KVManifestEntryClass *entry_;
    FileLoader loader_;
};

// Content that is to be written, with what has to stay until it is.
struct Loaded {
    std::optional<WrittenManifestDatabase> database;
    FileRef file;
    // What is to be said of it once it is written; null for nothing.
    CF::Error note;
};

void loadPlainly(const Export &job, CFStringRef name, Loaded &loaded) {
    LocalError error;
    loaded.file = FileRef(
        CF::adopt, KVBackupContainerCopyFileForLocalFilename(job.container, name, error.out()));
    if (!loaded.file) {
        throw error.get();
    }
}

CF::Error makeNote(const CF::Error &cause, const char *text, CFStringRef name) {
    return Error(kKVErrorInvalidMetadata, cause, CF::String(text), name);
}

// A metadata file that could not be read is not known well enough to be written anew, and a
// dictionary that was read may hold what cannot be written: both go over byte for byte.
void loadMetadata(const Export &job, CFStringRef name, const SourceMetadata &source,
                  Loaded &loaded) {
    if (source.unreadable) {
        loaded.file = source.file;
        loaded.note =
            makeNote(source.unreadable, "File %@ could not be read and was copied as it is", name);
        return;
    }
    try {
        loadPlainly(job, name, loaded);
    } catch (const CF::Error &cause) {
        loaded.file = source.file;
        loaded.note =
            makeNote(cause, "File %@ could not be written anew and was copied as it is", name);
    }
}

void loadContent(const Export &job, CFStringRef name, Loaded &loaded) {
    const std::string text = CF::String::GetUTF8(name);
    const auto source = job.container->sourceMetadata.find(text);
    const bool fromSource = source != job.container->sourceMetadata.end();
    if (job.manner == ExportManner::Plain) {
        loadPlainly(job, name, loaded);
        if (fromSource && source->second.unreadable) {
            loaded.note = makeNote(source->second.unreadable,
                                   "File %@ could not be read and was written empty", name);
        }
    } else if (text == kManifestDatabaseName) {
        loaded.database.emplace(*job.container);
        loaded.file = loaded.database->File();
    } else if (fromSource) {
        loadMetadata(job, name, source->second, loaded);
    } else {
        loadPlainly(job, name, loaded);
    }
}

void load(const Export &job, CFStringRef name, CFStringRef failure, Loaded &loaded) {
    try {
        asOwnError([&] { loadContent(job, name, loaded); });
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorLoadRepresentation, cause, failure, name);
    }
}

void write(Export &job, ExportTarget &target, CFStringRef name, const KVFileClass *file) {
    try {
        asOwnError(
            [&] { target.Write(CF::String::GetUTF8(name), FileContent(file), job.progress); });
    } catch (const CF::Error &cause) {
        throw Error(kKVErrorWriteRepresentation, cause, target.NotWritten(), name);
    }
}

// Names come from the manifest, which may have been made to lead out of the target.
void requireSafe(const ExportTarget &target, CFStringRef name) {
    try {
        if (!IsSafeStoredName(CF::String(name))) {
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
        }
    });
}

void exportFile(Export &job, ExportTarget &target, CFStringRef name, NameSet &known) {
    try {
        if (job.manner == ExportManner::Unlimited && CFStringGetLength(name) == 0) {
            return; // reported with its entry
        }
        requireSafe(target, name);
        // Two entries of one file ID have one content, that of the entry which a lookup finds.
        if (!known.insert(name).second) {
            return;
        }
        const LoadedForNow unloading(job, name);
        Loaded loaded;
        load(job, name, target.NotLoaded(), loaded);
        write(job, target, name, loaded.file.get());
        job.report.Written(CF::String::GetUTF8(name));
        if (loaded.note) {
            job.report.Noted(loaded.note);
        }
    } catch (const CF::Error &error) {
        job.report.Skipped(error);
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
    if (job.manner == ExportManner::Unlimited &&
        job.container->Version() == kKVManifestDataVersion24 &&
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
    if (job.manner == ExportManner::Unlimited) {
        reportNameless(job, target);
    }
    NameSet known;
    const CFIndex count = names.GetCount();
    for (CFIndex i = 0; i < count; ++i) {
        exportFile(job, target, static_cast<CFStringRef>(names.GetAt(i)), known);
        job.progress.FileDone();
    }
}

} // namespace Kelvane
