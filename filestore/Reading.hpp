#pragma once

#include "KVBase.h"
#include "support/zk/File.hpp"

#include <cstdint>
#include <optional>
#include <vector>

namespace Kelvane {

// Opens what holds the file's bytes, before any crypt step. Throws code 3 when it cannot be
// opened, and LinkedStoredName when a link came into its way.
ZK::file::readable_file OpenContent(const KVFileClass &file);

// KVFileGetDataQuickly, but a failure of the cipher is a std::runtime_error.
std::optional<std::vector<std::uint8_t>> ReadWhole(const KVFileClass &file);

} // namespace Kelvane
