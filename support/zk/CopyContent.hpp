// Copying content between open files, as cheaply as their file systems can.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <span>

namespace ZK::file {

// Writes every byte before it returns, or fails; some bytes may be written then.
void write_all(int destination, std::span<const std::uint8_t> bytes,
               boost::system::error_code &error);

// Brings what was written to a file to the disk; 0, or -1 with errno.
int sync_to_disk(int file) noexcept;

// Copies files one after the other, and remembers what turned out to be impossible between their
// file systems, so that it is not tried in vain for each of a million files. Blocks are cloned
// where that can be, else the kernel copies, else this process does. One object is used by one
// thread at a time.
class content_copier {
  public:
    // Copies what lies between the source's position and its end to the destination, which is
    // empty. size is how much that will be, as far as is known: it decides how, not how much.
    // Returns the number of bytes copied; on failure some may be.
    std::uint64_t copy(int source, int destination, std::uint64_t size,
                       boost::system::error_code &error);

  private:
    bool may_clone_ = true;
    bool may_copy_in_kernel_ = true;
};

} // namespace ZK::file
