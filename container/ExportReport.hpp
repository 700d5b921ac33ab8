#pragma once

#include "KVBackupContainer.h"
#include "support/cf/CF.hpp"

#include <set>
#include <string>

namespace Kelvane {

// What an export had to leave out. Every error is logged; they are kept as well when
// somebody wants to have them.
class ExportReport {
  public:
    // version: that of the manifest, which says what file it is written to.
    ExportReport(bool keepErrors, KVManifestDataVersion version);

    // A file was skipped.
    void Skipped(const CF::Error &error);
    // The export cannot go on. The error takes the place of those of skipped files, which
    // say nothing about a result that does not exist.
    void Failed(const CF::Error &error);
    // Something that people should know of a file that was written.
    void Noted(const CF::Error &error);
    // An error that does not change the result, and that nobody but the log is told of.
    void Log(const CF::Error &error) const;
    // A file was written.
    void Written(const std::string &name);
    // A file of the source that no entry names.
    void Unlisted() noexcept { ++unlistedFiles_; }
    // The backup is complete without that file.
    void NotNeeded(const std::string &name) { missing_.erase(name); }

    // Hands the report out; null is allowed.
    void FillIn(KVBackupExportReport *report) const;
    std::int64_t UnlistedFiles() const noexcept { return unlistedFiles_; }

  private:
    bool keepErrors_;
    CF::Array errors_ = CF::Array::Mutable();
    CF::Array notes_ = CF::Array::Mutable();
    std::int64_t filesWritten_ = 0;
    std::int64_t unlistedFiles_ = 0;
    // What a backup cannot do without, as far as it is not yet written.
    std::set<std::string> missing_;
};

// Makes what FillInFailure needs when there is no memory left.
void PrepareReports();
// Fills a report, which may be null, with the error that ended an export.
void FillInFailure(KVBackupExportReport *report, const CF::Error &error) noexcept;

} // namespace Kelvane
