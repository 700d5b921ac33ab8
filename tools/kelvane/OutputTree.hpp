// A directory that entries are written into, and nothing outside it.
#pragma once

#include "BackupPlace.hpp"
#include "support/cf/Error.hpp"

#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

struct stat;

namespace tool {

// Permissions and times that an entry gets when it is complete.
struct Attributes {
    mode_t permissions = 0;
    std::timespec modified{};
};

// A path below the root, split into components.
using TreePath = std::vector<std::string>;

// The components of DOMAIN/PATH. Throws Failure for a component that is empty, "." or "..",
// or holds a NUL, for a domain that is no single component, and for more than 1,024 components.
TreePath SplitTreePath(const std::string &domain, const std::string &path);

// Names come from the backup, and so do links: every step below the root is opened relative
// to the directory before it, following no link. All functions throw Failure.
class OutputTree {
  public:
    // Opens the directory, which is made when it is missing. With replace, files and links
    // that are in the way give way; else they are an error. The backup, which the names may lead
    // into when it lies below the root, is never written to; it must outlive the object.
    OutputTree(const std::string &root, bool replace, const BackupPlace &backup);
    OutputTree(const OutputTree &) = delete;
    OutputTree &operator=(const OutputTree &) = delete;
    ~OutputTree();

    // Makes the directory and those above it; one that exists is kept. False when it is one with
    // a directory for which this was called before.
    bool MakeDirectory(const TreePath &path);
    // Writes a file under another name first: either it is there whole or not at all.
    void WriteFile(const TreePath &path, const Attributes &attributes,
                   const std::function<void(int fd)> &writeContent);
    void MakeLink(const TreePath &path, const std::string &target, const Attributes &attributes);
    // For when nothing more is to be written into the directory.
    void FinishDirectory(const TreePath &path, const Attributes &attributes);
    // Where a new file or link is to go: to the path, or beside it under a marked name, "name
    // (2).txt", when this object has put something there already: file systems that take two names
    // for one would lose it. Throws when anything else is in the way, unless it may be replaced.
    TreePath PlaceFor(const TreePath &path);

  private:
    // The directory that is to hold the last component; borrowed until the next call.
    int openParent(const TreePath &path);
    int enter(int directory, const std::string &name, mode_t mode) const;
    void remember(int directory, const std::string &name);
    bool hasMade(const struct stat &status) const;
    bool isFree(int directory, const std::string &name) const;

    int root_ = -1;
    bool replace_;
    const BackupPlace &backup_;
    // The directory used last: entries of one directory follow each other.
    TreePath cachedPath_;
    int cached_ = -1;
    // What this object made, and the directories that it was to make.
    std::set<std::pair<dev_t, ino_t>> made_;
};

} // namespace tool
