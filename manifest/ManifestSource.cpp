#include "manifest/ManifestSource.hpp"

#include <algorithm>
#include <atomic>
#include <limits>
#include <stdexcept>

namespace Kelvane {

namespace {

// When all numbers are used up, which takes a reading a second for more than a century, sources
// get the number of none: their manifests are then written as if they had no source.
std::uint32_t NextReading() noexcept {
    static std::atomic<std::uint64_t> last{0};
    const std::uint64_t next = ++last;
    return next <= std::numeric_limits<std::uint32_t>::max() ? static_cast<std::uint32_t>(next) : 0;
}

// The difference of two row IDs may be beyond 64 bits; unsigned numbers wrap.
std::uint64_t Distance(std::int64_t from, std::int64_t to) noexcept {
    return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

} // namespace

ManifestSource::ManifestSource() noexcept : reading_(NextReading()) {}

EntryOrigin ManifestSource::AddEntry(std::optional<std::int64_t> rowID) {
    if (entryCount_ > EntryOrigin::kHighestOrdinal) {
        throw std::length_error("too many entries in a manifest");
    }
    if (rowID && (runs_.empty() || Distance(runs_.back().firstRowID, *rowID) !=
                                       entryCount_ - runs_.back().firstOrdinal)) {
        runs_.push_back({entryCount_, *rowID});
    }
    return {reading_, entryCount_++};
}

std::optional<std::int64_t> ManifestSource::RowIDOf(std::uint32_t ordinal) const noexcept {
    const auto next = std::upper_bound(
        runs_.begin(), runs_.end(), ordinal,
        [](std::uint32_t wanted, const Run &run) { return wanted < run.firstOrdinal; });
    if (next == runs_.begin() || ordinal >= entryCount_) {
        return std::nullopt;
    }
    const Run &run = *(next - 1);
    // Unsigned, for a run may pass from the highest number to the lowest.
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(run.firstRowID) +
                                     (ordinal - run.firstOrdinal));
}

} // namespace Kelvane
