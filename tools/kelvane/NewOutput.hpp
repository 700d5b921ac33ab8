// A file or directory that appears at its place when it is complete, and not before.
#pragma once

#include <string>
#include <vector>

namespace tool {

// What becomes of a file or link at the path. A directory or a device is never replaced.
enum class IfPresent {
    Refuse,
    AskForForce, // refuse, and say that an option would replace it
    Replace,
};

// Throws Failure when something is at the path that is not to be replaced.
void RequireVacant(const std::string &path, IfPresent ifPresent);

// It is made under a hidden name beside its place, which it then takes. What was not published
// is removed with the object, and when a signal ends the process; so are directories above it
// that were made for it. One object at a time. All functions throw Failure.
class NewOutput {
  public:
    // What is to be replaced stays until the new one is published.
    NewOutput(const std::string &path, IfPresent ifPresent);
    NewOutput(const NewOutput &) = delete;
    NewOutput &operator=(const NewOutput &) = delete;
    ~NewOutput();

    // Where to make it; nothing is there.
    const std::string &PartialPath() const noexcept { return partial_; }
    void Publish();

  private:
    void makeParents();
    void removeOnSignal() const;
    void remove() const;
    bool removePartial() const;

    std::string path_;
    std::string partial_;
    bool replace_;
    bool published_ = false;
    // Outermost first.
    std::vector<std::string> madeParents_;
};

} // namespace tool
