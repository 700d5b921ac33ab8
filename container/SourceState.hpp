// What the files of a backup were like when it was opened.
#pragma once

#include "support/zk/Directory.hpp"

#include <map>
#include <optional>
#include <string>

#include <sys/stat.h>

namespace Kelvane {

// The state of the manifest and metadata files in a backup's directory: which file bears each name,
// its size and its times. Whoever changes a backup changes one of them.
class SourceState {
  public:
    // As it is now.
    explicit SourceState(const ZK::file::directory &root);

    // The first of the files that is not as it was; none when all are.
    std::optional<std::string> FirstDifference(const ZK::file::directory &root) const;

  private:
    std::map<std::string, std::optional<struct stat>> files_;
};

// The state of the backup in that directory; none when it cannot be opened.
std::optional<SourceState> TakeSourceState(const std::string &path);

// The name of a log or journal with changes that lies beside the database and is not read; whoever
// opens the database next would bring it into the file that is there then. None when there is none.
std::optional<std::string> UnreadLog(const ZK::file::directory &root);

} // namespace Kelvane
