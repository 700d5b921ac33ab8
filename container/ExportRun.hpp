// One export from its beginning to its report.
#pragma once

#include "container/Export.hpp"

#include <functional>

namespace Kelvane {

using ExportProgressFunction = std::function<void(double)>;

// A callback of a host in C; null makes an empty function.
ExportProgressFunction AsFunction(KVBackupExportProgressCallBack callback, void *context);

// An export in the form that belongs to the manner, but for the devices' one, which is the
// caller's to set. Errors are kept only when there will be a report.
Export BeginExport(KVBackupContainerClass *container, ExportManner manner,
                   ExportProgressFunction progress, bool reported);

// Run the export; true when it comes to its end. What ends it is reported. The report may be null.
bool RunDirectoryExport(Export &job, const CF::String &path, KVBackupExportReport *report);
bool RunZipExport(Export &job, const CF::String &path, KVBackupExportReport *report);

// The same for a new export.
bool RunDirectoryExport(KVBackupContainerClass *container, ExportManner manner,
                        ExportProgressFunction progress, CFStringRef path,
                        KVBackupExportReport *report);
bool RunZipExport(KVBackupContainerClass *container, ExportManner manner,
                  ExportProgressFunction progress, CFStringRef path, KVBackupExportReport *report);

} // namespace Kelvane
