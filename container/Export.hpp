// What writing a backup out is made of, whether it becomes a directory or a zip.
#pragma once

#include "container/ExportForm.hpp"
#include "container/ExportProgress.hpp"
#include "container/ExportReport.hpp"

#include <memory>
#include <string>
#include <unordered_set>

namespace Kelvane {

enum class ExportManner {
    // As hosts without a report have it: a zip has plain records, what is skipped is logged alone.
    Plain,
    // Zip64 is used where needed, and what is skipped is reported.
    Unlimited,
    // The same, and records of a zip may be packed in any way that readers take.
    Device
};

// One export on its way.
struct Export {
    KVBackupContainerClass *container;
    ExportManner manner;
    std::unique_ptr<ExportForm> form;
    ExportProgress progress;
    ExportReport report;
    // In the devices' manner: whether files of the source that no entry names go along.
    bool keepsUnlisted = false;
};

// Where the files of a backup go.
class ExportTarget {
  public:
    ExportTarget() = default;
    ExportTarget(const ExportTarget &) = delete;
    ExportTarget &operator=(const ExportTarget &) = delete;
    virtual ~ExportTarget() = default;

    // Formats of the errors of skipped files; they take the stored name.
    virtual CFStringRef NotLoaded() const = 0;
    virtual CFStringRef NotWritten() const = 0;
    // Writes the piece's content under the name, which is safe and comes once, and counts
    // the bytes. Throws CF::Error; nothing of the file is left then.
    virtual void Write(const std::string &name, const ExportPiece &piece,
                       ExportProgress &progress) = 0;
};

// A zip is complete only when its directory is written.
class ZipExportTarget : public ExportTarget {
  public:
    // False when the archive could not be created; every Write fails then.
    virtual bool IsOpen() const noexcept = 0;
    // Once, after the last file. Throws code 9 "The archive could not be completed (%d)".
    // An archive that was not completed goes with the object.
    virtual void Complete() = 0;
};

// Whether a zip record of content of that size may come to 4 GiB, compressed or not.
bool MayNeedZip64(std::uint64_t size);

// Throws code 14 "File already exists at path %@" when anything bears the name.
void RequireNothingAt(const CF::String &path);

// Throws code 14 "A backup of version 2.4 needs an entry: ..." for a binary manifest without any,
// which is one that no reader takes.
void RequireWritableManifest(const Export &job);

// Opens targets. The directory is made here: code 3 "Failed to create containing directory
// %@ - %s (%d)".
std::unique_ptr<ExportTarget> CreateDirectoryTarget(const CF::String &path);
std::unique_ptr<ZipExportTarget> CreateZipTarget(const CF::String &path, ExportManner manner);

// Borrowed stored names: there may be a million.
struct HashName {
    std::size_t operator()(CFStringRef text) const noexcept { return CFHash(text); }
};
struct EqualNames {
    bool operator()(CFStringRef one, CFStringRef other) const noexcept {
        return CFEqual(one, other);
    }
};
using StoredNames = std::unordered_set<CFStringRef, HashName, EqualNames>;

// Counts the files of the source that are not among the names, and writes them if the job says so.
void WriteUnlistedFiles(Export &job, ExportTarget &target, const StoredNames &named);

// Writes everything that the backup stores to the target, skipping and reporting what fails.
void WriteStoredFiles(Export &job, ExportTarget &target);

} // namespace Kelvane
