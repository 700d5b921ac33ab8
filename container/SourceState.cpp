#include "container/SourceState.hpp"

#include "container/StoredName.hpp"

#include <boost/system/system_error.hpp>

#include <fcntl.h>

namespace Kelvane {

namespace {

constexpr const char *kLogNames[] = {"Manifest.db-wal", "Manifest.db-journal"};

// None when there is nothing, or nothing that can be looked at.
std::optional<struct stat> look(const ZK::file::directory &root, const std::string &name) {
    struct stat status {};
    const int result = ::fstatat(root.native_handle(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW);
    return result == 0 ? std::optional(status) : std::nullopt;
}

#if defined(__APPLE__)
const ::timespec &modifiedOf(const struct stat &status) { return status.st_mtimespec; }
const ::timespec &changedOf(const struct stat &status) { return status.st_ctimespec; }
#else
const ::timespec &modifiedOf(const struct stat &status) { return status.st_mtim; }
const ::timespec &changedOf(const struct stat &status) { return status.st_ctim; }
#endif

bool isSame(const ::timespec &one, const ::timespec &other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

bool isSame(const std::optional<struct stat> &one, const std::optional<struct stat> &other) {
    if (!one || !other) {
        return one.has_value() == other.has_value();
    }
    return one->st_dev == other->st_dev && one->st_ino == other->st_ino &&
           one->st_size == other->st_size && isSame(modifiedOf(*one), modifiedOf(*other)) &&
           isSame(changedOf(*one), changedOf(*other));
}

} // namespace

SourceState::SourceState(const ZK::file::directory &root) {
    for (const char *name : kMetadataNames) {
        files_.emplace(name, look(root, name));
    }
}

std::optional<SourceState> TakeSourceState(const std::string &path) {
    try {
        return SourceState(ZK::file::directory::open(path));
    } catch (const boost::system::system_error &) {
        return std::nullopt; // reading the backup tells why
    }
}

std::optional<std::string> SourceState::FirstDifference(const ZK::file::directory &root) const {
    for (const auto &[name, before] : files_) {
        if (!isSame(before, look(root, name))) {
            return name;
        }
    }
    return std::nullopt;
}

std::optional<std::string> UnreadLog(const ZK::file::directory &root) {
    for (const char *const name : kLogNames) {
        const auto log = look(root, name);
        if (log && log->st_size > 0) {
            return name;
        }
    }
    return std::nullopt;
}

} // namespace Kelvane
