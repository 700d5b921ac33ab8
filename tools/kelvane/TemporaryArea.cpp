#include "TemporaryArea.hpp"

#include "Diagnostics.hpp"
#include "Interruption.hpp"
#include "Kelvane.h"
#include "Removal.hpp"
#include "support/cf/String.hpp"

#include <cerrno>
#include <cstdlib>
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

TemporaryArea::TemporaryArea(const std::string &parent) {
    std::error_code error;
    const auto directory = std::filesystem::absolute(ParentFor(parent), error);
    std::string pattern = (directory / "kelvane-XXXXXX").string();
    // Until the path is known to the signal handling, a signal must wait.
    const Interruption::Hold hold;
    if (mkdtemp(pattern.data()) == nullptr) {
        throw Failure("No temporary directory could be made in '" + directory.string() + "'",
                      SystemError());
    }
    path_ = pattern;
    Interruption::SetCleanup(Interruption::kTemporaryArea, [path = path_] { RemoveTree(path); });
    if (!KelvaneSetTemporaryPath(CF::String(path_).get())) {
        remove();
        throw Failure("The temporary directory '" + path_ + "' cannot be used");
    }
}

TemporaryArea::~TemporaryArea() { remove(); }

void TemporaryArea::remove() const {
    const Interruption::Hold hold;
    Interruption::SetCleanup(Interruption::kTemporaryArea, nullptr);
    if (!RemoveTree(path_)) {
        // What may be plaintext lies there: the user has to know.
        PrintMessage("The temporary directory '" + path_ + "' could not be removed");
    }
}

bool TemporaryArea::Contains(const std::string &path) const {
    return path.size() > path_.size() && path.compare(0, path_.size(), path_) == 0 &&
           path[path_.size()] == '/';
}

} // namespace tool
