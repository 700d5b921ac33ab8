// Changes to a backup, as the command line and scripts name them.
#pragma once

#include <string>
#include <vector>

namespace tool {

struct Operation {
    enum class Kind { Put, MakeDirectory, Link, Remove };

    Kind kind = Kind::Put;
    std::string domain;
    std::string path;
    // The file to put, or the target of the link.
    std::string argument;
    // "FILE:LINE" of a script; empty for the command line.
    std::string origin;
};

// From "put", "mkdir", "link" or "rm" and what goes with it. Throws Failure.
Operation ParseOperation(const std::vector<std::string> &words);

// As it would stand in a script, for messages, after its origin.
std::string ToText(const Operation &operation);

} // namespace tool
