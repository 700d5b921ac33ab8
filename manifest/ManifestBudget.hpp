// What a manifest may cost in memory.
#pragma once

#include "manifest/KVManifestEntryClass.hpp"

#include <cstddef>
#include <cstdint>

namespace Kelvane {

// The largest backups known have some two million entries. A file of 1 GiB can claim 21
// million, and compressed it is 3 MB.
inline constexpr std::size_t kMaximumManifestRecords = 10'000'000;
// An entry of a device takes 450 bytes on average, and is counted with up to 850 where its path
// is long: there is room for more than two million of them. A crafted one may take half a
// megabyte for its texts.
inline constexpr std::uint64_t kMaximumManifestMemory = std::uint64_t{2} << 30;

// The memory that an entry keeps, roughly. Texts and values that many entries share are
// counted for each, but for a domain that is the very object of the entry before it.
std::uint64_t MemoryOfEntry(const KVManifestEntryClass &entry, CFStringRef previousDomain,
                            std::uint64_t limit);

// Counts what a reader has gathered and refuses what is beyond the limits, so that hostile
// manifests end in an error and not in exhausted memory.
class ManifestBudget {
  public:
    ManifestBudget() = default;
    // With other limits, for tests.
    ManifestBudget(std::size_t records, std::uint64_t bytes) noexcept
        : recordsLeft_(records), bytesLeft_(bytes) {}

    // Each throws CF::Error, code 10, when this one is too much.
    void TakeEntry(const KVManifestEntryClass &entry);
    void TakePlaceholder(CFStringRef fileID);

  private:
    void Take(std::uint64_t bytes);

    std::size_t recordsLeft_ = kMaximumManifestRecords;
    std::uint64_t bytesLeft_ = kMaximumManifestMemory;
    // Retained: another text could take its address.
    CF::Pointer<CFStringRef> domain_;
};

} // namespace Kelvane
