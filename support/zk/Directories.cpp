#include "support/zk/Directory.hpp"
#include "support/zk/File.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ZK::file {
namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void raise(const char *step, const filesystem::path &path, int number) {
    throw boost::filesystem::filesystem_error(
        step, path, boost::system::error_code(number, boost::system::system_category()));
}

// Makes a directory in an open one (or below the working directory, AT_FDCWD); errno when
// that fails. Private from the first moment on: a directory made first and restricted
// afterwards would stand open in between.
int makePrivateDirectory(int parent, const char *name) {
    if (::mkdirat(parent, name, S_IRWXU) != 0) {
        return errno;
    }
    struct stat status {};
    if (::fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno;
    }
    // A umask that takes away the owner's own rights.
    if (S_ISDIR(status.st_mode) && (status.st_mode & S_IRWXU) != S_IRWXU &&
        ::fchmodat(parent, name, S_IRWXU, 0) != 0) {
        return errno;
    }
    return 0;
}

int openDirectory(int parent, const char *name) {
    int fd = -1;
    do {
        fd = ::openat(parent, name, kDirectoryFlags);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// "a/b/" and "a/b/." are "a/b": making the one after the other would find it there.
filesystem::path withoutTrailingSeparators(filesystem::path path) {
    while (path.has_parent_path() && path.has_relative_path() &&
           (path.filename_is_dot() || path.filename().empty())) {
        path = path.parent_path();
    }
    return path;
}

} // namespace

void create_private_directories(const filesystem::path &path) {
    std::vector<filesystem::path> missing;
    for (filesystem::path current = path; !current.empty() && !boost::filesystem::exists(current);
         current = current.parent_path()) {
        missing.push_back(current);
    }
    for (auto current = missing.rbegin(); current != missing.rend(); ++current) {
        const int number = makePrivateDirectory(AT_FDCWD, current->c_str());
        if (number != 0 && number != EEXIST) {
            raise("mkdir", *current, number);
        }
    }
    // Fails when something else than a directory bears the name.
    boost::filesystem::create_directories(path);
}

directory directory::create_new(const filesystem::path &given) {
    if (given.native().find('\0') != std::string::npos) {
        raise("mkdir", given, EINVAL); // the system would take the part before it
    }
    const filesystem::path path = withoutTrailingSeparators(given);
    const filesystem::path parent = path.parent_path();
    if (!parent.empty() && !boost::filesystem::exists(parent)) {
        create_private_directories(parent);
    }
    if (const int number = makePrivateDirectory(AT_FDCWD, path.c_str())) {
        raise("mkdir", path, number);
    }
    directory made(openDirectory(AT_FDCWD, path.c_str()));
    if (!made.is_open()) {
        raise("open", path, errno);
    }
    return made;
}

directory directory::enter(const std::string &name, boost::system::error_code &error) const {
    error.clear();
    int fd = openDirectory(native_handle(), name.c_str());
    if (fd < 0 && errno == ENOENT) {
        const int number = makePrivateDirectory(native_handle(), name.c_str());
        if (number == 0 || number == EEXIST) {
            fd = openDirectory(native_handle(), name.c_str());
        } else {
            errno = number;
        }
    }
    if (fd < 0) {
        error.assign(errno, boost::system::system_category());
    }
    return directory(fd);
}

void directory::remove_file(const std::string &name) const noexcept {
    (void)::unlinkat(native_handle(), name.c_str(), 0);
}

} // namespace ZK::file
