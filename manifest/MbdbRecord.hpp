// One record of a Manifest.mbdb, from bytes and to bytes.
#pragma once

#include "KVManifestEntry.h"
#include "manifest/ByteCursor.hpp"
#include "manifest/KVManifestEntryClass.hpp"
#include "manifest/TextCache.hpp"

#include <cstdint>
#include <vector>

namespace Kelvane {

// The entry of the record at the cursor, which ends up behind it; null when there is no
// valid record, and the cursor is then anywhere within it. Domains come out of the cache.
EntryPointer ReadMbdbRecord(CFAllocatorRef allocator, ByteCursor &cursor, TextCache &domains,
                            const FileLoader &loader);

// Appends the entry's record. False when it has none (a field of 65535 bytes or more, a
// text without a UTF-8 form, a property that is not data, attributes of a database that are no
// property list of those); the output then holds a part
// of it, which the caller drops.
bool AppendMbdbRecord(const KVManifestEntryClass &entry, std::vector<std::uint8_t> &output);

} // namespace Kelvane
