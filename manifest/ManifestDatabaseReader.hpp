// A manifest from a Manifest.db that is open already.
#pragma once

#include "KVManifest.h"
#include "Kelvane/ManifestDB.hpp"
#include "support/cf/String.hpp"
#include "support/zk/File.hpp"

#include <memory>

namespace Kelvane {

// A working copy of an open database file; the path is for messages. Throws as ManifestDB does.
std::unique_ptr<ManifestDB> CopyOpenDatabase(ZK::file::readable_file &source,
                                             const CF::String &path);

// KVManifestCreateFromManifestDatabase for a file that its path may no longer lead to. The path
// is for messages.
KVManifestClass *CreateManifestFromDatabase(CFAllocatorRef allocator,
                                            ZK::file::readable_file &database,
                                            const CF::String &path, KVManifestDataVersion version,
                                            const KVGetFileFunction &getFileFunc,
                                            const KVProgressFunction &progress, CFErrorRef *error);

} // namespace Kelvane
