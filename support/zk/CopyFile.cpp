#include "support/zk/CopyContent.hpp"
#include "support/zk/File.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__APPLE__)
#include <sys/clonefile.h>
#endif

namespace ZK::file {
namespace {

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
        boost::system::error_code error;
        content_copier().copy(from.native_handle(), to.native_handle(), from.size(), error);
        if (error) {
            throw boost::system::system_error(error, "copy");
        }
        to.complete();
    } catch (...) {
        to.close();
        ::unlink(destination.c_str());
        throw;
    }
}

} // namespace ZK::file
