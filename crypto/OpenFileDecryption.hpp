#pragma once

#include "MB/ManifestEncryption.hpp"
#include "support/zk/File.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace MB {

// ManifestEncryption::DecryptFile for a file that is open already.
void DecryptOpenFile(ZK::file::readable_file &source, const ZK::filesystem::path &destination,
                     const ManifestEncryption::Key &key);

// The same without padding: every block is content. A file that ends within a block ends the
// plaintext before it.
void DecryptOpenFileWithoutPadding(ZK::file::readable_file &source,
                                   const ZK::filesystem::path &destination,
                                   const ManifestEncryption::Key &key);

// The plaintext of the first blocks of a file; the length is a number of blocks. Throws
// std::runtime_error.
std::vector<std::uint8_t> DecryptBlocks(std::span<const std::uint8_t> blocks,
                                        const ManifestEncryption::Key &key);

} // namespace MB
