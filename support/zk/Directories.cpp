#include "support/zk/File.hpp"

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>
#include <vector>

#include <sys/stat.h>

namespace ZK::file {
namespace {

[[noreturn]] void raise(const char *step, const filesystem::path &path) {
    throw boost::filesystem::filesystem_error(
        step, path, boost::system::error_code(errno, boost::system::system_category()));
}

// Private from the first moment on: a directory made first and restricted afterwards
// would stand open in between.
void makePrivateDirectory(const filesystem::path &path) {
    if (::mkdir(path.c_str(), S_IRWXU) != 0) {
        if (errno == EEXIST) {
            return;
        }
        raise("mkdir", path);
    }
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        raise("lstat", path);
    }
    // A umask that takes away the owner's own rights.
    if ((status.st_mode & S_IRWXU) != S_IRWXU && ::chmod(path.c_str(), S_IRWXU) != 0) {
        raise("chmod", path);
    }
}

} // namespace

void create_private_directories(const filesystem::path &path) {
    std::vector<filesystem::path> missing;
    for (filesystem::path current = path; !current.empty() && !boost::filesystem::exists(current);
         current = current.parent_path()) {
        missing.push_back(current);
    }
    for (auto current = missing.rbegin(); current != missing.rend(); ++current) {
        makePrivateDirectory(*current);
    }
    // Fails when something else than a directory bears the name.
    boost::filesystem::create_directories(path);
}

} // namespace ZK::file
