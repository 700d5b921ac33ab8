// Lets system calls fail that succeed on every file system which a test can count upon.
//
// The functions below stand in for the C library's in the whole test program, the libraries that
// it loads included.
#pragma once

#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace testing_support {

enum class Call { Close, AddToPoll };

struct Failure {
    std::atomic<int> number{0};
    std::atomic<int> spared{0};
};
inline Failure closeFailure;
inline Failure pollFailure;

// While one lives, the call fails with that error number, but for the first few of them that are
// spared. Closing fails for regular files that
// are open for writing, and closes them all the same, as the system does: so a network or a
// quota file system tells that what was written has no place.
class FailingCall {
  public:
    FailingCall(Call call, int number, int spared = 0)
        : failure_(call == Call::Close ? closeFailure : pollFailure) {
        failure_.spared = spared;
        failure_.number = number;
    }
    FailingCall(const FailingCall &) = delete;
    FailingCall &operator=(const FailingCall &) = delete;
    ~FailingCall() { failure_.number = 0; }

  private:
    Failure &failure_;
};

// The error number of a call that is to fail, else 0.
inline int Fails(Failure &failure) {
    return failure.number == 0 || failure.spared-- > 0 ? 0 : failure.number.load();
}

inline bool IsFileForWriting(int fd) {
    struct stat status {};
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) != O_RDONLY && ::fstat(fd, &status) == 0 &&
           S_ISREG(status.st_mode);
}

} // namespace testing_support

extern "C" {

__attribute__((used, visibility("default"))) inline int close(int fd) {
    const bool counts = testing_support::IsFileForWriting(fd);
    const int number = counts ? testing_support::Fails(testing_support::closeFailure) : 0;
    const auto result = static_cast<int>(::syscall(SYS_close, fd));
    if (number == 0) {
        return result;
    }
    errno = number;
    return -1;
}

__attribute__((used, visibility("default"))) inline int epoll_ctl(int poll, int operation, int fd,
                                                                  epoll_event *event) noexcept {
    const int number =
        operation == EPOLL_CTL_ADD ? testing_support::Fails(testing_support::pollFailure) : 0;
    if (number == 0) {
        return static_cast<int>(::syscall(SYS_epoll_ctl, poll, operation, fd, event));
    }
    errno = number;
    return -1;
}
}
