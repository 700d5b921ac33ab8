// A directory below which files are opened by name, and never over a link.
#pragma once

#include "support/zk/Path.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <string>
#include <string_view>

#include <sys/stat.h>

namespace ZK::file {

// Whether a name, relative to a directory, means a file below it as long as no link leads away:
// components separated by single slashes, none of them empty, "." or "..", and no NUL.
bool is_safe_name(std::string_view name) noexcept;

// Keeps the directory open, so that every name means a file below that very directory,
// whatever happens to its path. Whoever can write below it may exchange files for links at
// any moment; since the check and the opening are one step, that leads nowhere.
//
// Names that is_safe_name does not take are refused (EINVAL). Hard links are files like others.
// May be used by several threads at a time.
class root_directory {
  public:
    // Opens the directory. Its own path may lead over links, which is the caller's choice. What
    // keeps it from being opened, errno, is what every use then fails with.
    explicit root_directory(filesystem::path path) noexcept;
    root_directory(const root_directory &) = delete;
    root_directory &operator=(const root_directory &) = delete;

    // As it was given.
    const filesystem::path &path() const noexcept { return path_; }

    // Opens the regular file of that name for reading, without blocking (O_NONBLOCK stays set).
    // The caller closes what comes back. -1 with errno on failure: ELOOP when the name or a
    // directory on the way to it is a link, EISDIR for a directory, EOPNOTSUPP for a FIFO, socket
    // or device, none of which is opened.
    int open_file(const std::string &name) const;
    // What bears the name; a link in its place shows as one. 0, or errno: ELOOP when a directory
    // on the way is a link.
    int look(const std::string &name, struct stat &status) const;

  private:
    filesystem::path path_;
    unique_descriptor descriptor_;
    int failure_ = 0;
};

// Whether the kernel may be asked to resolve names without links, where it can; else every
// directory on the way is opened, one after the other. True from the start; false is for tests.
void let_kernel_resolve(bool allowed) noexcept;

} // namespace ZK::file
