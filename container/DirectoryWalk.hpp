// Everything that lies in a directory, however deep and whatever it is.
#pragma once

#include "container/BackupSource.hpp"

#include <string>

namespace Kelvane {

// Hands what lies below the directory to the consumer, until that returns false. Links that are
// not followed are handed to it as what is no regular file. Of those that are, links to
// directories are followed only where a backup has its folders, directly below the root: no
// circle of links can then make the walk endless. Throws CF::Error, code 3, for a directory that
// cannot be read.
void WalkDirectory(const std::string &root, Links links, const SourceFileConsumer &consumer,
                   ListedSizes sizes = ListedSizes::True);

} // namespace Kelvane
