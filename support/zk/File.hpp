// Files with whole-file locks, read and written synchronously.
#pragma once

#include "support/zk/Path.hpp"

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace ZK::file {

// What both kinds of file share: a descriptor, closed on destruction, and its lock.
// Failures are boost::system::system_error with errno as the code, unless a call
// takes an error_code; interrupted calls are repeated. Movable, not copyable.
class descriptor {
  public:
    descriptor() noexcept = default;
    descriptor(descriptor &&other) noexcept;
    descriptor &operator=(descriptor &&other) noexcept;
    ~descriptor();

    bool is_open() const noexcept { return fd_ >= 0; }
    // -1 when closed.
    int native_handle() const noexcept { return fd_; }
    // Gives up the lock and the descriptor; twice is harmless.
    void close() noexcept;
    // Size in bytes of the open file, now.
    std::uint64_t size() const;

  protected:
    explicit descriptor(int fd) noexcept : fd_(fd) {}
    int fd_ = -1;
};

// Opened for reading under a shared lock. Only regular files are opened, and
// opening never blocks: a FIFO, socket, device or directory in the place of a
// file is refused with an error.
class readable_file : public descriptor {
  public:
    readable_file() noexcept = default;
    explicit readable_file(const filesystem::path &path);
    readable_file(const filesystem::path &path, boost::system::error_code &error) noexcept;

    // One read of up to buffer.size() bytes at the current position; 0 at the end.
    std::size_t read_some(std::span<std::uint8_t> buffer);
    std::size_t read_some(std::span<std::uint8_t> buffer,
                          boost::system::error_code &error) noexcept;
};

// Opened for writing under an exclusive lock, with mode 0600. Only regular files
// are opened.
class writable_file : public descriptor {
  public:
    writable_file() noexcept = default;
    // Creates the file or truncates the one that is there.
    static writable_file open_clobber(const filesystem::path &path);
    // Creates the file; fails when anything exists at the path, a dangling link included.
    static writable_file create_new(const filesystem::path &path);
    // Creates the file or appends to the one that is there.
    static writable_file open_append(const filesystem::path &path,
                                     boost::system::error_code &error) noexcept;

    // Writes every byte before it returns, or fails.
    void write(std::span<const std::uint8_t> bytes);
    void write(std::span<const std::uint8_t> bytes, boost::system::error_code &error) noexcept;

  private:
    explicit writable_file(int fd) noexcept : descriptor(fd) {}
};

// Copies a regular file to a path where nothing exists yet; the copy has mode 0600.
// Clones blocks where the file system can (the copy then costs next to nothing),
// lets the kernel copy where it can, and copies by hand otherwise. Leaves no
// partial copy behind when it fails.
void copy_new(const filesystem::path &source, const filesystem::path &destination);

// Creates the directory with mode 0700, and its missing parents with that mode too.
// A directory that exists is left as it is.
void create_private_directories(const filesystem::path &path);

} // namespace ZK::file
