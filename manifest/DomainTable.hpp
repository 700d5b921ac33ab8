// The domains of a manifest and their entries.
#pragma once

#include "manifest/DomainEntries.hpp"
#include "manifest/TextHash.hpp"
#include "support/cf/Pointer.hpp"

#include <cstddef>
#include <span>
#include <unordered_map>

namespace Kelvane {

// Entries without a domain are in none. Functions take the table that the positions
// belong to.
class DomainTable {
  public:
    explicit DomainTable(const EntryTable &table);

    // Null when the domain has no entries, and for a null name.
    DomainEntries *Find(CFStringRef domain);
    // The names of all domains, in no order.
    CF::Array Names() const;

    // Of an entry behind all others.
    void Add(const EntryTable &table, EntryPosition position);
    // Given in ascending order, while the table still has the entries.
    void Remove(const EntryTable &table, std::span<const EntryPosition> positions);
    // Forgets removed entries; to be called before the table is compacted.
    void DropRemoved(const EntryTable &table);
    // After it has been: the new position for each old one.
    void Renumber(std::span<const EntryPosition> renumbered) noexcept;

  private:
    // The entries' strings, which are immutable.
    using Name = CF::Pointer<CFStringRef>;
    struct Hash {
        std::size_t operator()(const Name &name) const noexcept { return HashText(name.get()); }
    };
    struct Equal {
        bool operator()(const Name &a, const Name &b) const noexcept {
            return CFEqual(a.get(), b.get());
        }
    };

    std::unordered_map<Name, DomainEntries, Hash, Equal> domains_;
};

} // namespace Kelvane
