#include "corefoundation/Hash.hpp"

#include <cstddef>
#include <cstring>

namespace CFInternal {

CFHashCode HashBytes(const UInt8 *bytes, CFIndex length) {
    std::uint64_t hash = MixHash(static_cast<std::uint64_t>(length));
    for (CFIndex offset = 0; offset < length; offset += 8) {
        std::uint64_t word = 0;
        const CFIndex left = length - offset;
        std::memcpy(&word, bytes + offset, static_cast<std::size_t>(left < 8 ? left : 8));
        hash = MixHash(hash ^ word);
    }
    return hash;
}

} // namespace CFInternal
