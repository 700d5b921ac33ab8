// The lookup tables of a manifest, made on first use and kept over changes.
#pragma once

#include "manifest/DomainTable.hpp"
#include "manifest/EntryIndex.hpp"
#include "manifest/EntryTable.hpp"

#include <optional>
#include <span>

namespace Kelvane {

// A change is told in three steps, so that the tables follow it: Remove, the change of the
// entries themselves, Add. A table that cannot follow for want of memory is dropped: it is
// made again on next use. Functions take the table that the positions belong to.
class LookupTables {
  public:
    // Entries without a file ID stand under the empty text.
    EntryIndex &ByFileID(const EntryTable &table);
    DomainTable &Domains(const EntryTable &table);

    void Clear() noexcept;
    // Given in ascending order, while the table still has the entries.
    void Remove(const EntryTable &table, std::span<const EntryPosition> positions) noexcept;
    // Of all entries from a position on, when the table has them.
    void Add(const EntryTable &table, EntryPosition first) noexcept;
    // Closes the gaps in the table and keeps the lookup tables right; does nothing when memory
    // is short.
    void Compact(EntryTable &table) noexcept;

  private:
    template <class Change>
    void ChangeOrDrop(Change change) noexcept;
    void AddAll(const EntryTable &table, EntryPosition first);

    std::optional<EntryIndex> byFileID_;
    std::optional<DomainTable> domains_;
};

} // namespace Kelvane
