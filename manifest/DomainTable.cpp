#include "manifest/DomainTable.hpp"

#include "KVManifestEntry.h"

#include <algorithm>
#include <vector>

namespace Kelvane {

namespace {

// How far ahead the memory of entries is fetched: they lie all over the heap.
constexpr EntryPosition kAhead = 16;

void FetchDomain(const EntryTable &table, EntryPosition position) {
    if (position < table.End() && table.At(position) != nullptr) {
        __builtin_prefetch(&table.At(position)->domain);
    }
}

CFStringRef DomainAt(const EntryTable &table, EntryPosition position) {
    const KVManifestEntryClass *const entry = table.At(position);
    return entry == nullptr ? nullptr : entry->domain.get();
}

// Behind the entries from a position on that share its domain string; a gap is like a domain.
EntryPosition EndOfRun(const EntryTable &table, EntryPosition position) {
    CFStringRef domain = DomainAt(table, position);
    do {
        FetchDomain(table, ++position + kAhead);
    } while (position < table.End() && DomainAt(table, position) == domain);
    return position;
}

bool IsNamed(CFStringRef domain) { return CFStringGetLength(domain) > 0; }

} // namespace

// Entries of one domain mostly come in a row and share its string.
DomainTable::DomainTable(const EntryTable &table) {
    for (EntryPosition position = 0; position < table.End();) {
        const EntryPosition end = EndOfRun(table, position);
        const KVManifestEntryClass *const entry = table.At(position);
        if (entry != nullptr && IsNamed(KVManifestEntryGetDomain(entry))) {
            domains_[KVManifestEntryGetDomain(entry)].AppendRun(position, end);
        }
        position = end;
    }
}

DomainEntries *DomainTable::Find(CFStringRef domain) {
    if (domain == nullptr) {
        return nullptr;
    }
    const auto found = domains_.find(domain);
    return found == domains_.end() ? nullptr : &found->second;
}

CF::Array DomainTable::Names() const {
    auto names = CF::Array::Mutable();
    for (const auto &[name, entries] : domains_) {
        names.Append(name.get());
    }
    return names;
}

void DomainTable::Add(const EntryTable &table, EntryPosition position) {
    CFStringRef domain = KVManifestEntryGetDomain(table.At(position));
    if (IsNamed(domain)) {
        domains_[domain].Add(table, position);
    }
}

void DomainTable::Remove(const EntryTable &table, std::span<const EntryPosition> positions) {
    std::unordered_map<Name, std::vector<EntryPosition>, Hash, Equal> byDomain;
    CFStringRef last = nullptr;
    std::vector<EntryPosition> *removed = nullptr;
    for (const EntryPosition position : positions) {
        CFStringRef domain = KVManifestEntryGetDomain(table.At(position));
        if (IsNamed(domain)) {
            if (domain != last) {
                last = domain;
                removed = &byDomain[domain];
            }
            removed->push_back(position);
        }
    }
    for (const auto &[domain, gone] : byDomain) {
        const auto found = domains_.find(domain);
        if (found->second.Count() == gone.size()) {
            domains_.erase(found);
        } else {
            found->second.Remove(table, gone);
        }
    }
}

void DomainTable::DropRemoved(const EntryTable &table) {
    for (auto &[domain, entries] : domains_) {
        entries.DropRemoved(table);
    }
}

void DomainTable::Renumber(std::span<const EntryPosition> renumbered) noexcept {
    for (auto &[domain, entries] : domains_) {
        entries.Renumber(renumbered);
    }
}

} // namespace Kelvane
