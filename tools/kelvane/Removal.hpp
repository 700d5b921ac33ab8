// Removing what the tool made.
#pragma once

#include <string>

namespace tool {

// Removes the file, or the directory with all that is in it, also while files are still being
// made in it. False when something is left. Nothing there is a success.
bool RemoveTree(const std::string &path);

} // namespace tool
