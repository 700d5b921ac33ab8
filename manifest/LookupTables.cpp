#include "manifest/LookupTables.hpp"

#include <exception>
#include <numeric>
#include <utility>
#include <vector>

namespace Kelvane {

EntryIndex &LookupTables::ByFileID(const EntryTable &table) {
    if (!byFileID_) {
        EntryIndex index(&KVManifestEntryClass::fileID, &KVManifestEntryClass::fileIDHash);
        index.AddAll(table);
        byFileID_ = std::move(index);
    }
    return *byFileID_;
}

DomainTable &LookupTables::Domains(const EntryTable &table) {
    if (!domains_) {
        domains_ = DomainTable(table);
    }
    return *domains_;
}

void LookupTables::Clear() noexcept {
    byFileID_.reset();
    domains_.reset();
}

template <class Change>
void LookupTables::ChangeOrDrop(Change change) noexcept {
    try {
        change();
    } catch (const std::exception &) {
        Clear();
    }
}

void LookupTables::Remove(const EntryTable &table,
                          std::span<const EntryPosition> positions) noexcept {
    ChangeOrDrop([&] {
        if (domains_) {
            domains_->Remove(table, positions);
        }
    });
}

void LookupTables::Add(const EntryTable &table, EntryPosition first) noexcept {
    ChangeOrDrop([&] { AddAll(table, first); });
}

void LookupTables::AddAll(const EntryTable &table, EntryPosition first) {
    std::vector<EntryPosition> positions(table.End() - first);
    std::iota(positions.begin(), positions.end(), first);
    if (byFileID_) {
        byFileID_->Add(table, positions);
    }
    if (domains_) {
        for (const EntryPosition position : positions) {
            domains_->Add(table, position);
        }
    }
}

void LookupTables::Compact(EntryTable &table) noexcept {
    ChangeOrDrop([&] {
        if (byFileID_) {
            byFileID_->DropRemoved(table);
        }
        if (domains_) {
            domains_->DropRemoved(table);
        }
        const std::vector<EntryPosition> renumbered = table.Compact();
        if (byFileID_) {
            byFileID_->Renumber(renumbered);
        }
        if (domains_) {
            domains_->Renumber(renumbered);
        }
    });
}

} // namespace Kelvane
