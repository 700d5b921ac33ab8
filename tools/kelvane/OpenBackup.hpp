// Opening the backup that the command line names.
#pragma once

#include "KVBackupContainer.h"
#include "support/cf/Error.hpp"
#include "support/cf/Pointer.hpp"

#include <array>
#include <string>

namespace tool {

using Container = CF::Pointer<KVBackupContainerClass *>;

struct BackupOptions {
    std::string backup;
    std::string passwordFile; // empty: ask on the terminal when the backup is encrypted
    std::string temporaryParent;
    bool followLinks = false; // below a backup directory
};

// Opens the directory or zip. Class keys that are bound to the device stay locked. Throws
// Failure.
Container OpenBackup(const BackupOptions &options);

// The metadata files of a backup beside its manifest.
inline constexpr std::array kPropertyLists = {"Manifest.plist", "Info.plist", "Status.plist"};

// Why a metadata file that is there was taken for empty; else null.
CF::Error MetadataError(const Container &container, const char *fileName);

// What Status.plist says of the snapshot that the backup is; empty when it says nothing.
std::string SnapshotState(const Container &container);

// False for a backup of the version with a binary manifest.
bool UsesDatabase(const Container &container);

} // namespace tool
