// Entries from rows of Manifest.db.
#pragma once

#include "manifest/KVManifestEntryClass.hpp"

#include <cstdint>
#include <span>

namespace Kelvane {

// Gives the entry what a record says: all but its names, and what only its row has. Throws
// std::invalid_argument when it is no valid one.
void FillFromRecord(KVManifestEntryClass &entry, std::span<const std::uint8_t> record);

// The file type of an entry whose row has these flags: those beyond what an entry holds are the
// highest, rather than their lowest bits.
std::uint8_t FileTypeOf(int flags) noexcept;

// What KVManifestEntryCreateFromMBFileData does, for readers of whole databases: the
// record is bytes of any owner (not kept), the loading function a shared handle, and
// immutable strings are shared with their other owners, so entries can share one domain. Null,
// with a line in the log, when the record is no valid one.
EntryPointer CreateEntryFromMBFileData(CFAllocatorRef allocator, CFStringRef fileID,
                                       CFStringRef domain, CFStringRef relativePath, int flags,
                                       std::span<const std::uint8_t> record,
                                       const FileLoader &loader);

} // namespace Kelvane
