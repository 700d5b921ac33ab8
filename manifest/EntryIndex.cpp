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
constexpr std::size_t kAhead = 8;

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

std::uint32_t EntryIndex::RememberedHash(const EntryTable &table,
                                         EntryPosition position) const noexcept {
    return hash_ == nullptr ? 0 : table.At(position)->*hash_;
}

void EntryIndex::FetchEntry(const EntryTable &table, EntryPosition position) const noexcept {
    const KVManifestEntryClass *const entry = table.At(position);
    if (hash_ == nullptr) {
        Fetch(&(entry->*field_));
    } else {
        Fetch(&(entry->*hash_));
    }
}

void EntryIndex::FetchText(const EntryTable &table, EntryPosition position) const noexcept {
    if (RememberedHash(table, position) == 0) {
        const auto *const text = reinterpret_cast<const char *>(TextAt(table, position));
        Fetch(text);
        Fetch(text + kCacheLine);
    }
}

std::uint32_t EntryIndex::HashAt(const EntryTable &table, EntryPosition position) const noexcept {
    const std::uint32_t remembered = RememberedHash(table, position);
    return remembered != 0 ? remembered : HashText(TextAt(table, position));
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

void EntryIndex::MakeRoom(const EntryTable &table, std::size_t additional) {
    // Groups count too: a text that comes and goes twice leaves one behind each time.
    if (used_ + groups_.size() + additional > MostUsed(cells_.size())) {
        Rehash(table, additional);
    }
}

// Each entry goes through four steps, kAhead entries apart, and each step fetches the memory
// that the next one needs. It lies all over the heap: without fetching ahead, adding many
// would take several times as long.
template <class PositionAt>
void EntryIndex::AddEach(const EntryTable &table, std::size_t count, PositionAt positionAt) {
    std::array<std::uint32_t, kAhead> hashes{};
    for (std::size_t i = 0; i < count + 3 * kAhead; ++i) {
        if (i >= 3 * kAhead) {
            Place(table, positionAt(i - 3 * kAhead), hashes[i % kAhead]);
        }
        if (i >= 2 * kAhead && i - 2 * kAhead < count) {
            const std::uint32_t hash = HashAt(table, positionAt(i - 2 * kAhead));
            hashes[i % kAhead] = hash;
            Fetch(&cells_[hash & (cells_.size() - 1)]);
        }
        if (i >= kAhead && i - kAhead < count) {
            FetchText(table, positionAt(i - kAhead));
        }
        if (i < count) {
            FetchEntry(table, positionAt(i));
        }
    }
}

void EntryIndex::Add(const EntryTable &table, std::span<const EntryPosition> positions) {
    MakeRoom(table, positions.size());
    AddEach(table, positions.size(), [&](std::size_t i) { return positions[i]; });
}

void EntryIndex::AddAll(const EntryTable &table) {
    if (table.Count() < table.End()) {
        Add(table, table.Positions());
        return;
    }
    // Without gaps no list of positions is needed.
    MakeRoom(table, table.Count());
    AddEach(table, table.Count(), [](std::size_t i) { return static_cast<EntryPosition>(i); });
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
    EntryIndex other(field_, hash_);
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
