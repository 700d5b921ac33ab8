// Writing a whole backup out, as a directory or as a zip.
#pragma once

#include "OpenBackup.hpp"

#include <string>

namespace tool {

struct BackupOutputOptions {
    std::string output;
    bool zip = false;          // also when the name does not say so
    bool legacy = false;       // rows and metadata in the form of earlier versions
    bool keepUnlisted = false; // files of the source that no entry names go along
    bool decrypted = false;    // as a plain backup
};

// For before the backup is opened, which may take long. Throws Failure when the output exists
// already or would lie inside the backup.
void CheckBackupOutput(const BackupOutputOptions &options, const BackupOptions &backup);

// Says so when there are changes to the manifest beside it that were not read, and that
// therefore are not in what is written.
void WarnOfUnreadChanges(const Container &container);

// Writes the backup, and says what was written and what was not. The output is there when it
// is a backup, though files may be missing from it; else nothing is. Returns the exit status
// or throws Failure.
int WriteBackup(const Container &container, const BackupOutputOptions &options);

} // namespace tool
