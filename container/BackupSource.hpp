// Where a container reads the backup's files from.
#pragma once

#include "KVFile.h"
#include "support/cf/Pointer.hpp"
#include "support/cf/String.hpp"

#include <memory>

namespace Kelvane {

// An owned file reference.
using FileRef = CF::Pointer<KVFileClass *>;

class BackupSource {
  public:
    virtual ~BackupSource() = default;
    BackupSource(const BackupSource &) = delete;
    BackupSource &operator=(const BackupSource &) = delete;

    // The file of that name relative to the backup's root. Throws CF::Error: code 10
    // "Unsafe stored file name (%@)" for a name that could lead out of the backup, and
    // what the kind of source reports.
    FileRef Load(const CF::String &name) const;
    // A source of its own over the same backup, for a copy of the container.
    virtual std::shared_ptr<BackupSource> Reopen() const = 0;

  protected:
    BackupSource() = default;
    // The name is safe.
    virtual FileRef LoadNamed(const CF::String &name) const = 0;
};

// Files are referenced in place. A missing one is code 16.
std::shared_ptr<BackupSource> OpenDirectorySource(const CF::String &directory);

// Records are unpacked into the file store. Opening fails with code 10 "Failed to open zip
// file (%@)". A missing record is code 10 "Could not locate file record in zip", a damaged
// one code 9; a zip error with minizip's status hangs underneath.
std::shared_ptr<BackupSource> OpenZipSource(const CF::String &zipPath);

} // namespace Kelvane
