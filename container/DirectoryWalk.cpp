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
    Walk(const std::string &root, const SourceFileConsumer &consumer)
        : root_(root), consumer_(consumer) {}

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
            if (!isDots(name) && !visit(dirfd(directory.get()), name, prefix + name, depth)) {
                return false;
            }
        }
    }

    bool visit(int directory, const std::string &name, const std::string &path, int depth) {
        struct stat status;
        if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) { // gone since it was listed
                return true;
            }
            throwUnreadable(errno, fullPath(path));
        }
        if (S_ISDIR(status.st_mode) && depth + 1 < kMaxDepth) {
            const int fd = openat(directory, name.c_str(), kFlags | O_NOFOLLOW);
            return visitDirectory(fd, path + "/", depth + 1);
        }
        return consumer_({SourceFileName(path), static_cast<std::uint64_t>(status.st_size),
                          S_ISREG(status.st_mode)});
    }

    const std::string &root_;
    const SourceFileConsumer &consumer_;
};

} // namespace

void WalkDirectory(const std::string &root, const SourceFileConsumer &consumer) {
    Walk(root, consumer).Run();
}

} // namespace Kelvane
