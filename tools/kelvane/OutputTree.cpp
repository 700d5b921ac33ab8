#include "OutputTree.hpp"

#include "AbandonedOutputs.hpp"
#include "Diagnostics.hpp"
#include "Interruption.hpp"
#include "Rename.hpp"
#include "TwinName.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {

namespace {

[[noreturn]] void throwSystemFailure(const char *message) { throw Failure(message, SystemError()); }

bool isSafeComponent(const std::string &component) {
    return !component.empty() && component != "." && component != ".." &&
           component.find('\0') == std::string::npos;
}

// As deep as an edit may make a backup. Paths of devices have 1,024 bytes; every level costs
// system calls, and many tools cannot remove what is far deeper.
constexpr std::ptrdiff_t kMaximumLevels = 1024;

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// A directory from an earlier extraction may have come out read-only.
void makeWritable(int directory) {
    struct stat status;
    if (fstat(directory, &status) == 0 && status.st_uid == geteuid() &&
        (status.st_mode & S_IRWXU) != S_IRWXU) {
        fchmod(directory, (status.st_mode & 07777) | S_IRWXU);
    }
}

// The name of a file or link that is still being made; what has it goes away with the object
// unless it was published.
class Partial {
  public:
    // make gets a name that is not taken, and returns -1 with errno when it fails.
    template <class Make>
    Partial(int directory, Make make) : directory_(directory) {
        static unsigned long counter = 0;
        const Interruption::Hold hold;
        do {
            name_ = PartialName(counter++);
            result_ = make(name_.c_str());
        } while (result_ < 0 && errno == EEXIST);
        if (result_ < 0) {
            throwSystemFailure("It could not be made");
        }
        Interruption::SetCleanup(Interruption::kPartialFile, [this] { remove(); });
    }
    Partial(const Partial &) = delete;
    Partial &operator=(const Partial &) = delete;
    ~Partial() {
        const Interruption::Hold hold;
        Interruption::SetCleanup(Interruption::kPartialFile, nullptr);
        if (!published_) {
            remove();
        }
    }
    const std::string &name() const noexcept { return name_; }
    // What make returned.
    int result() const noexcept { return result_; }
    void Publish(const std::string &name, bool replace) {
        const int renamed = replace ? renameat(directory_, name_.c_str(), directory_, name.c_str())
                                    : RenameWithoutReplacing(directory_, name_, name);
        if (renamed != 0) {
            throwSystemFailure("It could not be put in its place");
        }
        published_ = true;
    }

  private:
    void remove() const { unlinkat(directory_, name_.c_str(), 0); }

    int directory_;
    std::string name_;
    int result_ = -1;
    bool published_ = false;
};

class OpenFile {
  public:
    explicit OpenFile(int fd) : fd_(fd) {}
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    ~OpenFile() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    int get() const noexcept { return fd_; }
    void Finish(const Attributes &attributes) {
        const std::timespec times[2] = {attributes.modified, attributes.modified};
        if (fchmod(fd_, attributes.permissions) != 0 || futimens(fd_, times) != 0) {
            throwSystemFailure("The file's attributes could not be set");
        }
        // Some file systems report a full disk here and not before.
        const int closed = close(fd_);
        fd_ = -1;
        if (closed != 0) {
            throwSystemFailure("The file could not be written");
        }
    }

  private:
    int fd_;
};

} // namespace

TreePath SplitTreePath(const std::string &domain, const std::string &path) {
    const std::ptrdiff_t levels = std::ranges::count(path, '/') + 1;
    if (levels > kMaximumLevels) {
        throw Failure("The path is too deep (" + std::to_string(levels) + " levels)");
    }
    TreePath components{domain};
    for (std::size_t start = 0; start < path.size() || (start == path.size() && start > 0);) {
        const std::size_t slash = std::min(path.find('/', start), path.size());
        components.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    for (const std::string &component : components) {
        if (!isSafeComponent(component)) {
            throw Failure("The name leads out of the target directory or is no file name");
        }
    }
    if (domain.find('/') != std::string::npos) {
        throw Failure("The domain's name holds a \"/\"");
    }
    return components;
}

OutputTree::OutputTree(const std::string &root, bool replace, const BackupPlace &backup)
    : replace_(replace), backup_(backup) {
    std::error_code error;
    std::filesystem::create_directories(root, error);
    // The root itself is the user's choice, and may be reached through links.
    root_ = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root_ < 0) {
        // What kept it from being made says more than that it is missing.
        errno = error ? error.value() : errno;
        throw Failure("The target directory '" + root + "' could not be opened", SystemError());
    }
}

OutputTree::~OutputTree() {
    if (cached_ >= 0) {
        close(cached_);
    }
    close(root_);
}

// Opens a directory in a directory, making it with the mode when it is missing.
int OutputTree::enter(int directory, const std::string &name, mode_t mode) const {
    const bool made = mkdirat(directory, name.c_str(), mode) == 0;
    if (!made && errno != EEXIST) {
        throwSystemFailure("The directory could not be made");
    }
    const int fd = openat(directory, name.c_str(), kDirectoryFlags);
    if (fd < 0) {
        // A link, which is not followed, shows as either.
        throwSystemFailure(errno == ENOTDIR || errno == ELOOP
                               ? "Something that is no directory is in the way"
                               : "The directory could not be opened");
    }
    struct stat status;
    if (!made && fstat(fd, &status) == 0 && backup_.Has(status)) {
        close(fd);
        throw Failure("The name leads into the backup itself");
    }
    return fd;
}

int OutputTree::openParent(const TreePath &path) {
    const TreePath parent(path.begin(), path.end() - 1);
    if (parent.empty()) {
        return root_;
    }
    if (cached_ >= 0 && parent == cachedPath_) {
        return cached_;
    }
    int directory = root_;
    for (const std::string &component : parent) {
        int next = -1;
        try {
            next = enter(directory, component, 0777);
        } catch (...) {
            if (directory != root_) {
                close(directory);
            }
            throw;
        }
        if (directory != root_) {
            close(directory);
        }
        directory = next;
    }
    if (cached_ >= 0) {
        close(cached_);
    }
    cached_ = directory;
    cachedPath_ = parent;
    return cached_;
}

bool OutputTree::MakeDirectory(const TreePath &path) {
    // Private until it gets its own permissions, which may keep others out.
    const int directory = enter(openParent(path), path.back(), 0700);
    makeWritable(directory);
    struct stat status;
    const bool first =
        fstat(directory, &status) != 0 || made_.emplace(status.st_dev, status.st_ino).second;
    close(directory);
    return first;
}

void OutputTree::FinishDirectory(const TreePath &path, const Attributes &attributes) {
    const int directory = openat(openParent(path), path.back().c_str(), kDirectoryFlags);
    if (directory < 0) {
        throwSystemFailure("The directory could not be opened");
    }
    const std::timespec times[2] = {attributes.modified, attributes.modified};
    const bool done =
        futimens(directory, times) == 0 && fchmod(directory, attributes.permissions) == 0;
    const CF::Error error = done ? CF::Error() : SystemError();
    close(directory);
    if (!done) {
        throw Failure("The directory's attributes could not be set", error);
    }
}

bool OutputTree::hasMade(const struct stat &status) const {
    return made_.contains({status.st_dev, status.st_ino});
}

// A place for what may not replace anything of this run, nor a directory.
bool OutputTree::isFree(int directory, const std::string &name) const {
    struct stat status;
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return true;
    }
    return replace_ && !S_ISDIR(status.st_mode) && !hasMade(status);
}

TreePath OutputTree::PlaceFor(const TreePath &path) {
    const int directory = openParent(path);
    struct stat status;
    if (fstatat(directory, path.back().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return path;
    }
    if (hasMade(status)) {
        TreePath marked = path;
        marked.back() = FreeTwinName(
            path.back(), [&](const std::string &name) { return isFree(directory, name); });
        return marked;
    }
    if (S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        throwSystemFailure("A directory is in the way");
    }
    if (!replace_) {
        errno = EEXIST;
        throwSystemFailure("It exists already (--force replaces it)");
    }
    return path;
}

void OutputTree::remember(int directory, const std::string &name) {
    struct stat status;
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        made_.emplace(status.st_dev, status.st_ino);
    }
}

void OutputTree::WriteFile(const TreePath &path, const Attributes &attributes,
                           const std::function<void(int fd)> &writeContent) {
    const int directory = openParent(path);
    Partial partial(directory, [&](const char *name) {
        return openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    });
    OpenFile file(partial.result());
    writeContent(file.get());
    file.Finish(attributes);
    partial.Publish(path.back(), replace_);
    remember(directory, path.back());
}

void OutputTree::MakeLink(const TreePath &path, const std::string &target,
                          const Attributes &attributes) {
    const int directory = openParent(path);
    const std::timespec times[2] = {attributes.modified, attributes.modified};
    Partial partial(directory,
                    [&](const char *name) { return symlinkat(target.c_str(), directory, name); });
    if (utimensat(directory, partial.name().c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
        throwSystemFailure("The link's time could not be set");
    }
    partial.Publish(path.back(), replace_);
    remember(directory, path.back());
}

} // namespace tool
