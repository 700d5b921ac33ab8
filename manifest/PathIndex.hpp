// Finds the entries at and below a path among the entries of one domain.
#pragma once

#include "support/cf/Array.hpp"
#include "support/cf/String.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace Kelvane {

// The positions of a domain's entries, ordered by path in such a way that each path is
// followed at once by everything below it, and equal paths by their positions. Four
// bytes an entry; a lookup takes a few comparisons and answers with a run of positions.
// The array itself is passed in again at each lookup and must be the one that the index
// was made for.
class PathIndex {
  public:
    // Entries (KVManifestEntry) of one domain. Throws std::length_error for more than
    // 2^32 - 1 of them.
    explicit PathIndex(CFArrayRef entries);

    // Positions of the entries whose path equals the given one, ascending.
    std::span<const std::uint32_t> At(CFArrayRef entries, CFStringRef path) const;
    // Positions of the entries at the path or below it, in no useful order.
    std::span<const std::uint32_t> AtOrBelow(CFArrayRef entries, CFStringRef path) const;

  private:
    std::vector<std::uint32_t> positions_;
};

} // namespace Kelvane
