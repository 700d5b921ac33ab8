#include "manifest/EntryIndex.hpp"

#include "manifest/TextHash.hpp"

#include <algorithm>
#include <array>
#include <bit>

namespace Kelvane {

namespace {

constexpr std::uint32_t kFree = 0xFFFFFFFF;
constexpr std::uint32_t kGroupMark = 0x80000000;
static_assert(kMaximumEntries < kGroupMark);

constexpr std::size_t kFewestCells = 16;
// The lines of memory that hold most file IDs and paths.
constexpr std::size_t kCacheLine = 64;
// Entries at a time: their memory is fetched ahead, which makes adding many of them
// several times as quick. They lie all over the heap.
constexpr std::size_t kBlock = 32;

// Beyond this share of cells, probes would become long.
std::size_t MostUsed(std::size_t cells) { return cells / 4 * 3; }

// So many that a quarter more entries fit in before they have to be moved again.
std::size_t CellsFor(std::size_t entries) {
    return std::bit_ceil(std::max(kFewestCells, (entries + entries / 4) / 3 * 4 + 4));
}

bool IsGroup(std::uint32_t value) { return value != kFree && (value & kGroupMark) != 0; }

void Fetch(const void *memory) { __builtin_prefetch(memory); }

} // namespace

CFStringRef EntryIndex::TextAt(const EntryTable &table, EntryPosition position) const noexcept {
    return (table.At(position)->*field_).get();
}

std::span<const EntryPosition> EntryIndex::PositionsOf(const Cell &cell) const noexcept {
    if (!IsGroup(cell.value)) {
        return {&cell.value, 1};
    }
    const Group &group = groups_[cell.value & ~kGroupMark];
    return std::span(group.positions).subspan(group.first);
}

EntryPosition EntryIndex::FirstOf(const EntryTable &table, const Cell &cell) noexcept {
    if (!IsGroup(cell.value)) {
        return table.At(cell.value) == nullptr ? kNoEntry : cell.value;
    }
    Group &group = groups_[cell.value & ~kGroupMark];
    while (group.first < group.positions.size() &&
           table.At(group.positions[group.first]) == nullptr) {
        ++group.first;
    }
    return group.first < group.positions.size() ? group.positions[group.first] : kNoEntry;
}

EntryPosition EntryIndex::LastOf(const EntryTable &table, const Cell &cell) noexcept {
    if (!IsGroup(cell.value)) {
        return FirstOf(table, cell);
    }
    Group &group = groups_[cell.value & ~kGroupMark];
    while (group.first < group.positions.size() && table.At(group.positions.back()) == nullptr) {
        group.positions.pop_back();
    }
    return group.first < group.positions.size() ? group.positions.back() : kNoEntry;
}

EntryIndex::Cell *EntryIndex::Find(const EntryTable &table, CFStringRef text) {
    if (cells_.empty() || text == nullptr) {
        return nullptr;
    }
    const std::uint32_t hash = HashText(text);
    for (std::size_t i = hash & (cells_.size() - 1); cells_[i].value != kFree; i = Next(i)) {
        if (cells_[i].hash == hash) {
            const EntryPosition position = LastOf(table, cells_[i]);
            if (position != kNoEntry && CFEqual(TextAt(table, position), text)) {
                return &cells_[i];
            }
        }
    }
    return nullptr;
}

EntryPosition EntryIndex::First(const EntryTable &table, CFStringRef text) {
    const Cell *const cell = Find(table, text);
    return cell == nullptr ? kNoEntry : FirstOf(table, *cell);
}

EntryPosition EntryIndex::Last(const EntryTable &table, CFStringRef text) {
    const Cell *const cell = Find(table, text);
    return cell == nullptr ? kNoEntry : LastOf(table, *cell);
}

std::vector<EntryPosition> EntryIndex::All(const EntryTable &table, CFStringRef text) {
    std::vector<EntryPosition> positions;
    const Cell *const cell = Find(table, text);
    if (cell != nullptr) {
        const auto all = PositionsOf(*cell);
        std::copy_if(all.begin(), all.end(), std::back_inserter(positions),
                     [&](EntryPosition position) { return table.At(position) != nullptr; });
    }
    return positions;
}

bool EntryIndex::AppendOccurrences(const EntryTable &table, const KVManifestEntryClass &entry,
                                   std::size_t limit, std::size_t &maximumSteps,
                                   std::vector<EntryPosition> &positions) {
    const Cell *const cell = Find(table, (entry.*field_).get());
    if (cell == nullptr) {
        return false;
    }
    auto left = PositionsOf(*cell);
    for (; limit > 0 && !left.empty() && maximumSteps > 0; --maximumSteps) {
        if (table.At(left.back()) == &entry) {
            positions.push_back(left.back());
            --limit;
        }
        left = left.first(left.size() - 1);
    }
    return limit == 0;
}

void EntryIndex::Add(const EntryTable &table, std::span<const EntryPosition> positions) {
    // Groups count too: a text that comes and goes twice leaves one behind each time.
    if (used_ + groups_.size() + positions.size() > MostUsed(cells_.size())) {
        Rehash(table, positions.size());
    }
    while (!positions.empty()) {
        const auto block = positions.first(std::min(kBlock, positions.size()));
        AddBlock(table, block);
        positions = positions.subspan(block.size());
    }
}

void EntryIndex::AddBlock(const EntryTable &table, std::span<const EntryPosition> positions) {
    for (const EntryPosition position : positions) {
        Fetch(&(table.At(position)->*field_));
    }
    for (const EntryPosition position : positions) {
        const auto *const text = reinterpret_cast<const char *>(TextAt(table, position));
        Fetch(text);
        Fetch(text + kCacheLine);
    }
    std::array<std::uint32_t, kBlock> hashes;
    for (std::size_t i = 0; i < positions.size(); ++i) {
        hashes[i] = HashText(TextAt(table, positions[i]));
        Fetch(&cells_[hashes[i] & (cells_.size() - 1)]);
    }
    for (std::size_t i = 0; i < positions.size(); ++i) {
        Place(table, positions[i], hashes[i]);
    }
}

void EntryIndex::Place(const EntryTable &table, EntryPosition position, std::uint32_t hash) {
    Cell *gone = nullptr;
    std::size_t i = hash & (cells_.size() - 1);
    for (; cells_[i].value != kFree; i = Next(i)) {
        if (cells_[i].hash != hash) {
            continue;
        }
        const EntryPosition other = LastOf(table, cells_[i]);
        if (other == kNoEntry) {
            gone = &cells_[i];
        } else if (CFEqual(TextAt(table, other), TextAt(table, position))) {
            Join(cells_[i], position);
            return;
        }
    }
    // An entry that was replaced leaves its cell to its successor.
    if (gone == nullptr) {
        gone = &cells_[i];
        ++used_;
    }
    *gone = {hash, position};
}

void EntryIndex::Join(Cell &cell, EntryPosition position) {
    if (IsGroup(cell.value)) {
        groups_[cell.value & ~kGroupMark].positions.push_back(position);
        return;
    }
    groups_.push_back({{cell.value, position}, 0});
    cell.value = kGroupMark | static_cast<std::uint32_t>(groups_.size() - 1);
}

void EntryIndex::Rehash(const EntryTable &table, std::size_t additional) {
    std::size_t live = additional;
    for (const Cell &cell : cells_) {
        if (cell.value != kFree && LastOf(table, cell) != kNoEntry) {
            live += IsGroup(cell.value) ? 2 : 1;
        }
    }
    EntryIndex other(field_);
    other.cells_.assign(CellsFor(live), Cell{0, kFree});
    for (const Cell &cell : cells_) {
        if (cell.value != kFree) {
            MoveTo(other, table, cell);
        }
    }
    *this = std::move(other);
}

void EntryIndex::MoveTo(EntryIndex &other, const EntryTable &table, const Cell &cell) {
    Cell moved = cell;
    moved.value = LastOf(table, cell);
    if (moved.value == kNoEntry) {
        return;
    }
    if (IsGroup(cell.value)) {
        Group group = std::move(groups_[cell.value & ~kGroupMark]);
        std::erase_if(group.positions,
                      [&](EntryPosition position) { return table.At(position) == nullptr; });
        group.first = 0;
        moved.value = kGroupMark | static_cast<std::uint32_t>(other.groups_.size());
        other.groups_.push_back(std::move(group));
    }
    std::size_t i = cell.hash & (other.cells_.size() - 1);
    while (other.cells_[i].value != kFree) {
        i = other.Next(i);
    }
    other.cells_[i] = moved;
    ++other.used_;
}

void EntryIndex::Renumber(std::span<const EntryPosition> renumbered) noexcept {
    for (Cell &cell : cells_) {
        if (cell.value != kFree && !IsGroup(cell.value)) {
            cell.value = renumbered[cell.value];
        }
    }
    for (Group &group : groups_) {
        for (EntryPosition &position : group.positions) {
            position = renumbered[position];
        }
    }
}

} // namespace Kelvane
