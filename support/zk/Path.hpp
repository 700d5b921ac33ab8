#pragma once

#include <boost/filesystem/path.hpp>

namespace ZK::filesystem {

// A path in the file system's own bytes, which are UTF-8 wherever we run.
using path = boost::filesystem::path;

} // namespace ZK::filesystem
