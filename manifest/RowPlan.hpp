// What writing a manifest over its source comes to.
#pragma once

#include "manifest/DeviceRow.hpp"
#include "manifest/KVManifestClass.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Kelvane {

// Compares the entries of a manifest with those of its source by their origins alone; nothing of
// the source is read. Borrows the entries.
class RowPlan {
  public:
    struct Rewriting {
        std::uint32_t ordinal; // in the source
        const KVManifestEntryClass *entry;
    };

    // The manifest must have a source.
    RowPlan(const KVManifestClass &manifest, const DeviceRowRules &rules);

    // Entries whose rows are written over, in the source's order.
    const std::vector<Rewriting> &Rewritten() const noexcept { return rewritten_; }
    // Entries without a row, in the manifest's order.
    const std::vector<const KVManifestEntryClass *> &Added() const noexcept { return added_; }
    // Whether a row of the source, counted as its entries are, is no entry's any more.
    bool IsRemoved(std::uint32_t ordinal) const noexcept { return !claimed_[ordinal]; }
    std::size_t RemovedCount() const noexcept { return claimed_.size() - claimedCount_; }
    std::size_t Count() const noexcept {
        return RemovedCount() + rewritten_.size() + added_.size();
    }

  private:
    void Take(const KVManifestEntryClass *entry, const DeviceRowRules &rules,
              std::uint32_t reading);

    std::vector<bool> claimed_;
    std::size_t claimedCount_ = 0;
    std::vector<Rewriting> rewritten_;
    std::vector<const KVManifestEntryClass *> added_;
};

} // namespace Kelvane
