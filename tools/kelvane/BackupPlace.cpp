#include "BackupPlace.hpp"

#include "Diagnostics.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace tool {

namespace {

struct CloseDirectory {
    void operator()(DIR *directory) const noexcept { closedir(directory); }
};

bool holdsBackup(const std::string &folder) {
    struct stat status {};
    return stat((folder + "/Manifest.plist").c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Whether what was listed may be a folder; links are none.
bool isFolder(DIR *directory, const dirent &item, struct stat &status) {
    const std::string_view name = item.d_name;
    // A flat backup has hundreds of thousands of files, which are not looked at.
    return (item.d_type == DT_DIR || item.d_type == DT_UNKNOWN) && name != "." && name != ".." &&
           fstatat(dirfd(directory), item.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode);
}

// The only folder that holds a backup, where what is named holds none itself; else what is named.
std::string backupIn(const std::string &named) {
    if (holdsBackup(named)) {
        return named;
    }
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir(named.c_str()));
    std::string found;
    struct stat status {};
    while (const dirent *item = directory ? readdir(directory.get()) : nullptr) {
        const std::string folder = named + "/" + item->d_name;
        if (isFolder(directory.get(), *item, status) && holdsBackup(folder)) {
            if (!found.empty()) {
                return named; // several, none of which is opened
            }
            found = folder;
        }
    }
    return found.empty() ? named : found;
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
    const std::string place = backupIn(backup);
    struct stat status {};
    if (stat(place.c_str(), &status) != 0) {
        return;
    }
    itself_ = {status.st_dev, status.st_ino};
    if (S_ISDIR(status.st_mode)) {
        directories_.insert(itself_);
        addFolders(place);
    }
}

// A folder of the backup may be mounted elsewhere too. A backup has no deeper ones.
void BackupPlace::addFolders(const std::string &backup) {
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir(backup.c_str()));
    struct stat status {};
    while (const dirent *item = directory ? readdir(directory.get()) : nullptr) {
        if (isFolder(directory.get(), *item, status)) {
            directories_.insert({status.st_dev, status.st_ino});
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
