// Files that other programs leave in any folder.
#pragma once

#include <string_view>

namespace tool {

// True for what file managers and archivers put into folders that they show or pack, by its name
// relative to the backup.
bool IsLeftByOthers(std::string_view storedName);

} // namespace tool
