#include "container/ExportRun.hpp"

#include <utility>

namespace Kelvane {

namespace {

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
bool run(Export &job, KVBackupExportReport *report, Steps steps) {
    bool finished = true;
    try {
        steps();
    } catch (const CF::Error &error) {
        job.report.Failed(error);
        finished = false;
    }
    job.report.FillIn(report);
    return finished;
}

} // namespace

ExportProgressFunction AsFunction(KVBackupExportProgressCallBack callback, void *context) {
    if (callback == nullptr) {
        return {};
    }
    return [callback, context](double fraction) { callback(fraction, context); };
}

Export BeginExport(KVBackupContainerClass *container, ExportManner manner,
                   ExportProgressFunction progress, bool reported) {
    return {container, manner,
            manner == ExportManner::Plain ? MakePlainForm(*container)
                                          : MakeUnlimitedForm(*container),
            ExportProgress(std::move(progress)), ExportReport(reported, container->Version())};
}

bool RunDirectoryExport(Export &job, const CF::String &path, KVBackupExportReport *report) {
    return run(job, report, [&] { writeDirectory(job, path); });
}

bool RunZipExport(Export &job, const CF::String &path, KVBackupExportReport *report) {
    return run(job, report, [&] { writeZip(job, path); });
}

bool RunDirectoryExport(KVBackupContainerClass *container, ExportManner manner,
                        ExportProgressFunction progress, CFStringRef path,
                        KVBackupExportReport *report) {
    Export job = BeginExport(container, manner, std::move(progress), report != nullptr);
    return RunDirectoryExport(job, CF::String(path), report);
}

bool RunZipExport(KVBackupContainerClass *container, ExportManner manner,
                  ExportProgressFunction progress, CFStringRef path, KVBackupExportReport *report) {
    Export job = BeginExport(container, manner, std::move(progress), report != nullptr);
    return RunZipExport(job, CF::String(path), report);
}

} // namespace Kelvane
