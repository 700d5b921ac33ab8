#pragma once

#include "MB/ManifestEncryption.hpp"
#include "support/zk/File.hpp"

namespace MB {

// ManifestEncryption::DecryptFile for a file that is open already.
void DecryptOpenFile(ZK::file::readable_file &source, const ZK::filesystem::path &destination,
                     const ManifestEncryption::Key &key);

} // namespace MB
