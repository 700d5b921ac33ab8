// Finds the number of an object that is already stored, by a hash of whatever makes it
// the same; the objects themselves stay with the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace CFInternal::PropertyList {

class NumberTable {
  public:
    static constexpr std::uint32_t kNone = 0xFFFFFFFF;

    // The number added under this hash for which same(number) holds, or kNone.
    template <class Same>
    std::uint32_t Find(std::size_t hash, Same same) const {
        if (entries_.empty()) {
            return kNone;
        }
        const auto shortHash = static_cast<std::uint32_t>(hash);
        for (std::size_t at = hash & Mask();; at = (at + 1) & Mask()) {
            const Entry &entry = entries_[at];
            if (entry.number == kNone || (entry.hash == shortHash && same(entry.number))) {
                return entry.number;
            }
        }
    }

    // Adds a number that Find has not found.
    void Add(std::size_t hash, std::uint32_t number) {
        // At most half full, so that probes stay short.
        if (2 * (count_ + 1) > entries_.size()) {
            Grow();
        }
        Place({static_cast<std::uint32_t>(hash), number});
        ++count_;
    }

  private:
    struct Entry {
        std::uint32_t hash = 0;
        std::uint32_t number = kNone;
    };
    static constexpr std::size_t kFirstSize = 64;

    std::size_t Mask() const { return entries_.size() - 1; }

    void Place(Entry entry) {
        std::size_t at = entry.hash & Mask();
        while (entries_[at].number != kNone) {
            at = (at + 1) & Mask();
        }
        entries_[at] = entry;
    }

    void Grow() {
        std::vector<Entry> old(entries_.empty() ? kFirstSize : 2 * entries_.size());
        old.swap(entries_);
        for (const Entry &entry : old) {
            if (entry.number != kNone) {
                Place(entry);
            }
        }
    }

    std::vector<Entry> entries_;
    std::size_t count_ = 0;
};

} // namespace CFInternal::PropertyList
