// Keeps what the tool writes out of the backup that it reads.
#pragma once

#include <set>
#include <string>
#include <sys/types.h>
#include <utility>

struct stat;

namespace tool {

// Where a backup lies, by device and inode: links, bind mounts, and file systems that take two
// names for one show different paths to it. A zip, and what is not there, has no inside. Where a
// folder of what is named is the backup, as opening finds it, the place is that folder.
class BackupPlace {
  public:
    explicit BackupPlace(const std::string &backup);

    // True for the backup's directory and its folders.
    bool Has(const struct stat &directory) const;
    // True for a path in the backup, whether something is there or only would be.
    bool Holds(const std::string &path) const;
    // Throws Failure when the output would lie in the backup, or replace it.
    void RequireOutside(const std::string &output) const;

  private:
    using Identity = std::pair<dev_t, ino_t>;
    void addFolders(const std::string &backup);

    std::set<Identity> directories_;
    Identity itself_{};
};

} // namespace tool
