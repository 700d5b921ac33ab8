// The children of a directory.
#pragma once

#include "KVManifest.h"
#include "support/cf/Array.hpp"

namespace Kelvane {

// The domain's entries right below the path, in manifest order: those whose path is the
// given one, a slash and one component, which may be empty; for the empty path, those whose
// path is one component, which may not. Whether there is an entry of the path itself does
// not matter. Takes time in proportion to the names right below the path, whatever lies
// below them, once the domain's table of paths is there.
CF::Array CopyChildren(KVManifestClass *manifest, CFStringRef domain, CFStringRef path);

} // namespace Kelvane
