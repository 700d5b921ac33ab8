// The entries of a manifest, in order, each at a position that stays.
#pragma once

#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/Array.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Kelvane {

// Where an entry stands in an EntryTable. Positions grow in manifest order.
using EntryPosition = std::uint32_t;
constexpr EntryPosition kNoEntry = 0xFFFFFFFF;
// More entries than memory holds; lookup tables use the bit above for themselves.
constexpr std::size_t kMaximumEntries = 0x7FFFFFFF;

// Adding and removing an entry leaves the others where they are: a removed one leaves a
// gap, and Compact closes the gaps when they have become many. So an edit costs the same
// in a large manifest as in a small one, and tables of positions stay right over it.
class EntryTable {
  public:
    // What an entry adds to the totals. It is taken off again as it was counted, for an
    // entry may change while it is in the table: encrypting its content changes its size.
    struct Weight {
        std::int64_t size = 0;
        bool file = false;
    };
    static Weight WeightOf(const KVManifestEntryClass &entry) noexcept;

    EntryTable() noexcept = default;
    // The KVManifestEntry objects of an immutable array, which is kept as the listing.
    explicit EntryTable(CF::Array entries);

    // Positions run from 0 up to this, gaps included.
    EntryPosition End() const noexcept { return static_cast<EntryPosition>(entries_.size()); }
    // The number of entries.
    std::size_t Count() const noexcept { return count_; }
    // Borrowed; null in a gap.
    KVManifestEntryClass *At(EntryPosition position) const noexcept {
        return entries_[position].get();
    }
    Weight WeightAt(EntryPosition position) const noexcept {
        return {sizes_[position], files_[position]};
    }
    // Sizes come from outside and may be anything: of a sum beyond 64 bits, the nearest number.
    std::int64_t TotalSize() const noexcept;
    std::int64_t TotalFiles() const noexcept { return totalFiles_; }

    // Makes room, so that this many calls of Append cannot fail. Throws std::length_error
    // beyond kMaximumEntries.
    void Reserve(std::size_t additional);
    // Retains the entry and counts it.
    void Append(KVManifestEntryClass *entry) { Append(entry, WeightOf(*entry)); }
    void Append(KVManifestEntryClass *entry, const Weight &weight);
    // Releases the entry. There must be one.
    void Remove(EntryPosition position) noexcept;

    bool IsMostlyGaps() const noexcept;
    // Closes the gaps and gives the new position for each old one, kNoEntry for a gap.
    std::vector<EntryPosition> Compact();

    // All entries in order: an array that stays as it is. The same one until the next
    // change.
    const CF::Array &Listing();
    // The entries at the positions, gaps left out.
    CF::Array ArrayOf(std::span<const EntryPosition> positions) const;
    // The positions that hold an entry.
    std::vector<EntryPosition> Positions() const;

    template <class Visitor>
    void ForEach(Visitor visit) const {
        for (const EntryPointer &entry : entries_) {
            if (entry) {
                visit(entry.get());
            }
        }
    }

  private:
    // Holds the sum of any sizes, so that taking one off is exact.
    __extension__ using WideSize = __int128;

    std::vector<EntryPointer> entries_; // null in gaps
    // As counted, by position.
    std::vector<std::int64_t> sizes_;
    std::vector<bool> files_;
    std::size_t count_ = 0;
    WideSize totalSize_ = 0;
    std::int64_t totalFiles_ = 0;
    CF::Array listing_; // null until asked for
};

} // namespace Kelvane
