// The exported function that writes a backup out in the devices' form.
#include "KVBackupWriting.h"

#include "Kelvane/Error.hpp"
#include "container/DeviceForm.hpp"
#include "container/ExportRun.hpp"
#include "foundation/Boundary.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace Kelvane {

namespace {

constexpr KVBackupWriteFlags kKnownFlags = kKVBackupWriteKeepUnlisted | kKVBackupWriteDecrypted;

[[noreturn]] void throwUnknownOptions() {
    throw Error(kKVErrorInvalidArgument, nullptr, "Unknown write options");
}

// As this version knows them; those of an earlier one would be shorter.
KVBackupWriteOptions readOptions(const KVBackupWriteOptions *given) {
    KVBackupWriteOptions options{};
    if (given == nullptr) {
        return options;
    }
    if (given->size != sizeof options) {
        throwUnknownOptions();
    }
    options = *given;
    const bool decryptsLegacy =
        options.form == kKVBackupFormLegacy && (options.flags & kKVBackupWriteDecrypted) != 0;
    if (options.target > kKVBackupTargetZip || options.form > kKVBackupFormLegacy ||
        (options.flags & ~kKnownFlags) != 0 || decryptsLegacy) {
        throwUnknownOptions();
    }
    return options;
}

Export begin(KVBackupContainerClass *container, const KVBackupWriteOptions &options) {
    const bool legacy = options.form == kKVBackupFormLegacy;
    const bool zip = options.target == kKVBackupTargetZip;
    Export job = BeginExport(container, ExportManner::Unlimited,
                             AsFunction(options.progress, options.context), true);
    if (!legacy) {
        job.manner = ExportManner::Device;
        job.form = MakeDeviceForm(*container, (options.flags & kKVBackupWriteDecrypted) != 0, zip);
    }
    job.keepsUnlisted = (options.flags & kKVBackupWriteKeepUnlisted) != 0;
    return job;
}

// Sets the fields that lie within the report of the host's version.
void fillIn(KVBackupWriteReport *report, const KVBackupExportReport &done, std::int64_t bytes,
            std::int64_t unlistedFiles) {
    if (report == nullptr) {
        CFRelease(done.errors);
        CFRelease(done.notes);
        return;
    }
    *report = {report->size,      done.errors, done.notes,   done.metadataWritten,
               done.filesWritten, bytes,       unlistedFiles};
}

bool write(KVBackupContainerClass *container, CFStringRef path, const KVBackupWriteOptions &options,
           KVBackupWriteReport *report) {
    KVBackupExportReport done{};
    Export job = begin(container, options);
    const bool finished = options.target == kKVBackupTargetZip
                              ? RunZipExport(job, CF::String(path), &done)
                              : RunDirectoryExport(job, CF::String(path), &done);
    fillIn(report, done, job.progress.Written(), job.report.UnlistedFiles());
    return finished;
}

} // namespace

} // namespace Kelvane

Boolean KVBackupContainerWrite(KVBackupContainerClass *container, CFStringRef path,
                               const KVBackupWriteOptions *options, KVBackupWriteReport *report) {
    if (report != nullptr && report->size != sizeof *report) {
        return false; // there is no telling what may be written to
    }
    Kelvane::LocalError error;
    bool returned = false;
    const bool finished = Kelvane::AtClosedBoundary(error.out(), false, [&] {
        Kelvane::PrepareReports();
        const bool result = Kelvane::write(container, path, Kelvane::readOptions(options), report);
        returned = true;
        return result;
    });
    if (!returned && report != nullptr) {
        KVBackupExportReport failure{};
        Kelvane::FillInFailure(&failure, error.get());
        Kelvane::fillIn(report, failure, 0, 0);
    }
    return finished;
}
