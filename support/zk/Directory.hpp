// Directories that are held open, so that what is made in them lands in them whatever
// happens to the path meanwhile.
#pragma once

#include "support/zk/Path.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <boost/system/error_code.hpp>

#include <string>
#include <vector>

namespace ZK::file {

// One open directory. Names are single components: not empty, not "." or "..", without
// "/" or NUL; the caller sees to it. No link is followed. Movable, not copyable.
class directory {
  public:
    // Makes the directory and its missing parents, all with mode 0700 whatever the umask.
    // Throws boost::system::system_error: EEXIST among others, when anything is there.
    static directory create_new(const filesystem::path &path);

    // Opens a directory that is there. Its own path may lead over links. Throws the same.
    static directory open(const filesystem::path &path);

    // The directory of that name in this one. On failure what comes back is not open.
    directory open_directory(const std::string &name, boost::system::error_code &error) const;
    // The directory of that name in this one, made with mode 0700 when nothing is there.
    // On failure, ENOTDIR among others for a link, what comes back is not open.
    directory enter(const std::string &name, boost::system::error_code &error) const;

    // Creates a file of mode 0600, whatever the umask, to be written to; not locked. On failure,
    // EEXIST among others when anything bears the name, what comes back is not open.
    unique_descriptor create_file(const std::string &name, boost::system::error_code &error) const;

    bool is_open() const noexcept { return descriptor_.get() >= 0; }
    // Borrowed; -1 when not open.
    int native_handle() const noexcept { return descriptor_.get(); }
    // Removes the file of that name. Failures are not reported.
    void remove_file(const std::string &name) const noexcept;

    // What follows throws boost::system::system_error.

    // Locks the directory for this object alone, until it goes; EWOULDBLOCK when another has it.
    void lock() const;
    // Brings to the disk which names the directory holds.
    void sync() const;
    // The names in it but for "." and "..", in no particular order.
    std::vector<std::string> list() const;
    // Whether anything bears the name.
    bool holds(const std::string &name) const;
    // Gives what bears the name another one in the other directory, in the place of a file there.
    void rename(const std::string &name, const directory &target, const std::string &newName) const;
    // Remove a file, or an empty directory. What is not there is no error.
    void unlink(const std::string &name) const;
    void unlink_directory(const std::string &name) const;

    directory() noexcept : descriptor_(-1) {}

  private:
    explicit directory(int fd) noexcept : descriptor_(fd) {}
    unique_descriptor descriptor_;
};

} // namespace ZK::file
