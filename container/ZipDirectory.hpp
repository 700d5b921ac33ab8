// The directory at the end of a zip archive.
#pragma once

#include "container/ZipOutput.hpp"

#include <cstdint>
#include <set>
#include <string>

namespace Kelvane {

// Writes the directory anew, in the zip64 form where that is needed, and leaves the records
// of those names out: their bytes, if there are any, are then no part of the archive.
// start: where the directory begins. The archive ends at the output's position, before and
// after. False when the directory cannot be read or written; the archive is spoiled then.
bool RewriteZipDirectory(ZipOutput &output, std::uint64_t start,
                         const std::set<std::string> &without);

} // namespace Kelvane
