// The exported functions that write a backup out.
#include "container/Export.hpp"
#include "foundation/Boundary.hpp"

#include <utility>

namespace Kelvane {

namespace {

using ProgressFunction = std::function<void(double)>;

ProgressFunction asFunction(KVBackupExportProgressCallBack callback, void *context) {
    if (callback == nullptr) {
        return {};
    }
    return [callback, context](double fraction) { callback(fraction, context); };
}

Export begin(KVBackupContainerClass *container, ExportManner manner, ProgressFunction progress,
             const KVBackupExportReport *report) {
    return {
        container, manner,
        manner == ExportManner::Plain ? MakePlainForm(*container) : MakeUnlimitedForm(*container),
        ExportProgress(std::move(progress)), ExportReport(report != nullptr, container->Version())};
}

void writeDirectory(Export &job, const CF::String &path) {
    job.progress.Start();
    RequireNothingAt(path);
    RequireWritableManifest(job);
    WriteStoredFiles(job, *CreateDirectoryTarget(path));
}

// Without a report there is nobody to tell that the archive is missing but the log.
void completeZip(Export &job, ZipExportTarget &target) {
    try {
        target.Complete();
    } catch (const CF::Error &error) {
        if (job.manner != ExportManner::Plain) {
            throw;
        }
        job.report.Log(error);
    }
}

void writeZip(Export &job, const CF::String &path) {
    job.progress.Start();
    RequireNothingAt(path);
    RequireWritableManifest(job);
    const auto target = CreateZipTarget(path, job.manner);
    if (!target->IsOpen() && job.manner != ExportManner::Plain) {
        target->Complete(); // tells why
    }
    WriteStoredFiles(job, *target);
    if (target->IsOpen()) {
        completeZip(job, *target);
    }
}

// Runs the steps of an export; true when they come to their end.
template <class Steps>
bool run(Export job, KVBackupExportReport *report, Steps steps) {
    bool finished = true;
    try {
        steps(job);
    } catch (const CF::Error &error) {
        job.report.Failed(error);
        finished = false;
    }
    job.report.FillIn(report);
    return finished;
}

// For hosts in C: what ends an export by an exception ends up in the report.
template <class Run>
Boolean atClosedBoundary(KVBackupExportReport *report, Run run) noexcept {
    LocalError error;
    bool returned = false;
    const bool finished = AtClosedBoundary(error.out(), false, [&] {
        PrepareReports();
        const bool result = run();
        returned = true;
        return result;
    });
    if (!returned) {
        FillInFailure(report, error.get());
    }
    return finished;
}

bool exportToDirectory(Export job, CFStringRef path, KVBackupExportReport *report) {
    return run(std::move(job), report,
               [path](Export &started) { writeDirectory(started, CF::String(path)); });
}

bool exportToZip(Export job, CFStringRef path, KVBackupExportReport *report) {
    return run(std::move(job), report,
               [path](Export &started) { writeZip(started, CF::String(path)); });
}

} // namespace

} // namespace Kelvane

bool KVBackupContainerExportToDirectory(KVBackupContainerClass *container,
                                        CFStringRef directoryPath,
                                        std::function<void(double)> progress) {
    return Kelvane::exportToDirectory(
        Kelvane::begin(container, Kelvane::ExportManner::Plain, std::move(progress), nullptr),
        directoryPath, nullptr);
}

bool KVBackupContainerExportToDirectoryWithReport(KVBackupContainerClass *container,
                                                  CFStringRef directoryPath,
                                                  std::function<void(double)> progress,
                                                  KVBackupExportReport *report) {
    return Kelvane::exportToDirectory(
        Kelvane::begin(container, Kelvane::ExportManner::Unlimited, std::move(progress), report),
        directoryPath, report);
}

Boolean KVBackupContainerWriteDirectory(KVBackupContainerClass *container,
                                        CFStringRef directoryPath,
                                        KVBackupExportProgressCallBack progress, void *context,
                                        KVBackupExportReport *report) {
    return Kelvane::atClosedBoundary(report, [&] {
        return KVBackupContainerExportToDirectoryWithReport(
            container, directoryPath, Kelvane::asFunction(progress, context), report);
    });
}

bool KVBackupContainerExportToZip(KVBackupContainerClass *container, CFStringRef zipPath,
                                  std::function<void(double)> progress) {
    return Kelvane::exportToZip(
        Kelvane::begin(container, Kelvane::ExportManner::Plain, std::move(progress), nullptr),
        zipPath, nullptr);
}

bool KVBackupContainerExportToZipWithReport(KVBackupContainerClass *container, CFStringRef zipPath,
                                            std::function<void(double)> progress,
                                            KVBackupExportReport *report) {
    return Kelvane::exportToZip(
        Kelvane::begin(container, Kelvane::ExportManner::Unlimited, std::move(progress), report),
        zipPath, report);
}

Boolean KVBackupContainerWriteZipFile(KVBackupContainerClass *container, CFStringRef zipPath,
                                      KVBackupExportProgressCallBack progress, void *context,
                                      KVBackupExportReport *report) {
    return Kelvane::atClosedBoundary(report, [&] {
        return KVBackupContainerExportToZipWithReport(
            container, zipPath, Kelvane::asFunction(progress, context), report);
    });
}
