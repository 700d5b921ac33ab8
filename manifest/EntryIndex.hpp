// Finds the entries with a text, such as a file ID, in an EntryTable.
#pragma once

#include "manifest/EntryTable.hpp"
#include "support/zk/LargePages.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Kelvane {

// A hash table of positions. A removed entry needs no call: what stands for it is skipped
// until the table is made anew for want of room, so that removing costs nothing here.
// Entries with one text are kept together in order, so that millions of them are no
// slower than others. Functions take the table that the positions belong to.
//
// An index whose function has thrown (std::bad_alloc) is of no further use.
class EntryIndex {
  public:
    // The field of entries that is looked up, and the one that may hold its HashText, or 0.
    using Field = CF::Pointer<CFStringRef> KVManifestEntryClass::*;
    using HashField = std::uint32_t KVManifestEntryClass::*;
    explicit EntryIndex(Field field, HashField hash = nullptr) noexcept
        : field_(field), hash_(hash) {}

    // Positions that hold an entry, ascending and above all that were added before.
    void Add(const EntryTable &table, std::span<const EntryPosition> positions);

    // The same for every entry of a table, in an index that is empty.
    void AddAll(const EntryTable &table);

    // The first or last entry with the text in manifest order; kNoEntry for none.
    EntryPosition First(const EntryTable &table, CFStringRef text);
    EntryPosition Last(const EntryTable &table, CFStringRef text);
    // All of them, ascending.
    std::vector<EntryPosition> All(const EntryTable &table, CFStringRef text);
    // Appends the last positions, at most limit of them, that hold this very entry. False
    // when there are fewer, or more than maximumSteps positions have to be looked at, which
    // is counted down.
    bool AppendOccurrences(const EntryTable &table, const KVManifestEntryClass &entry,
                           std::size_t limit, std::size_t &maximumSteps,
                           std::vector<EntryPosition> &positions);

    // Forgets removed entries; to be called before the table is compacted.
    void DropRemoved(const EntryTable &table) { Rehash(table, 0); }
    // After it has been: the new position for each old one.
    void Renumber(std::span<const EntryPosition> renumbered) noexcept;

  private:
    struct Cell {
        std::uint32_t hash;
        std::uint32_t value; // a position, or a group's number with kGroupMark, or kFree
    };
    // Two or more entries with one text, ascending; those before first are gone.
    struct Group {
        std::vector<EntryPosition> positions;
        std::size_t first = 0;
    };

    void MakeRoom(const EntryTable &table, std::size_t additional);
    template <class PositionAt>
    void AddEach(const EntryTable &table, std::size_t count, PositionAt positionAt);
    void Place(const EntryTable &table, EntryPosition position, std::uint32_t hash);
    void Join(Cell &cell, EntryPosition position);
    Cell *Find(const EntryTable &table, CFStringRef text);
    CFStringRef TextAt(const EntryTable &table, EntryPosition position) const noexcept;
    std::uint32_t RememberedHash(const EntryTable &table, EntryPosition position) const noexcept;
    void FetchEntry(const EntryTable &table, EntryPosition position) const noexcept;
    void FetchText(const EntryTable &table, EntryPosition position) const noexcept;
    std::uint32_t HashAt(const EntryTable &table, EntryPosition position) const noexcept;
    EntryPosition FirstOf(const EntryTable &table, const Cell &cell) noexcept;
    EntryPosition LastOf(const EntryTable &table, const Cell &cell) noexcept;
    std::span<const EntryPosition> PositionsOf(const Cell &cell) const noexcept;
    std::size_t Next(std::size_t cell) const noexcept { return (cell + 1) & (cells_.size() - 1); }
    void Rehash(const EntryTable &table, std::size_t additional);
    void MoveTo(EntryIndex &other, const EntryTable &table, const Cell &cell);

    Field field_;
    HashField hash_;                                        // null for none
    std::vector<Cell, ZK::LargePageAllocator<Cell>> cells_; // a power of two of them, or none
    std::vector<Group> groups_;
    std::size_t used_ = 0; // cells that are not free
};

} // namespace Kelvane
