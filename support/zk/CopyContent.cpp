#include "support/zk/CopyContent.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <span>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

namespace ZK::file {

namespace {

boost::system::error_code lastError() { return {errno, boost::system::system_category()}; }

// Writes all of it; false with errno.
bool writeAll(int destination, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ::ssize_t count = ::write(destination, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        if (count == 0) { // no progress and no reason: do not spin
            errno = EIO;
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(std::max<::ssize_t>(count, 0)));
    }
    return true;
}

// Copies by hand what is left of the source.
std::uint64_t copyRest(int source, int destination, std::span<std::uint8_t> buffer,
                       boost::system::error_code &error) {
    std::uint64_t copied = 0;
    for (;;) {
        const ::ssize_t count = ::read(source, buffer.data(), buffer.size());
        if (count == 0) {
            return copied;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 || !writeAll(destination, buffer.first(static_cast<std::size_t>(count)))) {
            error = lastError();
            return copied;
        }
        copied += static_cast<std::uint64_t>(count);
    }
}

// Files up to this size are copied by hand: asking for a clone costs as much as copying them.
constexpr std::size_t kSmallSize = 64 * 1024;
constexpr std::size_t kBufferSize = 256 * 1024; // larger ones gain nothing

// size is what the file was said to have: when one reading gives just that, and could have given
// more, there is no need to ask for its end.
std::uint64_t copySmall(int source, int destination, std::uint64_t size,
                        boost::system::error_code &error) {
    std::uint8_t buffer[kSmallSize + 1];
    ::ssize_t count = -1;
    do {
        count = ::read(source, buffer, sizeof buffer);
    } while (count < 0 && errno == EINTR);
    const auto first = static_cast<std::size_t>(std::max<::ssize_t>(count, 0));
    if (count < 0 || !writeAll(destination, {buffer, first})) {
        error = lastError();
        return 0;
    }
    return first == size || first == 0 ? first
                                       : first + copyRest(source, destination, buffer, error);
}

std::uint64_t copyByHand(int source, int destination, boost::system::error_code &error) {
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(kBufferSize);
    return copyRest(source, destination, {buffer.get(), kBufferSize}, error);
}

#if defined(__linux__)

// A clone takes the whole source, wherever its position is.
bool clone(int source, int destination) {
    return ::lseek(source, 0, SEEK_CUR) == 0 && ::ioctl(destination, FICLONE, source) == 0;
}

// Errors that mean "not between these two files", as opposed to a full or broken disk.
bool cannotCopyInKernel(int number) {
    return number == EXDEV || number == EINVAL || number == ENOSYS || number == EOPNOTSUPP ||
           number == EPERM || number == EBADF || number == ETXTBSY;
}

// Advances both positions as far as the kernel gets; what is missing of the size is to be copied by
// hand: some file systems report an end of file that is none.
std::uint64_t copyInKernel(int source, int destination, bool &possible,
                           boost::system::error_code &error) {
    constexpr std::size_t kPiece = std::size_t{1} << 30;
    std::uint64_t copied = 0;
    for (;;) {
        const ::ssize_t count = ::copy_file_range(source, nullptr, destination, nullptr, kPiece, 0);
        if (count > 0) {
            copied += static_cast<std::uint64_t>(count);
        } else if (count == 0) {
            return copied;
        } else if (cannotCopyInKernel(errno)) {
            possible = false;
            return copied;
        } else if (errno != EINTR) {
            error = lastError();
            return copied;
        }
    }
}

#endif

} // namespace

void write_all(int destination, std::span<const std::uint8_t> bytes,
               boost::system::error_code &error) {
    error.clear();
    if (!writeAll(destination, bytes)) {
        error = lastError();
    }
}

int sync_to_disk(int file) noexcept {
    int result = -1;
#if defined(F_FULLFSYNC)
    // Here fsync alone leaves it to the drive when to write.
    if (::fcntl(file, F_FULLFSYNC) == 0) {
        return 0;
    }
#endif
    do {
        result = ::fsync(file);
    } while (result != 0 && errno == EINTR);
    return result;
}

std::uint64_t content_copier::copy(int source, int destination, std::uint64_t size,
                                   boost::system::error_code &error) {
    error.clear();
    if (size <= kSmallSize) {
        return copySmall(source, destination, size, error);
    }
    std::uint64_t copied = 0;
#if defined(__linux__)
    struct stat status {};
    if (may_clone_ && clone(source, destination)) {
        if (::fstat(destination, &status) != 0) {
            error = lastError();
        }
        return static_cast<std::uint64_t>(status.st_size);
    }
    may_clone_ = false;
    if (may_copy_in_kernel_) {
        copied = copyInKernel(source, destination, may_copy_in_kernel_, error);
    }
#endif
    return error || copied == size ? copied : copied + copyByHand(source, destination, error);
}

} // namespace ZK::file
