#include "manifest/DomainEntries.hpp"

#include <numeric>

namespace Kelvane {

namespace {

// Fewer removed entries than this are not worth dropping.
constexpr std::size_t kFewPositions = 64;

} // namespace

std::span<const EntryPosition> DomainEntries::Positions(const EntryTable &table) {
    if (positions_.size() != count_) {
        std::erase_if(positions_,
                      [&](EntryPosition position) { return table.At(position) == nullptr; });
    }
    return positions_;
}

const CF::Array &DomainEntries::Listing(const EntryTable &table) {
    if (!listing_) {
        listing_ = table.ArrayOf(Positions(table));
    }
    return listing_;
}

EntryPosition DomainEntries::FirstAtPath(const EntryTable &table, CFStringRef path) {
    if (!firstAtPath_) {
        auto index = std::make_unique<EntryIndex>(&KVManifestEntryClass::relativePath);
        index->Add(table, Positions(table));
        firstAtPath_ = std::move(index);
    }
    return firstAtPath_->First(table, path);
}

const PathIndex &DomainEntries::Paths(const EntryTable &table) {
    if (!paths_) {
        paths_ = std::make_unique<PathIndex>(table, Positions(table));
    }
    return *paths_;
}

void DomainEntries::AppendRun(EntryPosition first, EntryPosition end) {
    const std::size_t size = positions_.size();
    positions_.resize(size + (end - first));
    std::iota(positions_.begin() + static_cast<std::ptrdiff_t>(size), positions_.end(), first);
    count_ += end - first;
}

void DomainEntries::Add(const EntryTable &table, EntryPosition position) {
    listing_ = nullptr;
    if (positions_.size() > 2 * count_ + kFewPositions) {
        (void)Positions(table);
    }
    AppendRun(position, position + 1);
    if (firstAtPath_) {
        firstAtPath_->Add(table, {&position, 1});
    }
    if (paths_) {
        paths_->Add(table, position);
    }
}

void DomainEntries::Remove(const EntryTable &table, std::span<const EntryPosition> positions) {
    listing_ = nullptr;
    count_ -= positions.size();
    if (paths_) {
        paths_->Remove(table, positions);
    }
}

void DomainEntries::DropRemoved(const EntryTable &table) {
    (void)Positions(table);
    if (firstAtPath_) {
        firstAtPath_->DropRemoved(table);
    }
}

void DomainEntries::Renumber(std::span<const EntryPosition> renumbered) noexcept {
    for (EntryPosition &position : positions_) {
        position = renumbered[position];
    }
    if (firstAtPath_) {
        firstAtPath_->Renumber(renumbered);
    }
    if (paths_) {
        paths_->Renumber(renumbered);
    }
}

} // namespace Kelvane
