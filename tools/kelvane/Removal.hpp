// Removing what the tool made.
#pragma once

#include <string>

namespace tool {

// Removes the file, or the directory with all that is in it; no link is followed. last, if
// given, is the name of a file right in the directory that goes when everything else is gone.
// False when something is left. Nothing there is a success. No memory is allocated: it runs also
// while another thread stands still, which may hold the allocator.
bool RemoveTree(const char *path, const char *last = nullptr) noexcept;
inline bool RemoveTree(const std::string &path) noexcept { return RemoveTree(path.c_str()); }

// The same for what an open directory holds, without the directory itself.
bool RemoveContents(int directory, const char *last = nullptr) noexcept;

// Says on standard error that the path could not be removed, without memory either.
void ReportLeft(const char *path) noexcept;

} // namespace tool
