#include "support/zk/File.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/fs.h>
#include <sys/ioctl.h>
#elif defined(__APPLE__)
#include <sys/clonefile.h>
#endif

namespace ZK::file {
namespace {

// Copies by hand what is left between the two positions and the end of the source.
void copyRest(readable_file &source, writable_file &destination) {
    constexpr std::size_t kBufferSize = 256 * 1024; // larger ones gain nothing
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(kBufferSize);
    while (const std::size_t count = source.read_some({buffer.get(), kBufferSize})) {
        destination.write({buffer.get(), count});
    }
}

#if defined(__linux__)

bool clone(const readable_file &source, const writable_file &destination) {
    return ::ioctl(destination.native_handle(), FICLONE, source.native_handle()) == 0;
}

// Errors that mean "not between these two files", as opposed to a full or broken disk.
bool cannotCopyInKernel(int number) {
    return number == EXDEV || number == EINVAL || number == ENOSYS || number == EOPNOTSUPP ||
           number == EPERM || number == EBADF || number == ETXTBSY;
}

// Advances both positions as far as the kernel gets; the rest, if any, is for copyRest.
// Some file systems report an end of file that is none, so it is never relied upon.
void copyInKernel(const readable_file &source, const writable_file &destination) {
    constexpr std::size_t kPiece = std::size_t{1} << 30;
    for (;;) {
        const ::ssize_t count = ::copy_file_range(source.native_handle(), nullptr,
                                                  destination.native_handle(), nullptr, kPiece, 0);
        if (count > 0 || (count < 0 && errno == EINTR)) {
            continue;
        }
        if (count == 0 || cannotCopyInKernel(errno)) {
            return;
        }
        throw boost::system::system_error(errno, boost::system::system_category(),
                                          "copy_file_range");
    }
}

void copyContent(readable_file &source, writable_file &destination) {
    if (!clone(source, destination)) {
        copyInKernel(source, destination);
        copyRest(source, destination);
    }
}

#else

void copyContent(readable_file &source, writable_file &destination) {
    copyRest(source, destination);
}

#endif

#if defined(__APPLE__)
// The clone takes over the source's mode, which is put right before anybody knows its name.
bool cloneToPath(const readable_file &source, const filesystem::path &destination) {
    if (::fclonefileat(source.native_handle(), AT_FDCWD, destination.c_str(), 0) != 0) {
        if (errno == EEXIST) {
            throw boost::system::system_error(errno, boost::system::system_category(), "open");
        }
        return false;
    }
    if (::chmod(destination.c_str(), S_IRUSR | S_IWUSR) != 0) {
        const int number = errno;
        ::unlink(destination.c_str());
        throw boost::system::system_error(number, boost::system::system_category(), "chmod");
    }
    return true;
}
#endif

} // namespace

void copy_new(const filesystem::path &source, const filesystem::path &destination) {
    readable_file from(source);
    copy_new(from, destination);
}

void copy_new(readable_file &from, const filesystem::path &destination) {
#if defined(__APPLE__)
    if (cloneToPath(from, destination)) {
        return;
    }
#endif
    writable_file to = writable_file::create_new(destination);
    try {
        copyContent(from, to);
        to.complete();
    } catch (...) {
        to.close();
        ::unlink(destination.c_str());
        throw;
    }
}

} // namespace ZK::file
