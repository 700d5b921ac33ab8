#include "manifest/RowPlan.hpp"

#include "manifest/DeviceDatabase.hpp"

#include <algorithm>

namespace Kelvane {

RowPlan::RowPlan(const KVManifestClass &manifest, const DeviceRowRules &rules)
    : claimed_(manifest.source->EntryCount()) {
    const std::uint32_t reading = manifest.source->Reading();
    manifest.entries.ForEach([&](const KVManifestEntryClass *entry) {
        if (!rules.leavesOut || !rules.leavesOut(*entry)) {
            Take(entry, rules, reading);
        }
    });
    const auto isBefore = [](const Rewriting &one, const Rewriting &other) {
        return one.ordinal < other.ordinal;
    };
    if (!std::is_sorted(rewritten_.begin(), rewritten_.end(), isBefore)) {
        std::sort(rewritten_.begin(), rewritten_.end(), isBefore);
    }
}

// A host may put one entry into a manifest several times: the row is that of the first.
void RowPlan::Take(const KVManifestEntryClass *entry, const DeviceRowRules &rules,
                   std::uint32_t reading) {
    const EntryOrigin origin = entry->origin;
    if (!origin.IsOf(reading) || claimed_[origin.Ordinal()]) {
        added_.push_back(entry);
        return;
    }
    claimed_[origin.Ordinal()] = true;
    ++claimedCount_;
    if (origin.IsChanged() || (rules.rewrites && rules.rewrites(*entry))) {
        rewritten_.push_back({origin.Ordinal(), entry});
    }
}

bool HasSource(const KVManifestClass &manifest) noexcept { return manifest.source != nullptr; }

bool IsAsRead(const KVManifestClass &manifest, const DeviceRowRules &rules) {
    return HasSource(manifest) && RowPlan(manifest, rules).Count() == 0;
}

} // namespace Kelvane
