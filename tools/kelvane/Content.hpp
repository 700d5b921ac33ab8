// The plaintext of a file of the backup.
#pragma once

#include "KVFile.h"
#include "OpenBackup.hpp"
#include "Selection.hpp"
#include "TemporaryArea.hpp"
#include "support/cf/Data.hpp"
#include "support/cf/Error.hpp"

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace tool {

using FileReference = CF::Pointer<KVFileClass *>;

// Removes what the library unpacked for a file from a zip: kept, it would fill the temporary
// directory with the whole backup.
class UnpackedFile {
  public:
    // The area must outlive the object.
    UnpackedFile(const TemporaryArea &area, const FileReference &stored);
    UnpackedFile(const UnpackedFile &) = delete;
    UnpackedFile &operator=(const UnpackedFile &) = delete;
    ~UnpackedFile();

  private:
    std::string path_;
    bool ours_;
};

// A file of the backup, to be read as plaintext. What was unpacked for it is removed with the
// object.
class Content {
  public:
    // Throws Failure. The entry and the area must outlive the object.
    Content(const Container &container, Entry *entry, const TemporaryArea &area);

    // Hands the content on piece by piece. Throws Failure.
    void Read(const std::function<void(std::span<const std::uint8_t>)> &consumer) const;

    // How the content differs from what the manifest records of it; empty when it does not.
    std::string Deviation() const;

  private:
    bool hasDigest(const CF::Data &digest) const;
    bool hasSize(std::int64_t size) const;

    Entry *entry_;
    FileReference stored_;
    UnpackedFile unpacked_;
    FileReference plain_;
};

} // namespace tool
