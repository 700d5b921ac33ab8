#include "support/zk/Directory.hpp"
#include "support/zk/File.hpp"
#include "support/zk/RootDirectory.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <boost/system/system_error.hpp>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace ZK::file {
namespace {

constexpr ::mode_t kPrivateMode = S_IRUSR | S_IWUSR;

enum class Lock { Shared, Exclusive };

// What went wrong: errno, and the step for messages.
struct Failure {
    int number = 0;
    const char *step = "";
    explicit operator bool() const noexcept { return number != 0; }
};

[[noreturn]] void raise(const Failure &failure) {
    throw boost::system::system_error(failure.number, boost::system::system_category(),
                                      failure.step);
}

void assign(const Failure &failure, boost::system::error_code &error) {
    if (failure) {
        error.assign(failure.number, boost::system::system_category());
    } else {
        error.clear();
    }
}

int tryLock(int fd, Lock kind) {
#if defined(F_OFD_SETLK)
    // Owned by the open file, not by the process: two readers of one process do not
    // drop each other's lock when the first of them closes.
    struct flock whole {};
    whole.l_type = kind == Lock::Shared ? F_RDLCK : F_WRLCK;
    whole.l_whence = SEEK_SET;
    return ::fcntl(fd, F_OFD_SETLK, &whole);
#else
    return ::flock(fd, (kind == Lock::Shared ? LOCK_SH : LOCK_EX) | LOCK_NB);
#endif
}

// Errors that mean "no locks here": network and read-only file systems, old kernels.
bool knowsNoLocks(int number) {
    return number == ENOLCK || number == EINVAL || number == ENOTSUP || number == EOPNOTSUPP ||
           number == ENOSYS || number == EBADF || number == EROFS;
}

Failure lock(int fd, Lock kind) {
    int result = 0;
    do {
        result = tryLock(fd, kind);
    } while (result != 0 && errno == EINTR);
    if (result == 0 || knowsNoLocks(errno)) {
        return {};
    }
    return {errno == EACCES ? EAGAIN : errno, "File is locked"};
}

Failure refuseUnlessRegular(const struct stat &status) {
    if (S_ISREG(status.st_mode)) {
        return {};
    }
    return {S_ISDIR(status.st_mode) ? EISDIR : EOPNOTSUPP, "Not a regular file"};
}

// A path relative to an open directory, or to the working directory (AT_FDCWD).
struct Location {
    int directory;
    const char *path;
    Location(const filesystem::path &given) : directory(AT_FDCWD), path(given.c_str()) {}
    Location(int parent, const std::string &name) : directory(parent), path(name.c_str()) {}
};

int openRetrying(const Location &where, int flags) {
    int fd = -1;
    do {
        fd = ::openat(where.directory, where.path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY,
                      kPrivateMode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Checks and locks what was opened, and makes it an ordinary blocking descriptor.
Failure admit(int fd, Lock kind) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        return {errno, "fstat"};
    }
    if (const Failure failure = refuseUnlessRegular(status)) {
        return failure;
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        return {errno, "fcntl"};
    }
    return lock(fd, kind);
}

// Opens a file that exists. The look before the opening keeps devices, which may act
// on being opened, out; the one after it holds even if the file was exchanged.
Failure openExisting(const filesystem::path &path, int flags, Lock kind, int &result) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return {errno, "open"};
    }
    if (const Failure failure = refuseUnlessRegular(status)) {
        return failure;
    }
    unique_descriptor fd(openRetrying(path, flags));
    if (fd.get() < 0) {
        return {errno, "open"};
    }
    const Failure failure = admit(fd.get(), kind);
    if (!failure) {
        result = fd.release();
    }
    return failure;
}

// Creates a file where nothing is; removes it again if it cannot be used.
Failure createExclusively(const Location &where, int flags, int &result) {
    unique_descriptor fd(openRetrying(where, flags | O_CREAT | O_EXCL));
    if (fd.get() < 0) {
        return {errno, "open"};
    }
    Failure failure = admit(fd.get(), Lock::Exclusive);
    // The umask may have taken away more than open() was asked for.
    if (!failure && ::fchmod(fd.get(), kPrivateMode) != 0) {
        failure = {errno, "fchmod"};
    }
    if (failure) {
        ::unlinkat(where.directory, where.path, 0);
    } else {
        result = fd.release();
    }
    return failure;
}

// Removes a file that was just created, unless it comes into use.
class Removal {
  public:
    Removal(const Location &where, bool created) noexcept : where_(where), armed_(created) {}
    Removal(const Removal &) = delete;
    Removal &operator=(const Removal &) = delete;
    ~Removal() {
        if (armed_) {
            ::unlinkat(where_.directory, where_.path, 0);
        }
    }
    void Cancel() noexcept { armed_ = false; }

  private:
    Location where_;
    bool armed_;
};

// Opens for writing, creating the file if there is none. It may come or go between the
// two attempts, hence the few repetitions.
Failure openOrCreate(const filesystem::path &path, int flags, int &result, bool &created) {
    constexpr int kAttempts = 8;
    Failure failure;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        failure = createExclusively(path, O_WRONLY | flags, result);
        created = !failure;
        if (failure.number != EEXIST) {
            return failure;
        }
        failure = openExisting(path, O_WRONLY | flags, Lock::Exclusive, result);
        if (failure.number != ENOENT) {
            return failure;
        }
    }
    return failure;
}

void adviseSequential(int fd) {
#if defined(POSIX_FADV_SEQUENTIAL)
    // Advice only: larger read-ahead. Its failure changes nothing.
    (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
#else
    (void)fd;
#endif
}

Failure openForReading(const filesystem::path &path, int &result) {
    const Failure failure = openExisting(path, O_RDONLY, Lock::Shared, result);
    if (!failure) {
        adviseSequential(result);
    }
    return failure;
}

Failure openForReading(const root_directory &root, const std::string &name, int &result) {
    unique_descriptor fd(root.open_file(name));
    if (fd.get() < 0) {
        return {errno, errno == EISDIR || errno == EOPNOTSUPP ? "Not a regular file" : "open"};
    }
    const Failure failure = admit(fd.get(), Lock::Shared);
    if (!failure) {
        result = fd.release();
        adviseSequential(result);
    }
    return failure;
}

template <class... Place>
int openForReadingOrThrow(const Place &...place) {
    int fd = -1;
    if (const Failure failure = openForReading(place..., fd)) {
        raise(failure);
    }
    return fd;
}

} // namespace

readable_file::readable_file(const filesystem::path &path)
    : descriptor(openForReadingOrThrow(path)) {}

readable_file::readable_file(const filesystem::path &path, boost::system::error_code &error) {
    int fd = -1;
    const Failure failure = openForReading(path, fd);
    assign(failure, error);
    if (!failure) {
        *this = readable_file(fd);
    }
}

readable_file::readable_file(const root_directory &root, const std::string &name)
    : descriptor(openForReadingOrThrow(root, name)) {}

readable_file::readable_file(const root_directory &root, const std::string &name,
                             boost::system::error_code &error) {
    int fd = -1;
    const Failure failure = openForReading(root, name, fd);
    assign(failure, error);
    if (!failure) {
        *this = readable_file(fd);
    }
}

writable_file writable_file::open_clobber(const filesystem::path &path, bool *created) {
    int fd = -1;
    bool isNew = false;
    if (const Failure failure = openOrCreate(path, 0, fd, isNew)) {
        raise(failure);
    }
    Removal removal(path, isNew);
    writable_file file(fd);
    // Only now, under the lock: nobody is reading what goes away.
    if (!isNew && ::ftruncate(file.native_handle(), 0) != 0) {
        raise({errno, "ftruncate"});
    }
    removal.Cancel();
    if (created != nullptr) {
        *created = isNew;
    }
    return file;
}

writable_file writable_file::create_new(const filesystem::path &path) {
    int fd = -1;
    if (const Failure failure = createExclusively(path, O_WRONLY, fd)) {
        raise(failure);
    }
    Removal removal(path, true);
    writable_file file(fd);
    removal.Cancel();
    return file;
}

writable_file writable_file::open_append(const filesystem::path &path,
                                         boost::system::error_code &error) {
    int fd = -1;
    bool created = false;
    const Failure failure = openOrCreate(path, O_APPEND, fd, created);
    assign(failure, error);
    if (failure) {
        return {};
    }
    Removal removal(path, created);
    writable_file file(fd);
    removal.Cancel();
    return file;
}

writable_file writable_file::create_new(const directory &parent, const std::string &name,
                                        boost::system::error_code &error) {
    int fd = -1;
    const Location where(parent.native_handle(), name);
    const Failure failure = createExclusively(where, O_WRONLY, fd);
    assign(failure, error);
    if (failure) {
        return {};
    }
    Removal removal(where, true);
    writable_file file(fd);
    removal.Cancel();
    return file;
}

} // namespace ZK::file
