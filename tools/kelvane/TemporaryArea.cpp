#include "TemporaryArea.hpp"

#include "AbandonedAreas.hpp"
#include "Diagnostics.hpp"
#include "Interruption.hpp"
#include "Kelvane.h"
#include "Removal.hpp"
#include "support/cf/String.hpp"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {

std::string TemporaryArea::ParentFor(const std::string &given) {
    if (!given.empty()) {
        return given;
    }
    const char *environment = std::getenv("TMPDIR");
    return environment != nullptr && *environment != '\0' ? environment : "/tmp";
}

namespace {

// Another run that starts may take an area for abandoned before its lock is taken.
bool isTakenAway(int number) { return number == EAGAIN || number == ENOENT; }
constexpr int kTries = 20;

} // namespace

TemporaryArea::TemporaryArea(const std::string &parent) {
    std::error_code error;
    const auto directory = std::filesystem::absolute(ParentFor(parent), error);
    RemoveAbandonedAreas(directory);
    // Until the path is known to the signal handling, a signal must wait.
    const Interruption::Hold hold;
    for (int tries = 0; !lock_.IsHeld(); ++tries) {
        if (!make(directory) && (!isTakenAway(errno) || tries == kTries)) {
            throw Failure("No temporary directory could be made in '" + directory.string() + "'",
                          SystemError());
        }
    }
    Interruption::SetCleanup(Interruption::kTemporaryArea, [this] { removeOnSignal(); });
    if (!KelvaneSetTemporaryPath(CF::String(path_).get())) {
        remove();
        throw Failure("The temporary directory '" + path_ + "' cannot be used");
    }
}

TemporaryArea::~TemporaryArea() { remove(); }

// False with errno.
bool TemporaryArea::make(const std::string &parent) {
    std::string pattern = parent + "/" + kAreaPrefix + "XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        return false;
    }
    const int area = open(pattern.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (area >= 0) {
        lock_ = AreaLock::Make(area);
    }
    const int number = errno;
    if (area >= 0) {
        close(area);
    }
    if (!lock_.IsHeld()) {
        RemoveTree(pattern);
        errno = number;
        return false;
    }
    path_ = pattern;
    return true;
}

void TemporaryArea::remove() const {
    const Interruption::Hold hold;
    Interruption::SetCleanup(Interruption::kTemporaryArea, nullptr);
    if (!RemoveTree(path_.c_str(), kAreaLockName)) {
        // What may be plaintext lies there: the user has to know.
        PrintMessage("The temporary directory '" + path_ + "' could not be removed");
    }
}

void TemporaryArea::removeOnSignal() const {
    if (!RemoveTree(path_.c_str(), kAreaLockName)) {
        ReportLeft(path_.c_str());
    }
}

bool TemporaryArea::Contains(const std::string &path) const {
    return path.size() > path_.size() && path.compare(0, path_.size(), path_) == 0 &&
           path[path_.size()] == '/';
}

} // namespace tool
