// Everything that lies in a directory, however deep and whatever it is.
#pragma once

#include "container/BackupSource.hpp"

#include <string>

namespace Kelvane {

// Hands what lies below the directory to the consumer, until that returns false. Links below
// the root are not followed. Throws CF::Error, code 3, for a directory that cannot be read.
void WalkDirectory(const std::string &root, const SourceFileConsumer &consumer);

} // namespace Kelvane
