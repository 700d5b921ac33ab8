// Text forms of bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ZK::Math {

// Lower-case hexadecimal, two digits a byte.
std::string hex_encode(std::span<const std::uint8_t> bytes);
// RFC 4648 base64 with padding, no line breaks.
std::string base64_encode(std::span<const std::uint8_t> bytes);
// The bytes of RFC 4648 base64; white space is passed over, padding may be missing
// altogether, but not in part. Bits left over in the last digit are not looked at. Throws
// std::invalid_argument for any other character or an impossible length.
std::vector<std::uint8_t> base64_decode(std::string_view text);

} // namespace ZK::Math
