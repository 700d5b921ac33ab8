// Backups that lie in a folder of what was to be opened, as archivers and copies leave them.
#pragma once

#include "container/BackupSource.hpp"

#include <memory>

namespace Kelvane {

// A source, and where in what was opened it begins.
struct FoundSource {
    std::shared_ptr<BackupSource> source;
    // The folder's name; empty for a backup that lies where it was looked for, and for none.
    CF::String folder;
    // The directory or zip that the source reads.
    CF::String path;
};

// The directory itself, or the only folder in it that holds a backup when it holds none. Links
// are no such folders unless they are followed. Throws code 10 "More than one backup lies in
// %@: %@, %@"; what else may be wrong shows when the source is used.
FoundSource FindBackupInDirectory(const CF::String &directory, Links links);

// The same for the records of a zip, of which only those below the folder are then seen.
FoundSource FindBackupInZip(const CF::String &zipPath);

} // namespace Kelvane
