// Files with whole-file locks, read and written synchronously.
#pragma once

#include "support/zk/Path.hpp"

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <span>
#include <string>

namespace ZK::file {

class directory;
class root_directory;

// What both kinds of file share: a descriptor, closed on destruction, and its lock.
// Failures are boost::system::system_error with errno as the code, unless a call
// takes an error_code; interrupted calls are repeated. Movable, not copyable. One
// object is used by one thread at a time; several may have the same file open.
//
// Locks cover the whole file and belong to the object, not to the process: any number
// of readers, or one writer. A lock that is taken is an error at once
// (EAGAIN), never a wait. File systems that know no locks, and read-only ones,
// are used without.
class descriptor {
  public:
    descriptor() noexcept;
    descriptor(descriptor &&other) noexcept;
    descriptor &operator=(descriptor &&other) noexcept;
    ~descriptor();

    bool is_open() const noexcept { return stream_ != nullptr; }
    // -1 when closed.
    int native_handle() const noexcept;
    // Gives up the lock and the descriptor; twice is harmless. The error tells that bytes
    // written before may be lost, which some file systems find out only now. An interruption
    // is none: the system goes on writing.
    void close() noexcept;
    void close(boost::system::error_code &error) noexcept;
    // Size in bytes of the open file, now, and when it was last written to.
    std::uint64_t size() const;
    std::time_t last_write_time() const;

  protected:
    struct stream;
    // Takes over the descriptor.
    explicit descriptor(int fd);
    std::unique_ptr<stream> stream_;
};

// Opened for reading under a shared lock. Only regular files are opened, and
// opening never blocks: a FIFO, socket, device or directory in the place of a
// file is refused with an error.
class readable_file : public descriptor {
  public:
    readable_file() noexcept = default;
    explicit readable_file(const filesystem::path &path);
    readable_file(const filesystem::path &path, boost::system::error_code &error);
    // The file of that name below the directory, reached over no link: ELOOP when there is one.
    readable_file(const root_directory &root, const std::string &name);
    readable_file(const root_directory &root, const std::string &name,
                  boost::system::error_code &error);

    // One read of up to buffer.size() bytes at the current position; 0, without an
    // error, at the end of the file.
    std::size_t read_some(std::span<std::uint8_t> buffer);
    std::size_t read_some(std::span<std::uint8_t> buffer, boost::system::error_code &error);

  private:
    explicit readable_file(int fd) : descriptor(fd) {}
};

// Opened for writing under an exclusive lock. A file that it creates has mode 0600,
// whatever the umask; one that is there keeps its mode. Only regular files are opened,
// without blocking, as above. A file that was created goes away again when opening fails.
class writable_file : public descriptor {
  public:
    writable_file() noexcept = default;
    // Creates the file or truncates the one that is there; created, if given, tells which of
    // the two it was.
    static writable_file open_clobber(const filesystem::path &path, bool *created = nullptr);
    // Creates the file; fails when anything exists at the path, a dangling link included.
    static writable_file create_new(const filesystem::path &path);
    // Creates the file or appends to the one that is there.
    static writable_file open_append(const filesystem::path &path,
                                     boost::system::error_code &error);
    // Creates the file in an open directory; fails when anything bears the name, a dangling link
    // included.
    static writable_file create_new(const directory &parent, const std::string &name,
                                    boost::system::error_code &error);

    // Writes every byte before it returns, or fails; some bytes may be written then.
    void write(std::span<const std::uint8_t> bytes);
    void write(std::span<const std::uint8_t> bytes, boost::system::error_code &error);

    // Closes what is written to its end, and throws when closing fails: the bytes may be lost.
    void complete();

  private:
    explicit writable_file(int fd) : descriptor(fd) {}
};

// Copies a regular file to a path where nothing exists yet; the copy has mode 0600.
// Throws boost::system::system_error. Clones blocks where the file system can (the copy then costs
// next to nothing), lets the kernel copy where it can, and copies by hand otherwise. Leaves no
// partial copy behind when it fails.
void copy_new(const filesystem::path &source, const filesystem::path &destination);
// The same of an open file, all of which is still to be read.
void copy_new(readable_file &source, const filesystem::path &destination);

// Creates the directory with mode 0700, and its missing parents with that mode too.
// A directory that exists is left as it is.
void create_private_directories(const filesystem::path &path);

} // namespace ZK::file
