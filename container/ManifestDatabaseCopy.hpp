// The source's manifest as a private plaintext copy.
#pragma once

#include "container/KVBackupContainerClass.hpp"
#include "support/zk/Path.hpp"

namespace Kelvane {

// A Manifest.db under the temporary path that goes away with the object, and what SQLite keeps
// beside it as well.
class ManifestDatabaseCopy {
  public:
    // Takes over the file.
    explicit ManifestDatabaseCopy(std::string path) noexcept : path_(std::move(path)) {}
    // Copies that of the container's source, decrypted where the backup is encrypted. Throws
    // CF::Error.
    explicit ManifestDatabaseCopy(const KVBackupContainerClass &container);
    ManifestDatabaseCopy(const ManifestDatabaseCopy &) = delete;
    ManifestDatabaseCopy &operator=(const ManifestDatabaseCopy &) = delete;
    ~ManifestDatabaseCopy();

    const std::string &Path() const noexcept { return path_; }

  private:
    std::string path_;
};

} // namespace Kelvane
