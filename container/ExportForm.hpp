// What a backup that is written holds under its stored names.
#pragma once

#include "container/ExportContent.hpp"
#include "container/ExportProgress.hpp"
#include "container/ExportReport.hpp"
#include "container/KVBackupContainerClass.hpp"
#include "manifest/KVManifestEntryClass.hpp"

#include <memory>

namespace Kelvane {

class ExportTarget;

// Content that is to be written, with what has to stay until it is.
struct ExportPiece {
    std::shared_ptr<const void> kept; // goes after what borrows it
    FileRef file;
    std::unique_ptr<ExportContent> content;
    // Whether the content is worth compressing: ciphertext is not.
    bool compressible = true;
    // What is to be said of it once it is written; null for nothing.
    CF::Error note;

    // The content is that of the file.
    void Take(FileRef taken) {
        file = std::move(taken);
        content = std::make_unique<FileContent>(file.get());
    }
};

class ExportForm {
  public:
    ExportForm() = default;
    ExportForm(const ExportForm &) = delete;
    ExportForm &operator=(const ExportForm &) = delete;
    virtual ~ExportForm() = default;

    // The content for that stored name, of a file, the manifest or a metadata file, asked for in
    // this order. Throws CF::Error. No content and no error: the backup is complete without it.
    virtual ExportPiece Load(CFStringRef name) = 0;
    // The entry's file was not written.
    virtual void Skipped(const KVManifestEntryClass &) {}
};

// The form of the plain exports: the manifest is built in memory, metadata written anew.
std::unique_ptr<ExportForm> MakePlainForm(KVBackupContainerClass &container);
// The same entries and metadata without limits of size; metadata that cannot be read or written
// is carried over.
std::unique_ptr<ExportForm> MakeUnlimitedForm(KVBackupContainerClass &container);

// An entry keeps its content once it is loaded, half a kilobyte of it. What an export loads
// it lets go again, or a million entries would grow by that for having been written. Out of
// a zip content is unpacked to be loaded, which is not to be done twice.
class LoadedForNow {
  public:
    // entry may be null.
    LoadedForNow(const KVBackupContainerClass &container, const KVManifestEntryClass *entry);
    LoadedForNow(const LoadedForNow &) = delete;
    LoadedForNow &operator=(const LoadedForNow &) = delete;
    ~LoadedForNow();

  private:
    const KVManifestEntryClass *entry_;
    FileLoader loader_;
};

} // namespace Kelvane
