#include "manifest/ManifestChange.hpp"

#include "manifest/KVManifestClass.hpp"

#include <algorithm>
#include <cstddef>
#include <unordered_map>

namespace Kelvane {

namespace {

// How often each entry is to go.
using Occurrences = std::unordered_map<const KVManifestEntryClass *, std::size_t>;

// Looking an entry up takes about as long as passing over this many.
constexpr std::size_t kPassedPerLookup = 16;

std::vector<EntryPosition> FindByPassing(const EntryTable &table, Occurrences wanted) {
    std::vector<EntryPosition> positions;
    for (EntryPosition end = table.End(); end > 0 && !wanted.empty(); --end) {
        const auto found = wanted.find(table.At(end - 1));
        if (found != wanted.end()) {
            positions.push_back(end - 1);
            if (--found->second == 0) {
                wanted.erase(found);
            }
        }
    }
    std::reverse(positions.begin(), positions.end());
    return positions;
}

// Ascending. Goes through the manifest instead when that is quicker: for many entries, or
// when thousands have the same file ID.
std::vector<EntryPosition> FindPositions(KVManifestClass &manifest,
                                         const std::vector<EntryPointer> &removed) {
    if (removed.empty()) {
        return {};
    }
    Occurrences wanted;
    for (const EntryPointer &entry : removed) {
        ++wanted[entry.get()];
    }
    const EntryTable &table = manifest.entries;
    if (wanted.size() > table.Count() / kPassedPerLookup) {
        return FindByPassing(table, std::move(wanted));
    }
    std::vector<EntryPosition> positions;
    std::size_t maximumSteps = table.Count();
    EntryIndex &index = manifest.tables.ByFileID(table);
    for (const auto &[entry, count] : wanted) {
        if (!index.AppendOccurrences(table, *entry, count, maximumSteps, positions)) {
            return FindByPassing(table, std::move(wanted));
        }
    }
    std::sort(positions.begin(), positions.end());
    return positions;
}

} // namespace

void ApplyChange(KVManifestClass *manifest, const ManifestChange &change) {
    EntryTable &table = manifest->entries;
    const std::vector<EntryPosition> removed = FindPositions(*manifest, change.removed);
    table.Reserve(change.added.size());
    // Nothing fails from here on.
    manifest->tables.Remove(table, removed);
    for (const EntryPosition position : removed) {
        table.Remove(position);
    }
    const EntryPosition first = table.End();
    for (const EntryPointer &entry : change.added) {
        table.Append(entry.get());
    }
    manifest->tables.Add(table, first);
    if (table.IsMostlyGaps()) {
        manifest->tables.Compact(table);
    }
    manifest->DropReports();
}

} // namespace Kelvane
