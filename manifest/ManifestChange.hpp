// A change of a manifest's entries in one step.
#pragma once

#include "KVManifest.h"
#include "manifest/KVManifestEntryClass.hpp"

#include <vector>

namespace Kelvane {

// Gathered first and applied at once, so that an edit which fails changes nothing.
struct ManifestChange {
    // Entries of the manifest; others are passed over. An entry that is in it several times
    // goes as often as it stands here, the last of its places first.
    std::vector<EntryPointer> removed;
    // Appended in this order.
    std::vector<EntryPointer> added;
};

// Entries that stay keep their order. Arrays lent out before stay as they were. Takes time
// in proportion to the change, not to the manifest, for the lookup tables are kept; the
// first change after the tables were dropped makes one anew. Changes nothing when it throws
// (std::bad_alloc, std::length_error).
void ApplyChange(KVManifestClass *manifest, const ManifestChange &change);

} // namespace Kelvane
