#include "container/JournalFolder.hpp"

#include "container/ChangeJournal.hpp"

#include <algorithm>
#include <cerrno>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kelvane::journal {

namespace {

using ZK::file::directory;

void apply(const directory &root, const directory &folder, const PlannedChange &change) {
    const directory parent = OpenParent(root, change.name);
    if (!change.puts) {
        if (parent.is_open()) {
            parent.unlink(LastOf(change.name));
        }
        return;
    }
    // One that is gone from here is where it belongs.
    const std::string source = NewName(change.number);
    if (folder.holds(source)) {
        if (!parent.is_open()) {
            errno = ENOENT;
            Raise("open");
        }
        folder.rename(source, parent, LastOf(change.name));
    }
}

void removeFolder(const directory &root, const directory &folder, const char *last) {
    for (const std::string &name : folder.list()) {
        if (name != last) {
            folder.unlink(name);
        }
    }
    folder.sync();
    folder.unlink(last);
    root.unlink_directory(kJournalName);
    root.sync();
}

} // namespace

std::string NewName(std::size_t number) { return "new-" + std::to_string(number); }

std::string ParentOf(const std::string &name) {
    const std::size_t slash = name.rfind('/');
    return slash == std::string::npos ? std::string() : name.substr(0, slash);
}

std::string LastOf(const std::string &name) { return name.substr(name.rfind('/') + 1); }

directory OpenParent(const directory &root, const std::string &name) {
    boost::system::error_code error;
    directory current = root.open_directory(".", error);
    RaiseIf(error, "open");
    const std::string path = ParentOf(name);
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        current = current.open_directory(path.substr(start, end - start), error);
        if (error == boost::system::errc::no_such_file_or_directory) {
            return {};
        }
        RaiseIf(error, "open");
        start = end + 1;
    }
    return current;
}

std::string ReadText(const directory &folder, const char *name) {
    const ZK::file::unique_descriptor file(::openat(
        folder.native_handle(), name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
        Raise("open");
    }
    if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) > kMaxTextSize) {
        return {};
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t done = 0;
    while (done < text.size()) {
        const ::ssize_t count = ::read(file.get(), text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            Raise("read");
        }
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(std::max<::ssize_t>(count, 0));
    }
    text.resize(done);
    return text;
}

void Complete(const directory &root, const directory &folder,
              const std::vector<PlannedChange> &changes) {
    std::set<std::string> parents;
    for (const PlannedChange &change : changes) {
        apply(root, folder, change);
        // Also of what an earlier attempt moved, whose name may not be on the disk yet.
        parents.insert(ParentOf(change.name));
    }
    for (const std::string &path : parents) {
        const directory parent = OpenParent(root, path + "/x");
        if (parent.is_open()) {
            parent.sync();
        }
    }
    folder.rename(kPlanName, folder, kDoneName);
    ClearAway(root, folder);
}

void TakeBack(const directory &root, const directory &folder) {
    if (folder.holds(kFoldersName)) {
        std::vector<std::string> made = ParseNames(ReadText(folder, kFoldersName));
        for (auto name = made.rbegin(); name != made.rend(); ++name) {
            const directory parent = OpenParent(root, *name);
            if (parent.is_open()) {
                // One that is not empty is somebody's.
                (void)::unlinkat(parent.native_handle(), LastOf(*name).c_str(), AT_REMOVEDIR);
            }
        }
    }
    removeFolder(root, folder, kFoldersName);
}

void ClearAway(const directory &root, const directory &folder) {
    removeFolder(root, folder, kDoneName);
}

void Raise(const char *step) {
    throw boost::system::system_error(errno, boost::system::system_category(), step);
}

void RaiseIf(const boost::system::error_code &error, const char *step) {
    if (error) {
        throw boost::system::system_error(error, step);
    }
}

} // namespace Kelvane::journal
