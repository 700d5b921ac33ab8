// Where a container reads the backup's files from.
#pragma once

#include "KVFile.h"
#include "support/cf/Pointer.hpp"
#include "support/cf/String.hpp"
#include "support/zk/File.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string_view>

namespace Kelvane {

// An owned file reference.
using FileRef = CF::Pointer<KVFileClass *>;

// A file that lies in a source; see KVBackupSourceFile.
struct SourceFile {
    CF::String name;
    std::uint64_t size = 0;
    bool isRegular = true;
};

// Whether a listing has to look at every file for its size.
enum class ListedSizes { True, Zero };

// Receives one file; false ends the listing.
using SourceFileConsumer = std::function<bool(const SourceFile &file)>;

class BackupSource {
  public:
    static constexpr std::uint64_t kAnySize = std::numeric_limits<std::uint64_t>::max();

    virtual ~BackupSource() = default;
    BackupSource(const BackupSource &) = delete;
    BackupSource &operator=(const BackupSource &) = delete;

    // The file of that name relative to the backup's root. Throws CF::Error: code 10
    // "Unsafe stored file name (%@)" for a name that could lead out of the backup, code 8 for
    // a file of more than limit bytes, before it is hashed or unpacked, and what the kind of
    // source reports.
    FileRef Load(const CF::String &name, std::uint64_t limit = kAnySize) const;
    // Whether a regular file, or a record, has that name.
    virtual bool Holds(const CF::String &name) const = 0;
    // The same file, open at its beginning, without being hashed where the source holds it as it
    // is.
    ZK::file::readable_file Open(const CF::String &name) const;
    // The same without a lock, for files that are opened by the hundred thousand.
    ZK::file::unique_descriptor OpenQuickly(const CF::String &name) const;
    // Hands every file of the source to the consumer, in no particular order. Throws CF::Error:
    // code 3 for a directory that cannot be read, code 9 for a zip.
    virtual void ListFiles(const SourceFileConsumer &consumer,
                           ListedSizes sizes = ListedSizes::True) const = 0;
    // A source of its own over the same backup, for a copy of the container.
    virtual std::shared_ptr<BackupSource> Reopen() const = 0;

  protected:
    BackupSource() = default;
    // The name is safe.
    virtual FileRef LoadNamed(const CF::String &name, std::uint64_t limit) const = 0;
    // Loads the file, unless the source knows better.
    virtual ZK::file::readable_file OpenNamed(const CF::String &name) const;
    virtual ZK::file::unique_descriptor OpenNamedQuickly(const CF::String &name) const;
};

// Throws code 8 "The file is too large to be read into memory (%llu bytes)".
void RequireSizeWithin(std::uint64_t size, std::uint64_t limit);

// A name as the file system or a zip has it. What is not UTF-8 reads as ISO 8859-1.
CF::String SourceFileName(std::string_view bytes);

// What becomes of symbolic links below a backup's directory, which its own path never means.
enum class Links { Refuse, Follow };

// Files are referenced in place. A missing one is code 16; one that a link leads to is code 10
// "Unsafe stored file name (%@)" unless links are followed, however late it is read.
std::shared_ptr<BackupSource> OpenDirectorySource(const CF::String &directory,
                                                  Links links = Links::Refuse);

// Records are unpacked into the file store. Opening fails with code 10 "Failed to open zip
// file (%@)". A missing record is code 10 "Could not locate file record in zip", a damaged
// one code 9; a zip error with minizip's status hangs underneath.
std::shared_ptr<BackupSource> OpenZipSource(const CF::String &zipPath);

} // namespace Kelvane
