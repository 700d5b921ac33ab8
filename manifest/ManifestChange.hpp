// A change of a manifest's entries in one step.
#pragma once

#include "KVManifest.h"
#include "manifest/KVManifestEntryClass.hpp"

#include <vector>

namespace Kelvane {

// Gathered first and applied at once, so that an edit which fails changes nothing.
struct ManifestChange {
    // Entries of the manifest, each at most once; they must be in it.
    std::vector<EntryPointer> removed;
    // Appended in this order.
    std::vector<EntryPointer> added;
};

// Entries that stay keep their order. Arrays lent out before stay as they were.
void ApplyChange(KVManifestClass *manifest, const ManifestChange &change);

} // namespace Kelvane
