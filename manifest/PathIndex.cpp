#include "manifest/PathIndex.hpp"

#include "KVManifestEntry.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace Kelvane {

namespace {

// Paths are ordered by keys: their UTF-16 units with the slash moved below all others.
// Everything below a path then follows it immediately ("a", "a/b", "a!", "ab"). Beyond
// that any order will do, so keys are compared as bytes, which is quickest.
using KeyView = std::u16string_view;
constexpr char16_t kSeparator = 0;

char16_t KeyUnit(UniChar unit) {
    if (unit == u'/') {
        return kSeparator;
    }
    return static_cast<char16_t>(unit < u'/' ? unit + 1 : unit);
}

void AppendKey(CFStringRef path, std::vector<char16_t> &destination) {
    const CFIndex length = CFStringGetLength(path);
    const std::size_t start = destination.size();
    destination.resize(start + static_cast<std::size_t>(length));
    char16_t *const units = destination.data() + start;
    static_assert(sizeof(UniChar) == sizeof(char16_t));
    CFStringGetCharacters(path, CFRangeMake(0, length), reinterpret_cast<UniChar *>(units));
    std::transform(units, units + length, units, KeyUnit);
}

int CompareKeys(KeyView a, KeyView b) {
    const std::size_t common = std::min(a.size(), b.size());
    const int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common * sizeof(char16_t));
    if (order != 0) {
        return order;
    }
    return a.size() < b.size() ? -1 : static_cast<int>(a.size() > b.size());
}

// 0 for the path itself and what lies below it, else on which side of them the key is.
int CompareWithSubtree(KeyView key, KeyView path) {
    if (key.size() > path.size() && key[path.size()] == kSeparator &&
        CompareKeys(key.substr(0, path.size()), path) == 0) {
        return 0;
    }
    return CompareKeys(key, path);
}

CFStringRef PathAt(CFArrayRef entries, std::uint32_t position) {
    return KVManifestEntryGetPath(static_cast<const KVManifestEntryClass *>(
        CFArrayGetValueAtIndex(entries, static_cast<CFIndex>(position))));
}

// The run of positions at which compare(key of the path, wanted key) gives 0.
template <class Compare>
std::span<const std::uint32_t> FindRun(std::span<const std::uint32_t> positions, CFArrayRef entries,
                                       CFStringRef wanted, Compare compare) {
    std::vector<char16_t> wantedKey;
    AppendKey(wanted, wantedKey);
    std::vector<char16_t> key;
    const auto order = [&](std::uint32_t position) {
        key.clear();
        AppendKey(PathAt(entries, position), key);
        return compare(KeyView(key.data(), key.size()),
                       KeyView(wantedKey.data(), wantedKey.size()));
    };
    const auto first =
        std::partition_point(positions.begin(), positions.end(),
                             [&](std::uint32_t position) { return order(position) < 0; });
    const auto last = std::partition_point(
        first, positions.end(), [&](std::uint32_t position) { return order(position) == 0; });
    return {first, last};
}

} // namespace

PathIndex::PathIndex(CFArrayRef entries) {
    const CFIndex count = CFArrayGetCount(entries);
    if (static_cast<std::uint64_t>(count) > std::numeric_limits<std::uint32_t>::max()) {
        throw std::length_error("too many entries in a domain");
    }
    const auto size = static_cast<std::uint32_t>(count);
    // All keys side by side while sorting: comparing through the entries takes several
    // times as long.
    std::vector<char16_t> keys;
    std::vector<std::size_t> starts(std::size_t{size} + 1);
    positions_.resize(size);
    for (std::uint32_t i = 0; i < size; ++i) {
        AppendKey(PathAt(entries, i), keys);
        starts[i + 1] = keys.size();
        positions_[i] = i;
    }
    const auto keyAt = [&](std::uint32_t position) {
        return KeyView(keys.data() + starts[position], starts[position + 1] - starts[position]);
    };
    std::sort(positions_.begin(), positions_.end(), [&](std::uint32_t a, std::uint32_t b) {
        const int order = CompareKeys(keyAt(a), keyAt(b));
        return order != 0 ? order < 0 : a < b;
    });
}

std::span<const std::uint32_t> PathIndex::At(CFArrayRef entries, CFStringRef path) const {
    return FindRun(positions_, entries, path, CompareKeys);
}

std::span<const std::uint32_t> PathIndex::AtOrBelow(CFArrayRef entries, CFStringRef path) const {
    return FindRun(positions_, entries, path, CompareWithSubtree);
}

} // namespace Kelvane
