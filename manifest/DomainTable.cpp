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

bool IsNamed(CFStringRef domain) { return CFStringGetLength(domain) > 0; }

} // namespace

// Entries of one domain mostly come in a row and share its string.
DomainTable::DomainTable(const EntryTable &table) {
    CFStringRef last = nullptr;
    DomainEntries *entries = nullptr;
    for (EntryPosition position = 0; position < table.End(); ++position) {
        FetchDomain(table, position + kAhead);
        const KVManifestEntryClass *const entry = table.At(position);
        if (entry == nullptr || !IsNamed(KVManifestEntryGetDomain(entry))) {
            continue;
        }
        if (KVManifestEntryGetDomain(entry) != last) {
            last = KVManifestEntryGetDomain(entry);
            entries = &domains_[last];
        }
        entries->Append(position);
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
