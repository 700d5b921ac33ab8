#include "NewOutput.hpp"

#include "AbandonedOutputs.hpp"
#include "Diagnostics.hpp"
#include "Interruption.hpp"
#include "Removal.hpp"
#include "Rename.hpp"
#include "Selection.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {

namespace {

bool exists(const std::string &path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

std::string parentOf(const std::string &path) {
    const std::string parent = std::filesystem::path(path).parent_path();
    return parent.empty() ? "." : parent;
}

std::string vacantNameIn(const std::string &directory) {
    for (unsigned long number = 0;; ++number) {
        const std::string path = directory + "/" + PartialName(number);
        if (!exists(path)) {
            return path;
        }
    }
}

} // namespace

void RequireVacant(const std::string &path, IfPresent ifPresent) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (ifPresent != IfPresent::Replace) {
        throw Failure("'" + path + "' exists already" +
                      (ifPresent == IfPresent::AskForForce ? " (--force replaces it)" : ""));
    }
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
        throw Failure("'" + path + "' is no file that could be replaced");
    }
}

NewOutput::NewOutput(const std::string &path, IfPresent ifPresent)
    : path_(WithoutTrailingSlashes(path)), replace_(ifPresent == IfPresent::Replace) {
    RequireVacant(path_, ifPresent);
    const Interruption::Hold hold;
    try {
        makeParents();
    } catch (...) {
        remove();
        throw;
    }
    ReportAbandonedOutputs(parentOf(path_));
    partial_ = vacantNameIn(parentOf(path_));
    Interruption::SetCleanup(Interruption::kPartialFile, [this] { removeOnSignal(); });
}

NewOutput::~NewOutput() {
    const Interruption::Hold hold;
    Interruption::SetCleanup(Interruption::kPartialFile, nullptr);
    if (!published_) {
        remove();
    }
}

// One by one, to know which of them are new.
void NewOutput::makeParents() {
    std::filesystem::path parent;
    for (const auto &component : std::filesystem::path(parentOf(path_))) {
        parent /= component;
        if (mkdir(parent.c_str(), 0777) == 0) {
            madeParents_.push_back(parent);
        } else if (errno != EEXIST && !exists(parent)) {
            throw Failure("The directory '" + parent.string() + "' could not be made",
                          SystemError());
        }
    }
    struct stat status;
    if (stat(parent.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw Failure("'" + parent.string() + "' is no directory");
    }
}

void NewOutput::Publish() {
    const Interruption::Hold hold;
    const int renamed = replace_ ? rename(partial_.c_str(), path_.c_str())
                                 : RenameWithoutReplacing(AT_FDCWD, partial_, path_);
    if (renamed != 0) {
        throw Failure("'" + path_ + "' could not be put in its place", SystemError());
    }
    published_ = true;
}

void NewOutput::remove() const {
    if (!removePartial()) {
        PrintMessage("'" + partial_ + "' could not be removed");
    }
}

void NewOutput::removeOnSignal() const {
    if (!published_ && !removePartial()) {
        ReportLeft(partial_.c_str());
    }
}

bool NewOutput::removePartial() const {
    const bool removed = partial_.empty() || RemoveTree(partial_);
    // Those that somebody else has put something in stay.
    for (auto directory = madeParents_.rbegin(); directory != madeParents_.rend(); ++directory) {
        rmdir(directory->c_str());
    }
    return removed;
}

} // namespace tool
