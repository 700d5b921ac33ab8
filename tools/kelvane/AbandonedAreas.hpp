// Temporary areas of runs that were killed.
#pragma once

#include <string>

namespace tool {

// Removes the areas in the directory whose owners are gone: directories of this user, of the
// name and the mode of areas, which hold a lock that nobody has. No link is followed. What
// cannot be removed stays without a word: the next run tries again.
void RemoveAbandonedAreas(const std::string &parent) noexcept;

} // namespace tool
