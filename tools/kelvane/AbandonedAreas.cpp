#include "AbandonedAreas.hpp"

#include "AreaLock.hpp"
#include "Removal.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {

namespace {

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kPermissions = 0777;
constexpr mode_t kAreaMode = 0700;
constexpr std::size_t kRandomLength = 6;
// Seconds that a run has between making an area and its lock. One that takes longer, because it
// was stopped, finds its area gone and makes another.
constexpr std::time_t kGrace = 60;

bool isAreaName(std::string_view name) {
    return name.starts_with(kAreaPrefix) && name.size() == std::strlen(kAreaPrefix) + kRandomLength;
}

bool isOursAlone(int area) {
    struct stat status;
    return fstat(area, &status) == 0 && status.st_uid == geteuid() &&
           (status.st_mode & kPermissions) == kAreaMode;
}

bool isOld(int area) {
    struct stat status;
    return fstat(area, &status) == 0 && std::time(nullptr) - status.st_mtime > kGrace;
}

void removeIfAbandoned(int parent, const char *name, int area) {
    if (!isOursAlone(area)) {
        return;
    }
    const AreaLock lock = AreaLock::TakeOver(area);
    if (lock.IsHeld()) {
        if (RemoveContents(area, kAreaLockName)) {
            unlinkat(area, kAreaLockName, 0);
            unlinkat(parent, name, AT_REMOVEDIR);
        }
    } else if (errno == ENOENT && isOld(area)) {
        unlinkat(parent, name, AT_REMOVEDIR); // only if it is empty
    }
}

void visit(int parent, const char *name) {
    const int area = isAreaName(name) ? openat(parent, name, kDirectoryFlags) : -1;
    if (area >= 0) {
        removeIfAbandoned(parent, name, area);
        close(area);
    }
}

} // namespace

void RemoveAbandonedAreas(const std::string &parent) noexcept {
    DIR *stream = opendir(parent.c_str());
    if (stream == nullptr) {
        return;
    }
    while (const dirent *entry = readdir(stream)) {
        visit(dirfd(stream), entry->d_name);
    }
    closedir(stream);
}

} // namespace tool
