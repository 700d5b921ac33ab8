#include "support/zk/CopyContent.hpp"
#include "support/zk/Directory.hpp"
#include "support/zk/File.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
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

[[noreturn]] void raise(const char *step) {
    throw boost::system::system_error(errno, boost::system::system_category(), step);
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

directory directory::open(const filesystem::path &path) {
    int fd = -1;
    do {
        fd = ::open(path.c_str(), kDirectoryFlags & ~O_NOFOLLOW);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        raise("open", path, errno);
    }
    return directory(fd);
}

directory directory::open_directory(const std::string &name,
                                    boost::system::error_code &error) const {
    error.clear();
    directory opened(openDirectory(native_handle(), name.c_str()));
    if (!opened.is_open()) {
        error.assign(errno, boost::system::system_category());
    }
    return opened;
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

unique_descriptor directory::create_file(const std::string &name,
                                         boost::system::error_code &error) const {
    error.clear();
    int fd = -1;
    do {
        fd = ::openat(native_handle(), name.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, S_IRUSR | S_IWUSR);
    } while (fd < 0 && errno == EINTR);
    unique_descriptor file(fd);
    if (fd < 0 || ::fchmod(fd, S_IRUSR | S_IWUSR) != 0) {
        error.assign(errno, boost::system::system_category());
        if (fd >= 0) {
            remove_file(name);
        }
        return unique_descriptor(-1);
    }
    return file;
}

void directory::remove_file(const std::string &name) const noexcept {
    (void)::unlinkat(native_handle(), name.c_str(), 0);
}

void directory::lock() const {
    int result = -1;
    do {
        result = ::flock(native_handle(), LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        raise("flock");
    }
}

void directory::sync() const {
    if (sync_to_disk(native_handle()) != 0) {
        raise("fsync");
    }
}

std::vector<std::string> directory::list() const {
    // The stream takes over a descriptor with a position of its own.
    unique_descriptor fd(openDirectory(native_handle(), "."));
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(
        fd.get() < 0 ? nullptr : ::fdopendir(fd.get()), &::closedir);
    if (stream == nullptr) {
        raise("opendir");
    }
    (void)fd.release();
    std::vector<std::string> names;
    errno = 0;
    while (const dirent *const entry = ::readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
        errno = 0;
    }
    if (errno != 0) {
        raise("readdir");
    }
    return names;
}

bool directory::holds(const std::string &name) const {
    struct stat status {};
    if (::fstatat(native_handle(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        raise("stat");
    }
    return false;
}

void directory::rename(const std::string &name, const directory &target,
                       const std::string &newName) const {
    if (::renameat(native_handle(), name.c_str(), target.native_handle(), newName.c_str()) != 0) {
        raise("rename");
    }
}

void directory::unlink(const std::string &name) const {
    if (::unlinkat(native_handle(), name.c_str(), 0) != 0 && errno != ENOENT) {
        raise("unlink");
    }
}

void directory::unlink_directory(const std::string &name) const {
    if (::unlinkat(native_handle(), name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        raise("rmdir");
    }
}

} // namespace ZK::file
