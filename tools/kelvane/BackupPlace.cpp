#include "BackupPlace.hpp"

#include "Diagnostics.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <system_error>

namespace tool {

namespace {

struct CloseDirectory {
    void operator()(DIR *directory) const noexcept { closedir(directory); }
};

constexpr int kOneLevel = 1;
constexpr int kTwoLevels = 2;

// 0 for what is not there.
mode_t modeOf(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

// Of what exists of the path, with links resolved.
std::filesystem::path realPath(const std::string &path) {
    std::error_code error;
    // Absolute first: of a relative path nothing of which exists it makes nothing else.
    const auto absolute = std::filesystem::absolute(path, error);
    const auto real = error ? absolute : std::filesystem::weakly_canonical(absolute, error);
    if (error) {
        throw Failure("'" + path + "' cannot be reached: " + error.message());
    }
    return real;
}

} // namespace

BackupPlace::BackupPlace(const std::string &backup) {
    struct stat status;
    if (stat(backup.c_str(), &status) != 0) {
        return;
    }
    itself_ = {status.st_dev, status.st_ino};
    if (S_ISDIR(status.st_mode)) {
        directories_.insert(itself_);
        addFolders(backup, S_ISREG(modeOf(backup + "/Manifest.plist")) ? kOneLevel : kTwoLevels);
    }
}

// A folder of the backup may be mounted elsewhere too. A backup has no deeper ones, but may itself
// be a folder of what is named.
void BackupPlace::addFolders(const std::string &backup, int levels) {
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir(backup.c_str()));
    while (const dirent *item = directory ? readdir(directory.get()) : nullptr) {
        const std::string name = item->d_name;
        struct stat status;
        // A flat backup has hundreds of thousands of files, which are not looked at.
        if ((item->d_type == DT_DIR || item->d_type == DT_UNKNOWN) && name != "." && name != ".." &&
            fstatat(dirfd(directory.get()), item->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(status.st_mode)) {
            directories_.insert({status.st_dev, status.st_ino});
            if (levels > kOneLevel) {
                addFolders(backup + "/" + name, levels - 1);
            }
        }
    }
}

bool BackupPlace::Has(const struct stat &directory) const {
    return directories_.contains({directory.st_dev, directory.st_ino});
}

bool BackupPlace::Holds(const std::string &path) const {
    if (directories_.empty()) {
        return false;
    }
    const std::filesystem::path real = realPath(path);
    for (auto current = real;; current = current.parent_path()) {
        struct stat status;
        if (stat(current.c_str(), &status) == 0 && Has(status)) {
            return true;
        }
        if (!current.has_relative_path()) {
            return false;
        }
    }
}

void BackupPlace::RequireOutside(const std::string &output) const {
    struct stat status;
    // A link to the backup is replaced itself.
    if (lstat(output.c_str(), &status) == 0 && !S_ISDIR(status.st_mode) &&
        Identity(status.st_dev, status.st_ino) == itself_) {
        throw Failure("'" + output + "' is the backup itself");
    }
    if (Holds(output)) {
        throw Failure("'" + output + "' would lie inside the backup");
    }
}

} // namespace tool
