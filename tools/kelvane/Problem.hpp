// What a check of a backup finds.
#pragma once

#include "Selection.hpp"

#include <functional>
#include <string>

namespace tool {

struct Problem {
    // A remark is about what harms nothing.
    enum class Severity { Problem, Warning, Remark };

    Severity severity = Severity::Problem;
    // A word for machines.
    const char *kind = "";
    // What it is about: an entry, or else a file of the backup, or neither.
    Entry *entry = nullptr;
    std::string storedName;
    // For people; goes on after the name of what it is about.
    std::string message;
    CF::Error cause;
};

using ProblemSink = std::function<void(const Problem &problem)>;

} // namespace tool
