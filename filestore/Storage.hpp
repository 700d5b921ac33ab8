// How contents get into the store, shared by the ways of making a KVFile.
#pragma once

#include "KVBase.h"
#include "support/cf/Date.hpp"
#include "support/cf/Error.hpp"
#include "support/cf/Pointer.hpp"
#include "support/zk/Path.hpp"

#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

// Serialises moving files into the store. Never taken with the shared mutex held.
extern std::mutex _TempFilesystemMutex;

namespace Kelvane {

// Owns a KVFile until it is handed to the caller.
using OwnedFile = CF::Pointer<KVFileClass *>;

// What the file system says about a file.
struct FileFacts {
    std::uint64_t size = 0;
    CF::Date modified;
};
// Throws boost::system::system_error, for everything that is no regular file too.
FileFacts ReadFileFacts(const ZK::filesystem::path &path);

// A file that goes away with the object, unless it is kept.
class ScratchFile {
  public:
    explicit ScratchFile(ZK::filesystem::path path) noexcept : path_(std::move(path)) {}
    ScratchFile(const ScratchFile &) = delete;
    ScratchFile &operator=(const ScratchFile &) = delete;
    ~ScratchFile();
    void Keep() noexcept { path_.clear(); }

  private:
    ZK::filesystem::path path_;
};

// A registered reference to a file that was just placed in the store; the file goes when
// there can be none. Throws code 1 "File written but reference could not be created" with the
// cause beneath.
OwnedFile ReferenceStoredFile(const ZK::filesystem::path &location,
                              const std::vector<std::uint8_t> &hash);

// Writes a new file of data_len bytes; no partial file stays. Throws code 3. A negative
// length is a programming error.
void WriteStoredFile(const ZK::filesystem::path &location, const std::uint8_t *bytes,
                     long data_len);

// A reference to a file that lies outside the store and is not registered. Throws code
// 1 "Failed to create internal file reference" with the cause beneath.
OwnedFile ReferenceInPlace(CFStringRef path, const std::vector<std::uint8_t> &hash);

// Copies the file into the store and references the copy. Throws code 3, or code 1 as
// ReferenceStoredFile does.
OwnedFile CopyIntoStore(const ZK::filesystem::path &source, const std::vector<std::uint8_t> &hash);

// The content as the file delivers it, through its crypt step, in a file of the store that
// delivers the same without one. Throws what reading and appending throw; no partial file
// stays.
OwnedFile CopyAsDelivered(const KVFileClass &file);

// Gives a finished scratch file its place in the store; a regular file that lies there
// already wins, and the scratch file goes: false. Throws code 3 "Internal inconsistency (PATH)"
// when anything else lies there, and boost::system::system_error when that cannot be told or
// the move fails. With _TempFilesystemMutex held.
bool MoveIntoStore(const ZK::filesystem::path &scratch, const ZK::filesystem::path &destination);

} // namespace Kelvane
