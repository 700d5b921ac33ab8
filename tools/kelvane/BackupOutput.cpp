#include "BackupOutput.hpp"

#include "BackupPlace.hpp"
#include "Diagnostics.hpp"
#include "EntryRecord.hpp"
#include "ExitStatus.hpp"
#include "KVBackupWriting.h"
#include "KVManifest.h"
#include "NewOutput.hpp"
#include "ProgressBar.hpp"
#include "Selection.hpp"
#include "Units.hpp"
#include "Unloadable.hpp"
#include "support/cf/Array.hpp"

#include <cmath>
#include <filesystem>
#include <memory>
#include <string_view>
#include <sys/stat.h>

namespace tool {

namespace {

bool asZip(const BackupOutputOptions &options) {
    return options.zip || WithoutTrailingSlashes(options.output).ends_with(".zip");
}

// Turns the fractions that an export reports into bytes.
class Progress {
  public:
    explicit Progress(const Container &container)
        : total_(KVManifestGetTotalFileSize(KVBackupContainerGetManifest(container.get()))),
          bar_(total_) {}

    static void Report(double fraction, void *context) {
        static_cast<Progress *>(context)->advanceTo(fraction);
    }

  private:
    void advanceTo(double fraction) {
        const double bytes = fraction * static_cast<double>(total_);
        // Sizes in a manifest need not be true; without any, every fraction is infinite.
        if (std::isfinite(bytes) && bytes >= 0) {
            const std::int64_t done = ToInteger(bytes);
            bar_.Advance(done - done_);
            done_ = done;
        }
    }

    std::int64_t total_;
    std::int64_t done_ = 0;
    ProgressBar bar_;
};

// What an export tells of itself.
struct Outcome {
    bool finished = false;
    bool isBackup = false;
    std::int64_t filesWritten = 0;
    std::int64_t bytesWritten = 0;
    std::int64_t unlistedFiles = 0;
    CF::Array errors;
    CF::Array notes;
};

KVBackupWriteFlags flagsOf(const BackupOutputOptions &options) {
    return (options.keepUnlisted ? kKVBackupWriteKeepUnlisted : kKVBackupWriteDefault) |
           (options.decrypted ? kKVBackupWriteDecrypted : kKVBackupWriteDefault);
}

Outcome runExport(const Container &container, const std::string &path,
                  const BackupOutputOptions &output) {
    Progress progress(container);
    KVBackupWriteOptions options{};
    options.size = sizeof options;
    options.target = asZip(output) ? kKVBackupTargetZip : kKVBackupTargetDirectory;
    options.form = output.legacy ? kKVBackupFormLegacy : kKVBackupFormDevice;
    options.flags = flagsOf(output);
    options.progress = &Progress::Report;
    options.context = &progress;
    KVBackupWriteReport report{};
    report.size = sizeof report;
    const bool finished =
        KVBackupContainerWrite(container.get(), ArgumentText(path).get(), &options, &report) != 0;
    return {finished,
            report.metadataWritten != 0,
            report.filesWritten,
            report.bytesWritten,
            report.unlistedFiles,
            CF::Array::Adopt(report.errors),
            CF::Array::Adopt(report.notes)};
}

CF::Error errorAt(const CF::Array &errors, CFIndex index) {
    return CF::Error(static_cast<CFErrorRef>(const_cast<void *>(errors.GetAt(index))));
}

// The entry whose stored file the error's reason names, "File NAME could not be ..."; else null.
Entry *entryOf(const Container &container, const CF::Error &error) {
    constexpr std::string_view kBefore = "File ";
    constexpr std::string_view kAfter = " could not be ";
    const std::string reason = error.GetFailureReason().GetUTF8();
    const std::size_t end = reason.rfind(kAfter);
    if (!reason.starts_with(kBefore) || end == std::string::npos || end < kBefore.size()) {
        return nullptr;
    }
    const CF::String name(reason.substr(kBefore.size(), end - kBefore.size()));
    return KVBackupContainerGetEntryForLocalFilename(container.get(), name.get(), nullptr);
}

// A stored file that is not there, or cannot be read, is not to be told as an error of the program.
// What cannot be decrypted is there.
Failure describe(const CF::Error &error) {
    const bool unloaded = error.GetCode() == kKVErrorLoadRepresentation &&
                          !FindCode(error, kKVErrorUnlockFailed) &&
                          !FindCode(error, kKVErrorCrypto);
    return unloaded ? UnloadableContent(error) : Failure(error);
}

void printErrors(const Container &container, const CF::Array &errors) {
    for (CFIndex i = 0; i < errors.GetCount(); ++i) {
        const CF::Error error = errorAt(errors, i);
        Entry *entry = entryOf(container, error);
        if (entry != nullptr) {
            describe(error).PrintFor(FullPath(entry));
        } else {
            Failure(error).Print();
        }
    }
}

void printNotes(const CF::Array &notes) {
    for (CFIndex i = 0; i < notes.GetCount(); ++i) {
        Failure(errorAt(notes, i)).PrintFor("warning");
    }
}

// What an output takes: the contents that were written, or the archive of them.
std::int64_t sizeOf(const std::string &path, const Outcome &outcome) {
    struct stat status {};
    const bool isArchive = lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    return isArchive ? static_cast<std::int64_t>(status.st_size) : outcome.bytesWritten;
}

std::string countText(std::size_t count, const char *what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// Files that no entry names are no part of a backup, but may be what somebody put there.
void printUnlisted(std::int64_t count, const BackupOutputOptions &options) {
    if (count > 0) {
        PrintMessage(countText(static_cast<std::size_t>(count), "file") + " of the backup " +
                     (count == 1 ? "is" : "are") + " not named by its manifest and " +
                     (count == 1 ? "was" : "were") +
                     (options.keepUnlisted ? " taken along" : " left out (see --keep-unlisted)"));
    }
}

} // namespace

void CheckBackupOutput(const BackupOutputOptions &options, const BackupOptions &backup) {
    const std::string path = WithoutTrailingSlashes(options.output);
    RequireVacant(path.empty() ? "/" : path, IfPresent::Refuse);
    // What is written into a backup would be taken for a part of it.
    BackupPlace(backup.backup).RequireOutside(options.output);
}

void WarnOfUnreadChanges(const Container &container) {
    if (!UsesDatabase(container)) {
        return;
    }
    const auto visit = [](const KVBackupSourceFile *file, void *) -> Boolean {
        const bool found = CFEqual(file->name, CFSTR("Manifest.db-wal")) && file->size > 0;
        if (found) {
            PrintMessage("warning: Manifest.db-wal holds " + std::to_string(file->size) +
                         " bytes of changes to the manifest, which are not read");
        }
        return !found;
    };
    // A source that cannot be listed fails in what it is read for.
    KVBackupContainerListSourceFiles(container.get(), visit, nullptr, nullptr);
}

int WriteBackup(const Container &container, const BackupOutputOptions &options) {
    NewOutput output(options.output, IfPresent::Refuse);
    const Outcome outcome = runExport(container, output.PartialPath(), options);
    printErrors(container, outcome.errors);
    printNotes(outcome.notes);
    if (!outcome.finished || !outcome.isBackup) {
        throw Failure("Nothing was written to '" + options.output +
                      "': without its manifest and metadata it would be no backup");
    }
    const auto skipped = static_cast<std::size_t>(outcome.errors.GetCount());
    const std::int64_t bytes = sizeOf(output.PartialPath(), outcome);
    output.Publish();
    PrintMessage(countText(static_cast<std::size_t>(outcome.filesWritten), "file") + ", " +
                 SizeText(bytes) + " (" + std::to_string(bytes) + " bytes), written to the " +
                 (asZip(options) ? "zip" : "directory") + " '" + options.output + "'" +
                 (skipped > 0 ? "; " + countText(skipped, "file") + " skipped" : ""));
    printUnlisted(outcome.unlistedFiles, options);
    return skipped == 0 ? kDone : kFailed;
}

} // namespace tool
