// Files of operations.
#pragma once

#include "Operation.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// One operation a line, in words that are quoted as in a POSIX shell: '...', "..." and
// backslashes, a "#" that begins a word for a comment, and a backslash at the end of a line
// that goes on. Nothing is expanded, and other characters of the shell's stand for themselves.
// name is for messages. Throws Failure with name and line.
std::vector<Operation> ParseScript(std::string_view text, const std::string &name);

// The same from a file; "-" is standard input.
std::vector<Operation> ReadScript(const std::string &path);

} // namespace tool
