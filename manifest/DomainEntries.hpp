// The entries of one domain, and where its paths lie.
#pragma once

#include "manifest/EntryIndex.hpp"
#include "manifest/EntryTable.hpp"
#include "manifest/PathIndex.hpp"

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace Kelvane {

// Functions take the table that the positions belong to. The tables of paths are made on
// first use and follow changes from then on. A manifest may have as many domains as
// entries, so that what a domain does not use yet takes no more than a pointer.
class DomainEntries {
  public:
    // The number of entries.
    std::size_t Count() const noexcept { return count_; }
    // The entries in order; the same array until the next change.
    const CF::Array &Listing(const EntryTable &table);
    // The first entry of the path; kNoEntry for none.
    EntryPosition FirstAtPath(const EntryTable &table, CFStringRef path);
    // For all below the path and right below it.
    const PathIndex &Paths(const EntryTable &table);

    // Of an entry behind all others.
    void Add(const EntryTable &table, EntryPosition position);
    // Of the entries from first to before end, while the domain is gathered for the first time.
    void AppendRun(EntryPosition first, EntryPosition end);
    // Given in ascending order, while the table still has the entries.
    void Remove(const EntryTable &table, std::span<const EntryPosition> positions);
    // Forgets removed entries; to be called before the table is compacted.
    void DropRemoved(const EntryTable &table);
    // After it has been: the new position for each old one.
    void Renumber(std::span<const EntryPosition> renumbered) noexcept;

  private:
    std::span<const EntryPosition> Positions(const EntryTable &table);

    std::vector<EntryPosition> positions_; // of removed entries too, until the next look
    std::size_t count_ = 0;
    CF::Array listing_; // null until asked for
    std::unique_ptr<EntryIndex> firstAtPath_;
    std::unique_ptr<PathIndex> paths_;
};

} // namespace Kelvane
