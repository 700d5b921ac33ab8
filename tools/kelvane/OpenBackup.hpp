// Opening the backup that the command line names.
#pragma once

#include "KVBackupContainer.h"
#include "support/cf/Pointer.hpp"

#include <string>

namespace tool {

using Container = CF::Pointer<KVBackupContainerClass *>;

struct BackupOptions {
    std::string backup;
    std::string passwordFile; // empty: ask on the terminal when the backup is encrypted
    std::string temporaryParent;
};

// Opens the directory or zip. Class keys that are bound to the device stay locked. Throws
// Failure.
Container OpenBackup(const BackupOptions &options);

// False for a backup of the version with a binary manifest.
bool UsesDatabase(const Container &container);

} // namespace tool
