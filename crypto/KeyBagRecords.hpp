// The outer layer of a keybag's blob: tagged records.
#pragma once

#include "MB/KeyBag.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace Kelvane::keybag {

// Splits a blob into its records. Up to 7 bytes after the last one are ignored. Throws
// code 17: "Incomplete header" for a record that claims more bytes than there are, "Too
// many records (limit %u)".
std::vector<MB::KeyBag::Record> SplitRecords(std::span<const std::uint8_t> blob);

// The value of a big-endian number of 4 bytes; the span must hold that many.
std::uint32_t ReadBigEndian32(std::span<const std::uint8_t> bytes) noexcept;

} // namespace Kelvane::keybag
