// A hash of strings that nobody outside can aim at.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>

namespace Kelvane {

// Equal strings have equal hashes, whatever way they are stored. Differs from process to
// process: names come from outside, and the system's own hash, which is known and looks at
// parts of a long string only, would let them be chosen to collide. Null hashes like the
// empty string.
std::uint32_t HashText(CFStringRef text) noexcept;

} // namespace Kelvane
