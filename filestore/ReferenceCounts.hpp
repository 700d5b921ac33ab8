#pragma once

#include <cstdint>
#include <vector>

namespace Kelvane::FileManager {

// How many live references the hash has; 0 when it is not in the table.
std::uint32_t ReferenceCount(const std::vector<std::uint8_t> &hash);

} // namespace Kelvane::FileManager
