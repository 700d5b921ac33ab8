#include "AreaLock.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tool {

namespace {

constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr mode_t kMode = 0600;

int lock(int fd) {
    int result = 0;
    do {
        result = flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    return result;
}

bool isInPlace(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && status.st_nlink > 0;
}

// Somebody else's file of that name says nothing.
bool isOurs(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           status.st_nlink == 1 && status.st_size == 0;
}

} // namespace

AreaLock::AreaLock(AreaLock &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

AreaLock &AreaLock::operator=(AreaLock &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

AreaLock::~AreaLock() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

AreaLock AreaLock::Make(int area) noexcept {
    AreaLock made(openat(area, kAreaLockName, kFlags | O_CREAT | O_EXCL, kMode));
    if (!made.IsHeld()) {
        return made;
    }
    // On a file system without locks the owner does without.
    if (lock(made.fd_) != 0 && errno == EWOULDBLOCK) {
        errno = EAGAIN;
        return {};
    }
    if (!isInPlace(made.fd_)) {
        errno = ENOENT;
        return {};
    }
    return made;
}

AreaLock AreaLock::TakeOver(int area) noexcept {
    AreaLock taken(openat(area, kAreaLockName, kFlags));
    if (!taken.IsHeld()) {
        return taken;
    }
    if (!isOurs(taken.fd_) || lock(taken.fd_) != 0) {
        errno = EAGAIN;
        return {};
    }
    return taken;
}

} // namespace tool
