// The exported functions that write a backup out.
#include "container/ExportRun.hpp"
#include "foundation/Boundary.hpp"

#include <utility>

namespace Kelvane {

namespace {

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

} // namespace

} // namespace Kelvane

bool KVBackupContainerExportToDirectory(KVBackupContainerClass *container,
                                        CFStringRef directoryPath,
                                        std::function<void(double)> progress) {
    return Kelvane::RunDirectoryExport(container, Kelvane::ExportManner::Plain, std::move(progress),
                                       directoryPath, nullptr);
}

bool KVBackupContainerExportToDirectoryWithReport(KVBackupContainerClass *container,
                                                  CFStringRef directoryPath,
                                                  std::function<void(double)> progress,
                                                  KVBackupExportReport *report) {
    return Kelvane::RunDirectoryExport(container, Kelvane::ExportManner::Unlimited,
                                       std::move(progress), directoryPath, report);
}

Boolean KVBackupContainerWriteDirectory(KVBackupContainerClass *container,
                                        CFStringRef directoryPath,
                                        KVBackupExportProgressCallBack progress, void *context,
                                        KVBackupExportReport *report) {
    return Kelvane::atClosedBoundary(report, [&] {
        return KVBackupContainerExportToDirectoryWithReport(
            container, directoryPath, Kelvane::AsFunction(progress, context), report);
    });
}

bool KVBackupContainerExportToZip(KVBackupContainerClass *container, CFStringRef zipPath,
                                  std::function<void(double)> progress) {
    return Kelvane::RunZipExport(container, Kelvane::ExportManner::Plain, std::move(progress),
                                 zipPath, nullptr);
}

bool KVBackupContainerExportToZipWithReport(KVBackupContainerClass *container, CFStringRef zipPath,
                                            std::function<void(double)> progress,
                                            KVBackupExportReport *report) {
    return Kelvane::RunZipExport(container, Kelvane::ExportManner::Unlimited, std::move(progress),
                                 zipPath, report);
}

Boolean KVBackupContainerWriteZipFile(KVBackupContainerClass *container, CFStringRef zipPath,
                                      KVBackupExportProgressCallBack progress, void *context,
                                      KVBackupExportReport *report) {
    return Kelvane::atClosedBoundary(report, [&] {
        return KVBackupContainerExportToZipWithReport(
            container, zipPath, Kelvane::AsFunction(progress, context), report);
    });
}
