// Entries from rows of Manifest.db.
#pragma once

#include "manifest/KVManifestEntryClass.hpp"

#include <cstdint>
#include <span>

namespace Kelvane {

// What KVManifestEntryCreateFromMBFileData does, for readers of whole databases: the
// record is bytes of any owner (not kept), the loading function a shared handle, and
// immutable strings are shared with their other owners, so entries can share one domain. Null,
// with a line in the log, when the record is no valid one.
EntryPointer CreateEntryFromMBFileData(CFAllocatorRef allocator, CFStringRef fileID,
                                       CFStringRef domain, CFStringRef relativePath, int flags,
                                       std::span<const std::uint8_t> record,
                                       const FileLoader &loader);

} // namespace Kelvane
