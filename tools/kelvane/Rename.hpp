// Putting in place what was made under another name.
#pragma once

#include <string>

namespace tool {

// Renames within the directory, or with AT_FDCWD from path to path. -1 with errno on failure,
// with EEXIST when something has the new name already.
int RenameWithoutReplacing(int directory, const std::string &from, const std::string &to);

} // namespace tool
