// Entries as rows of Manifest.db keep them.
#pragma once

#include "manifest/KVManifestEntryClass.hpp"

#include <cstdint>
#include <vector>

namespace Kelvane {

// Makes record the bytes that KVManifestEntryCreateMBFileDataRepresentation gives, for
// writers of whole databases: its memory is used again. False, with a line in the log,
// when the entry has no such form.
bool EncodeEntryRecord(const KVManifestEntryClass &entry, std::vector<std::uint8_t> &record);

} // namespace Kelvane
