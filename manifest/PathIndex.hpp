// Finds the entries at, below and right below a path among the entries of one domain.
#pragma once

#include "manifest/EntryTable.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Kelvane {

// The positions of a domain's entries, ordered by path in such a way that each path is
// followed at once by everything below it, and equal paths by their positions. A lookup
// takes a few comparisons and so does a change: the positions lie in buckets of some
// hundred. Functions take the table that the positions belong to.
class PathIndex {
  public:
    // Positions that hold an entry.
    PathIndex(const EntryTable &table, std::span<const EntryPosition> positions);

    void Add(const EntryTable &table, EntryPosition position);
    // Takes positions out, given in ascending order, while the table still has the entries.
    void Remove(const EntryTable &table, std::span<const EntryPosition> positions);
    // To be called when the table was compacted: the new position for each old one.
    void Renumber(std::span<const EntryPosition> renumbered) noexcept;

    // Positions of the entries at the path or below it, ascending.
    std::vector<EntryPosition> AtOrBelow(const EntryTable &table, CFStringRef path) const;
    // Those whose path is the given one, a slash and one component, which may be empty; for
    // the empty path, those whose path is one component, which may not. Ascending. Takes time
    // in proportion to the number of names there, whatever lies below them.
    std::vector<EntryPosition> Children(const EntryTable &table, CFStringRef path) const;

  private:
    // Ordered, never empty.
    using Bucket = std::vector<EntryPosition>;
    // A place between positions; the end is {number of buckets, 0}.
    struct Cursor {
        std::size_t bucket = 0;
        std::size_t offset = 0;
        friend bool operator==(const Cursor &, const Cursor &) = default;
    };
    class ChildWalk;

    template <class IsBefore>
    Cursor Find(IsBefore isBefore) const;
    Cursor Place(const EntryTable &table, EntryPosition position) const;
    Cursor End() const noexcept { return {buckets_.size(), 0}; }
    Cursor Next(Cursor cursor) const noexcept;
    EntryPosition At(const Cursor &cursor) const noexcept {
        return buckets_[cursor.bucket][cursor.offset];
    }
    std::vector<EntryPosition> Between(const Cursor &first, const Cursor &last) const;
    void Fill(std::span<const EntryPosition> ordered);
    void SplitBucket(std::size_t bucket);
    void RemoveOne(const EntryTable &table, EntryPosition position);
    void RemoveMany(std::span<const EntryPosition> positions);

    std::vector<Bucket> buckets_;
    std::size_t count_ = 0;
};

} // namespace Kelvane
