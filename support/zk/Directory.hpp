// Directories that are held open, so that what is made in them lands in them whatever
// happens to the path meanwhile.
#pragma once

#include "support/zk/Path.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <boost/system/error_code.hpp>

#include <string>

namespace ZK::file {

// One open directory. Names are single components: not empty, not "." or "..", without
// "/" or NUL; the caller sees to it. No link is followed. Movable, not copyable.
class directory {
  public:
    // Makes the directory and its missing parents, all with mode 0700 whatever the umask.
    // Throws boost::system::system_error: EEXIST among others, when anything is there.
    static directory create_new(const filesystem::path &path);

    // The directory of that name in this one, made with mode 0700 when nothing is there.
    // On failure, ENOTDIR among others for a link, what comes back is not open.
    directory enter(const std::string &name, boost::system::error_code &error) const;

    bool is_open() const noexcept { return descriptor_.get() >= 0; }
    // Borrowed; -1 when not open.
    int native_handle() const noexcept { return descriptor_.get(); }
    // Removes the file of that name. Failures are not reported.
    void remove_file(const std::string &name) const noexcept;

    directory() noexcept : descriptor_(-1) {}

  private:
    explicit directory(int fd) noexcept : descriptor_(fd) {}
    unique_descriptor descriptor_;
};

} // namespace ZK::file
