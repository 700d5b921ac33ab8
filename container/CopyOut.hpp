// Getting contents out of a container, for the container's own use.
#pragma once

#include "container/KVBackupContainerClass.hpp"

#include <string>

namespace Kelvane {

// A manifest database as a file to read, gone with the object: read it before.
class WrittenManifestDatabase {
  public:
    // Writes the container's manifest, of any size, to a working file, and references it.
    // Throws code 1 "Failed to create data representation of Manifest DB".
    explicit WrittenManifestDatabase(const KVBackupContainerClass &container);
    WrittenManifestDatabase(const WrittenManifestDatabase &) = delete;
    WrittenManifestDatabase &operator=(const WrittenManifestDatabase &) = delete;
    ~WrittenManifestDatabase();

    // As it lies in a backup: encrypted on reading when the container is.
    const FileRef &File() const noexcept { return file_; }

  private:
    std::string path_;
    FileRef file_;
};

// A metadata dictionary as a file of the store. Throws code 1 "Failed to create data representation
// of metadata (%@)", code 8 underneath for one that would be too large to be read again.
FileRef WriteMetadata(const CF::Dictionary &dictionary, CFStringRef name,
                      CFPropertyListFormat format);

} // namespace Kelvane
