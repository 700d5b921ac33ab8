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

// A file of the backup, to be read as plaintext. What the library unpacks for it from a zip is
// removed with the object: kept, it would fill the temporary directory with the whole backup.
class Content {
  public:
    // Throws Failure. The entry and the area must outlive the object.
    Content(const Container &container, Entry *entry, const TemporaryArea &area);

    // Hands the content on piece by piece. Throws Failure.
    void Read(const std::function<void(std::span<const std::uint8_t>)> &consumer) const;

    // How the content differs from what the manifest records of it; empty when it does not.
    std::string Deviation() const;

  private:
    class Unpacked {
      public:
        Unpacked(const TemporaryArea &area, const FileReference &file);
        Unpacked(const Unpacked &) = delete;
        Unpacked &operator=(const Unpacked &) = delete;
        ~Unpacked();

      private:
        std::string path_;
        bool ours_;
    };

    bool hasDigest(const CF::Data &digest) const;
    bool hasSize(std::int64_t size) const;

    Entry *entry_;
    FileReference stored_;
    Unpacked unpacked_;
    FileReference plain_;
};

} // namespace tool
