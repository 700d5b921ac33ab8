#pragma once

#include "KVBase.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace Kelvane {

// KVFileGetDataQuickly, but a failure of the cipher is a std::runtime_error.
std::optional<std::vector<std::uint8_t>> ReadWhole(const KVFileClass &file);

} // namespace Kelvane
