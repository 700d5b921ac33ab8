// The check of one file's content against what the manifest records of it.
#pragma once

#include "Content.hpp"
#include "OpenBackup.hpp"
#include "Problem.hpp"
#include "TemporaryArea.hpp"

namespace tool {

class ContentCheck {
  public:
    // All must outlive the object.
    ContentCheck(const Container &container, const TemporaryArea &area, const ProblemSink &sink)
        : container_(container), area_(area), sink_(sink) {}

    // Reads the file's content and reports what is wrong with it.
    void Run(Entry *entry) const;

  private:
    void checkRecorded(Entry *entry, const FileReference &stored, const FileReference &plain) const;
    void report(Entry *entry, const char *kind, const std::string &message,
                const CF::Error &cause = nullptr) const;
    void reportUnloadable(Entry *entry, const CF::Error &error) const;
    void reportLocked(Entry *entry, const CF::Error &error) const;

    const Container &container_;
    const TemporaryArea &area_;
    const ProblemSink &sink_;
};

} // namespace tool
