#include "InPlace.hpp"

#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "EntryRecord.hpp"
#include "ExitStatus.hpp"
#include "KVBackupWriting.h"
#include "Selection.hpp"
#include "Units.hpp"

#include <sys/stat.h>
#include <unistd.h>

namespace tool {

namespace {

std::string countText(std::int64_t count) {
    return std::to_string(count) + (count == 1 ? " file" : " files");
}

} // namespace

void RequireChangeable(const BackupOptions &backup) {
    struct stat status {};
    if (stat(backup.backup.c_str(), &status) != 0) {
        throw Failure("'" + backup.backup + "' cannot be opened", SystemError());
    }
    if (!S_ISDIR(status.st_mode)) {
        throw Failure("'" + backup.backup + "' is no directory, and cannot be changed in place");
    }
    if (access(backup.backup.c_str(), R_OK | W_OK | X_OK) != 0) {
        throw Failure("'" + backup.backup + "' cannot be written to", SystemError());
    }
}

bool RecoverBackup(const BackupOptions &backup) {
    const CF::String path = ArgumentText(backup.backup);
    if (!KVBackupNeedsRecovery(path.get())) {
        return false;
    }
    KVBackupRecovery outcome = kKVBackupRecoveryNone;
    CFErrorRef error = nullptr;
    if (!KVBackupRecover(path.get(), &outcome, &error)) {
        throw Failure(CF::Error::Adopt(error));
    }
    if (outcome == kKVBackupRecoveryNone) {
        return false;
    }
    PrintMessage(outcome == kKVBackupRecoveryCompleted
                     ? "a change that was not brought to its end has been completed"
                     : "a change that was not decided has been taken back");
    return true;
}

int SaveInPlace(const Container &container, const BackupOptions &backup) {
    KVBackupSaveReport report{};
    report.size = sizeof report;
    CFErrorRef error = nullptr;
    if (!KVBackupContainerSaveInPlace(container.get(), &report, &error)) {
        const Failure failure(CF::Error::Adopt(error));
        if (report.needsRecovery) {
            failure.Print();
            throw Failure("The change was decided but not completed: 'kelvane recover " +
                          backup.backup + "' brings it to its end");
        }
        throw failure;
    }
    PrintMessage(countText(report.filesWritten) + " written, " + SizeText(report.bytesWritten) +
                 " (" + std::to_string(report.bytesWritten) + " bytes), and " +
                 countText(report.filesRemoved) + " removed in '" + backup.backup + "'");
    return kDone;
}

int RunRecover(const BackupOptions &backup) {
    RequireChangeable(backup);
    if (!RecoverBackup(backup)) {
        PrintMessage("there is no change to be completed or taken back");
    }
    return kDone;
}

} // namespace tool
