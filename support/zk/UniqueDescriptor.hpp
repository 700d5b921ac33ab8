#pragma once

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace ZK::file {

// Owns a bare file descriptor until something else takes it over.
class unique_descriptor {
  public:
    explicit unique_descriptor(int fd) noexcept : fd_(fd) {}
    unique_descriptor(unique_descriptor &&other) noexcept : fd_(other.release()) {}
    unique_descriptor &operator=(unique_descriptor &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~unique_descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    int get() const noexcept { return fd_; }
    // Closes it now; errno when that fails, and bytes written before may be lost, else 0. An
    // interruption is no failure: the system goes on writing.
    int close() noexcept {
        const int result = ::close(release());
        return result == 0 || errno == EINTR ? 0 : errno;
    }
    int release() noexcept { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

} // namespace ZK::file
