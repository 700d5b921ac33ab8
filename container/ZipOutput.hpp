// The file that a zip archive is written to.
#pragma once

#include "support/zk/Path.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <minizip/zip.h>

#include <cstdint>
#include <span>
#include <vector>

namespace Kelvane {

// A new file, mode 0600, that is gone again unless Keep was called.
//
// The zip library writes to it through Functions() and never sees a write fail: it would
// leave its own books unbalanced. The failure is kept here instead, and what is written
// after it is dropped, until Rewind takes back what was written in vain.
class ZipOutput {
  public:
    // Nothing is created yet.
    explicit ZipOutput(ZK::filesystem::path path);
    ZipOutput(const ZipOutput &) = delete;
    ZipOutput &operator=(const ZipOutput &) = delete;
    ~ZipOutput();

    // For zipOpen2_64. Opening creates the file, and fails when anything bears its name.
    // They hold a pointer to this object.
    zlib_filefunc64_def Functions();

    // Where the next byte goes.
    std::uint64_t Position() const noexcept { return position_; }
    // errno of what failed first since the last Rewind, opening included; 0 for none.
    int Failure() const noexcept { return failure_; }
    // Brings what was written to the file. False on failure.
    bool Flush() noexcept;
    // Takes back all that was written from the position on, and forgets the failure.
    void Rewind(std::uint64_t position) noexcept;

    // Reads bytes that were flushed; false on failure and beyond the end.
    bool ReadAt(std::uint64_t offset, std::span<std::uint8_t> bytes) noexcept;
    // Moves the position back to a place that was written before.
    bool Seek(std::uint64_t position) noexcept;
    void Write(std::span<const std::uint8_t> bytes) noexcept;
    // Ends the file at the position and closes it; it stays. False on failure.
    bool Keep() noexcept;

  private:
    bool create() noexcept;
    void fail(int number) noexcept;
    void writeToFile(std::span<const std::uint8_t> bytes, std::uint64_t offset) noexcept;
    std::size_t writeToBuffer(std::span<const std::uint8_t> bytes) noexcept;

    ZK::filesystem::path path_;
    ZK::file::unique_descriptor descriptor_{-1};
    int failure_ = 0;
    std::uint64_t position_ = 0;
    std::uint64_t end_ = 0;
    // Follows flushed_ bytes that are in the file.
    std::vector<std::uint8_t> buffer_;
    std::uint64_t flushed_ = 0;
};

} // namespace Kelvane
