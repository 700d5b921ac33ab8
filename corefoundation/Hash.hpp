#pragma once

#include <CoreFoundation/CFBase.h>

#include <cstdint>

namespace CFInternal {

// Spreads every bit of the argument over the result (the finaliser of MurmurHash3), so
// that tables may take the low bits of addresses, small integers and weak hashes.
constexpr CFHashCode MixHash(std::uint64_t value) {
    value ^= value >> 33;
    value *= 0xff51afd7ed558ccdU;
    value ^= value >> 33;
    value *= 0xc4ceb9fe1a85ec53U;
    value ^= value >> 33;
    return value;
}

// A hash of the bytes.
CFHashCode HashBytes(const UInt8 *bytes, CFIndex length);

} // namespace CFInternal
