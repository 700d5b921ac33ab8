// The local store of file contents, and the count of references to each content.
//
// The store is the directory "KVFileManager" below the temporary path. Contents lie in
// it under fresh UUIDs, files still being written under "__" and an identifier. Nothing
// in it is ever deleted by the library: the counts are bookkeeping.
//
// All functions may be called from any thread. Failures are thrown as CF::Error unless
// a function takes a CFErrorRef *.
#pragma once

#include "KVBase.h"
#include "support/zk/Path.hpp"

#include <cstdint>
#include <vector>

namespace Kelvane::FileManager {

// The initial memory limit in bytes: 4194304 (4 MiB).
extern KV_VISIBLE const std::uint64_t kDefaultMaxMemorySize;

// A fresh place in the store, named by a new UUID. The file is not created; the store's
// directory is, on first use. Throws code 2 "KVFileManager: Failed to initialize temp
// path (...)" while the temporary path is not set or its directory cannot be made; a
// later call tries again.
KV_VISIBLE ZK::filesystem::path GetStorageLocationForFile();

// The place "__IDENTIFIER" in the store. Throws as above, code 2 for a null identifier,
// and code 2 "Unsafe storage identifier (...)" for one that holds a slash or a NUL and
// so would name a place elsewhere.
KV_VISIBLE ZK::filesystem::path GetStorageLocationForTempIdentifier(CFStringRef identifier);

// A new, registered reference to the regular file at the absolute path, whose SHA-1 is
// taken to be hash; the caller releases it. Null when there is no regular file at the
// path (code 6) or its size and time cannot be read (code 3, "TEXT (PATH)"); the error
// is stored when the pointer is not null.
KV_VISIBLE KVFileClass *CopyCachedFileReference(const ZK::filesystem::path &path,
                                                const std::vector<std::uint8_t> &hash,
                                                CFErrorRef *error);

// Counts one reference more to the file's reference hash. Throws code 2 for null.
KV_VISIBLE void RegisterReferenceForFile(const KVFileClass *file);
// Counts one less and forgets the hash at zero. Throws code 2 for null, and code 2
// "Attempted to deregister reference for nonexistent hash 'HEX'" when none is counted.
KV_VISIBLE void DeregisterReferenceForFile(const KVFileClass *file);

// The largest content in bytes that may be read whole into memory. 0 forbids it for all
// but empty files; the limit is not checked against anything.
KV_VISIBLE std::uint64_t GetMaxMemorySize();
KV_VISIBLE void SetMaxMemorySize(unsigned long bytes);

} // namespace Kelvane::FileManager
