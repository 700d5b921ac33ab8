#include "container/DirectoryWalk.hpp"

#include "Kelvane/Error.hpp"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace Kelvane {

namespace {

// A backup has two levels. Every level keeps a descriptor open, and a tree that somebody made
// to be deep must not use them up.
constexpr int kMaxDepth = 16;
constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC;

[[noreturn]] void throwUnreadable(int errnum, const std::string &path) {
    throw MakeFSError(errnum, CFSTR("A directory of the backup could not be read (%s)"),
                      path.c_str());
}

struct CloseDirectory {
    void operator()(DIR *directory) const noexcept { closedir(directory); }
};
using OpenDirectory = std::unique_ptr<DIR, CloseDirectory>;

bool isDots(const std::string &name) { return name == "." || name == ".."; }

class Walk {
  public:
    Walk(const std::string &root, Links links, const SourceFileConsumer &consumer,
         ListedSizes sizes)
        : root_(root), links_(links), consumer_(consumer), sizes_(sizes) {}

    void Run() {
        // The root itself is the host's choice, and may be reached through links.
        visitDirectory(open(root_.c_str(), kFlags), "", 0);
    }

  private:
    std::string fullPath(const std::string &name) const {
        return name.empty() ? root_ : root_ + "/" + name;
    }

    // Takes over the descriptor, which is -1 with errno when opening failed. The prefix ends
    // with a slash unless it is empty. False when the consumer ended the walk.
    bool visitDirectory(int fd, const std::string &prefix, int depth) {
        const OpenDirectory directory(fd < 0 ? nullptr : fdopendir(fd));
        if (!directory) {
            const int errnum = errno;
            if (fd >= 0) {
                close(fd);
            }
            throwUnreadable(errnum, fullPath(prefix));
        }
        for (;;) {
            errno = 0;
            const dirent *item = readdir(directory.get());
            if (item == nullptr && errno != 0) {
                throwUnreadable(errno, fullPath(prefix));
            }
            if (item == nullptr) {
                return true;
            }
            const std::string name = item->d_name;
            // The directory itself tells of most files that they are such.
            const bool known = sizes_ == ListedSizes::Zero && item->d_type == DT_REG;
            if (known
                    ? !consumer_({SourceFileName(prefix + name), 0, true})
                    : !isDots(name) && !visit(dirfd(directory.get()), name, prefix + name, depth)) {
                return false;
            }
        }
    }

    // Makes the status that of what the link leads to, if that is to be visited.
    bool follow(int directory, const std::string &name, int depth, struct stat &status) const {
        struct stat target;
        if (links_ == Links::Refuse || fstatat(directory, name.c_str(), &target, 0) != 0 ||
            (S_ISDIR(target.st_mode) && depth > 0)) {
            return false;
        }
        status = target;
        return true;
    }

    bool visit(int directory, const std::string &name, const std::string &path, int depth) {
        struct stat status;
        if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) { // gone since it was listed
                return true;
            }
            throwUnreadable(errno, fullPath(path));
        }
        const bool linked = S_ISLNK(status.st_mode) && follow(directory, name, depth, status);
        if (S_ISDIR(status.st_mode) && depth + 1 < kMaxDepth) {
            const int fd = openat(directory, name.c_str(), kFlags | (linked ? 0 : O_NOFOLLOW));
            return visitDirectory(fd, path + "/", depth + 1);
        }
        return consumer_({SourceFileName(path), static_cast<std::uint64_t>(status.st_size),
                          S_ISREG(status.st_mode)});
    }

    const std::string &root_;
    Links links_;
    const SourceFileConsumer &consumer_;
    ListedSizes sizes_;
};

} // namespace

void WalkDirectory(const std::string &root, Links links, const SourceFileConsumer &consumer,
                   ListedSizes sizes) {
    Walk(root, links, consumer, sizes).Run();
}

} // namespace Kelvane
