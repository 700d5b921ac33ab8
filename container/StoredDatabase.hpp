// Manifest.db as it lies in a backup.
#pragma once

#include "MB/ManifestEncryption.hpp"
#include "support/zk/File.hpp"

namespace Kelvane {

// How the database of an encrypted backup lies there. Devices encrypt it with padding; other
// programs leave it decrypted, or encrypt it anew without.
enum class DatabaseForm { Padded, Unpadded, Decrypted };

// Looks at the beginning of an open file, at which it stands again afterwards. Without padding
// is a file whose plaintext begins as a database does and whose length is a number of that
// database's pages, as that of a file with padding never is. Throws what reading and the cipher
// do.
DatabaseForm FormOfDatabase(ZK::file::readable_file &file, const MB::ManifestEncryption::Key &key);

} // namespace Kelvane
