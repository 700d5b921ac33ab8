// The bytes of single objects in a binary property list.
#pragma once

#include "corefoundation/plist/Common.hpp"

#include <vector>

namespace CFInternal::PropertyList {

using ByteBuffer = std::vector<std::uint8_t>;

// The lowest width bytes of the value, big-endian.
void AppendBigEndian(ByteBuffer &out, std::uint64_t value, std::size_t width);
// The smallest of 1, 2, 4 and 8 bytes that holds the value: the widths that all
// readers know.
std::size_t WidthOf(std::uint64_t value);
// The marker of an object with a count, and the count.
void AppendMarker(ByteBuffer &out, unsigned highBits, std::uint64_t count);

inline constexpr unsigned kArrayMarker = 0xA0;
inline constexpr unsigned kDictionaryMarker = 0xD0;

// The whole object. Throws a write Failure for dates that are not finite.
void AppendLeaf(ByteBuffer &out, CFTypeRef leaf);

} // namespace CFInternal::PropertyList
