#include "Commands.hpp"

namespace tool {

int RunExport(const BackupOptions &backup, const ExportOptions &options) {
    CheckBackupOutput(options.output, backup);
    const Container container = OpenBackup(backup);
    WarnOfUnreadChanges(container);
    return WriteBackup(container, options.output);
}

} // namespace tool
