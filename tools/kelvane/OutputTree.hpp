// A directory that entries are written into, and nothing outside it.
#pragma once

#include "support/cf/Error.hpp"

#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace tool {

// Permissions and times that an entry gets when it is complete.
struct Attributes {
    mode_t permissions = 0;
    std::timespec modified{};
};

// A path below the root, split into components.
using TreePath = std::vector<std::string>;

// The components of DOMAIN/PATH. Throws Failure for a component that is empty, "." or "..",
// or holds a NUL, and for a domain that is no single component.
TreePath SplitTreePath(const std::string &domain, const std::string &path);

// Names come from the backup, and so do links: every step below the root is opened relative
// to the directory before it, following no link. All functions throw Failure.
class OutputTree {
  public:
    // Opens the directory, which is made when it is missing. With replace, files and links
    // that are in the way give way; else they are an error.
    OutputTree(const std::string &root, bool replace);
    OutputTree(const OutputTree &) = delete;
    OutputTree &operator=(const OutputTree &) = delete;
    ~OutputTree();

    // Makes the directory and those above it; one that exists is kept.
    void MakeDirectory(const TreePath &path);
    // Writes a file under another name first: either it is there whole or not at all.
    void WriteFile(const TreePath &path, const Attributes &attributes,
                   const std::function<void(int fd)> &writeContent);
    void MakeLink(const TreePath &path, const std::string &target, const Attributes &attributes);
    // For when nothing more is to be written into the directory.
    void FinishDirectory(const TreePath &path, const Attributes &attributes);
    // Throws when something is in the way of a new file or link, unless it may be replaced.
    void CheckVacant(const TreePath &path);

  private:
    // The directory that is to hold the last component; borrowed until the next call.
    int openParent(const TreePath &path);
    void remember(int directory, const std::string &name);

    int root_ = -1;
    bool replace_;
    // The directory used last: entries of one directory follow each other.
    TreePath cachedPath_;
    int cached_ = -1;
    // The files and links that this object made, when it may replace others.
    std::set<std::pair<dev_t, ino_t>> made_;
};

} // namespace tool
