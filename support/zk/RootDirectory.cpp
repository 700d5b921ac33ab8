#include "support/zk/RootDirectory.hpp"

#include <atomic>
#include <cerrno>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#if defined(__linux__) && __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#include <sys/syscall.h>
#endif

#if defined(SYS_openat2)
#define ZK_KERNEL_RESOLVES 1
#else
#define ZK_KERNEL_RESOLVES 0
#endif

namespace ZK::file {
namespace {

// Passing through a directory takes the right to search it, not that to read it.
#if defined(O_PATH)
constexpr int kSearch = O_PATH;
#elif defined(O_SEARCH)
constexpr int kSearch = O_SEARCH;
#else
constexpr int kSearch = O_RDONLY;
#endif
constexpr int kDirectoryFlags = kSearch | O_DIRECTORY | O_CLOEXEC;
constexpr int kFileFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

std::atomic<bool> kernelResolves = ZK_KERNEL_RESOLVES != 0;

bool isSafeComponent(std::string_view component) {
    return !component.empty() && component != "." && component != "..";
}

// 0 for a regular file, else the error that opening it is to fail with.
int errorOf(const struct stat &status) {
    if (S_ISREG(status.st_mode)) {
        return 0;
    }
    if (S_ISLNK(status.st_mode)) {
        return ELOOP;
    }
    return S_ISDIR(status.st_mode) ? EISDIR : EOPNOTSUPP;
}

int fail(int number) {
    errno = number;
    return -1;
}

int openRetrying(int directory, const char *name, int flags) {
    int fd = -1;
    do {
        fd = ::openat(directory, name, flags);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

#if ZK_KERNEL_RESOLVES

// An older kernel does not know the call, and sandboxes that do not know it refuse it. Both may
// be asked for the same in small steps.
bool isRefused(int number) {
    if (number == ENOSYS) {
        kernelResolves = false;
    }
    return number == ENOSYS || number == EPERM || number == EAGAIN;
}

int openResolved(int root, const std::string &name, int flags) {
    struct open_how how {};
    // Where the flag is not 0, the kernel refuses it beside O_PATH, which opens no content.
    how.flags = static_cast<__u64>((flags & O_PATH) != 0 ? flags : flags | O_LARGEFILE);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    long fd = -1;
    do {
        fd = ::syscall(SYS_openat2, root, name.c_str(), &how, sizeof how);
    } while (fd < 0 && errno == EINTR);
    return static_cast<int>(fd);
}

int lookResolved(int root, const std::string &name, struct stat &status) {
    const unique_descriptor place(openResolved(root, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return place.get() < 0 || ::fstat(place.get(), &status) != 0 ? errno : 0;
}

int openFileResolved(int root, const std::string &name) {
    struct stat status {};
    // Keeps devices, which may act on being opened, out. This look may come over a link, so
    // nothing but a regular file is believed of it.
    if (::fstatat(root, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(status.st_mode)) {
        return openResolved(root, name, kFileFlags);
    }
    if (const int number = lookResolved(root, name, status)) {
        return fail(number);
    }
    // A regular file only appears here when it came a moment ago.
    return S_ISREG(status.st_mode) ? openResolved(root, name, kFileFlags) : fail(errorOf(status));
}

#endif

// The directory that holds the last component of a name, reached step by step.
class Parent {
  public:
    // The name is safe.
    Parent(int root, const std::string &name) : current_(root), name_(name) {
        for (std::size_t slash = 0; (slash = name_.find('/')) != std::string::npos;) {
            if (!enter(name_.substr(0, slash))) {
                return;
            }
            name_.erase(0, slash + 1);
        }
    }
    // 0 when the directory was reached.
    int failure() const noexcept { return failure_; }
    int descriptor() const noexcept { return current_; }
    const char *last() const noexcept { return name_.c_str(); }

  private:
    bool enter(const std::string &component) {
        unique_descriptor next(
            openRetrying(current_, component.c_str(), kDirectoryFlags | O_NOFOLLOW));
        if (next.get() < 0) {
            failure_ = errno;
            struct stat status {};
            // A link that is not followed shows as something that is no directory.
            if (::fstatat(current_, component.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISLNK(status.st_mode)) {
                failure_ = ELOOP;
            }
            return false;
        }
        opened_ = std::move(next);
        current_ = opened_.get();
        return true;
    }

    int current_;
    std::string name_; // what is still to be gone
    unique_descriptor opened_{-1};
    int failure_ = 0;
};

int lookStepwise(int root, const std::string &name, struct stat &status) {
    const Parent parent(root, name);
    if (parent.failure() != 0) {
        return parent.failure();
    }
    return ::fstatat(parent.descriptor(), parent.last(), &status, AT_SYMLINK_NOFOLLOW) == 0 ? 0
                                                                                            : errno;
}

int openFileStepwise(int root, const std::string &name) {
    const Parent parent(root, name);
    if (parent.failure() != 0) {
        return fail(parent.failure());
    }
    struct stat status {};
    if (::fstatat(parent.descriptor(), parent.last(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return -1;
    }
    const int number = errorOf(status);
    return number != 0 ? fail(number)
                       : openRetrying(parent.descriptor(), parent.last(), kFileFlags);
}

} // namespace

bool is_safe_name(std::string_view name) noexcept {
    if (name.find('\0') != std::string_view::npos) {
        return false;
    }
    // A leading slash shows as an empty first component, the empty name as an empty only one.
    for (;;) {
        const std::size_t slash = name.find('/');
        if (!isSafeComponent(name.substr(0, slash))) {
            return false;
        }
        if (slash == std::string_view::npos) {
            return true;
        }
        name.remove_prefix(slash + 1);
    }
}

root_directory::root_directory(filesystem::path path) noexcept
    : path_(std::move(path)), descriptor_(-1) {
    // The system would take the part before a NUL.
    if (path_.native().find('\0') != std::string::npos) {
        failure_ = ENOENT;
        return;
    }
    descriptor_ = unique_descriptor(openRetrying(AT_FDCWD, path_.c_str(), kDirectoryFlags));
    failure_ = descriptor_.get() < 0 ? errno : 0;
}

int root_directory::open_file(const std::string &name) const {
    if (failure_ != 0 || !is_safe_name(name)) {
        return fail(failure_ != 0 ? failure_ : EINVAL);
    }
#if ZK_KERNEL_RESOLVES
    if (kernelResolves) {
        const int fd = openFileResolved(descriptor_.get(), name);
        if (fd >= 0 || !isRefused(errno)) {
            return fd;
        }
    }
#endif
    return openFileStepwise(descriptor_.get(), name);
}

int root_directory::look(const std::string &name, struct stat &status) const {
    if (failure_ != 0 || !is_safe_name(name)) {
        return failure_ != 0 ? failure_ : EINVAL;
    }
#if ZK_KERNEL_RESOLVES
    if (kernelResolves) {
        const int number = lookResolved(descriptor_.get(), name, status);
        if (!isRefused(number)) {
            return number;
        }
    }
#endif
    return lookStepwise(descriptor_.get(), name, status);
}

void let_kernel_resolve(bool allowed) noexcept {
    kernelResolves = allowed && ZK_KERNEL_RESOLVES != 0;
}

} // namespace ZK::file
