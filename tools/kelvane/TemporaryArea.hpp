// The tool's private directory for the library's temporary files.
#pragma once

#include "AreaLock.hpp"

#include <string>

namespace tool {

// Makes a fresh directory of mode 0700 in the given directory, or in $TMPDIR, else /tmp, when
// the given one is empty; sets it as the library's temporary path; and removes it with all that
// is in it when the object goes, and when a signal ends the process. What a run that was killed
// left there goes first. One object a process. Throws Failure.
class TemporaryArea {
  public:
    explicit TemporaryArea(const std::string &parent);
    TemporaryArea(const TemporaryArea &) = delete;
    TemporaryArea &operator=(const TemporaryArea &) = delete;
    ~TemporaryArea();

    // Where the area for that directory, or for an empty one, is to lie.
    static std::string ParentFor(const std::string &given);

    const std::string &Path() const noexcept { return path_; }
    // True for a path below the directory.
    bool Contains(const std::string &path) const;

  private:
    bool make(const std::string &parent);
    void remove() const;
    void removeOnSignal() const;

    std::string path_;
    AreaLock lock_;
};

} // namespace tool
