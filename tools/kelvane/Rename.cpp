#include "Rename.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace tool {

int RenameWithoutReplacing(int directory, const std::string &from, const std::string &to) {
#ifdef RENAME_NOREPLACE
    if (renameat2(directory, from.c_str(), directory, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return -1;
    }
#endif
    // File systems without that operation: nobody else writes here, so looking first will do.
    struct stat status;
    if (fstatat(directory, to.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return -1;
    }
    return renameat(directory, from.c_str(), directory, to.c_str());
}

} // namespace tool
