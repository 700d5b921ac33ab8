// What a record of a Manifest.mbdb can hold.
#pragma once

#include "manifest/KVManifestEntryClass.hpp"

#include <cstddef>

namespace Kelvane {

// Byte strings must stay below this length: it is the mark of an absent value.
inline constexpr std::size_t kMbdbByteStringLimit = 0xFFFF;
// Properties are counted in a byte.
inline constexpr CFIndex kMostMbdbProperties = 0xFF;

// Throws code 2 for an entry that has no record, so that no manifest can be written with it:
// "Text is too long for a binary manifest (%ld bytes)", "Data is too long for a binary manifest
// (%ld bytes)", "Too many extended attributes for a binary manifest (%ld)", "Extended attributes
// of a binary manifest are named by text and hold data".
void RequireMbdbRecord(const KVManifestEntryClass &entry);

} // namespace Kelvane
