// Names for files whose own name another file took.
#pragma once

#include <functional>
#include <string>

namespace tool {

// "name (2).txt" for the second of "name.txt", 3 for the third. It is not longer than a file
// system takes, and as much of UTF-8 as the name was.
std::string TwinName(const std::string &name, unsigned number);

// The first such name that is free. Throws Failure when many are not.
std::string FreeTwinName(const std::string &name,
                         const std::function<bool(const std::string &name)> &isFree);

} // namespace tool
