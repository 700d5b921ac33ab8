#include "manifest/PathIndex.hpp"

#include "KVManifestEntry.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace Kelvane {

namespace {

// A bucket that outgrows this is cut in half. Small enough that moving half of one is
// nothing beside the comparisons that find the place, large enough to have few of them.
constexpr std::size_t kLargestBucket = 512;
// Taking one position out costs as much as passing over this many.
constexpr std::size_t kPassedPerSearch = 64;

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

// The key of one path at a time, in storage that is used again.
class Key {
  public:
    Key() = default;
    explicit Key(CFStringRef path) { AppendKey(path, units_); }
    KeyView Load(const EntryTable &table, EntryPosition position) {
        units_.clear();
        AppendKey(KVManifestEntryGetPath(table.At(position)), units_);
        return View();
    }
    void AppendSeparator() { units_.push_back(kSeparator); }
    KeyView View() const noexcept { return {units_.data(), units_.size()}; }

  private:
    std::vector<char16_t> units_;
};

// All keys side by side while sorting: comparing through the entries takes several times
// as long.
std::vector<EntryPosition> OrderByPath(const EntryTable &table,
                                       std::span<const EntryPosition> positions) {
    std::vector<char16_t> keys;
    std::vector<std::size_t> starts;
    std::vector<std::uint32_t> order;
    starts.reserve(positions.size() + 1);
    order.reserve(positions.size());
    for (const EntryPosition position : positions) {
        starts.push_back(keys.size());
        order.push_back(static_cast<std::uint32_t>(order.size()));
        AppendKey(KVManifestEntryGetPath(table.At(position)), keys);
    }
    starts.push_back(keys.size());
    const auto keyAt = [&](std::uint32_t i) {
        return KeyView(keys.data() + starts[i], starts[i + 1] - starts[i]);
    };
    std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        const int compared = CompareKeys(keyAt(a), keyAt(b));
        return compared != 0 ? compared < 0 : positions[a] < positions[b];
    });
    std::transform(order.begin(), order.end(), order.begin(),
                   [&](std::uint32_t i) { return positions[i]; });
    return order;
}

} // namespace

PathIndex::PathIndex(const EntryTable &table, std::span<const EntryPosition> positions) {
    Fill(OrderByPath(table, positions));
}

// Half full, so that the first insertions need not split.
void PathIndex::Fill(std::span<const EntryPosition> ordered) {
    count_ = ordered.size();
    while (!ordered.empty()) {
        const auto part = ordered.first(std::min(kLargestBucket / 2, ordered.size()));
        buckets_.emplace_back(part.begin(), part.end());
        ordered = ordered.subspan(part.size());
    }
}

// The first place whose position is not before what is looked for; isBefore holds for
// positions up to somewhere and for none from there on.
template <class IsBefore>
PathIndex::Cursor PathIndex::Find(IsBefore isBefore) const {
    const auto next =
        std::partition_point(buckets_.begin(), buckets_.end(),
                             [&](const Bucket &bucket) { return isBefore(bucket.front()); });
    if (next == buckets_.begin()) {
        return {};
    }
    const Bucket &bucket = *(next - 1);
    const auto found = std::partition_point(bucket.begin() + 1, bucket.end(), isBefore);
    const auto number = static_cast<std::size_t>(next - buckets_.begin());
    if (found == bucket.end()) {
        return {number, 0};
    }
    return {number - 1, static_cast<std::size_t>(found - bucket.begin())};
}

PathIndex::Cursor PathIndex::Next(Cursor cursor) const noexcept {
    if (++cursor.offset == buckets_[cursor.bucket].size()) {
        return {cursor.bucket + 1, 0};
    }
    return cursor;
}

PathIndex::Cursor PathIndex::Place(const EntryTable &table, EntryPosition position) const {
    const Key wanted(KVManifestEntryGetPath(table.At(position)));
    Key key;
    return Find([&](EntryPosition other) {
        const int order = CompareKeys(key.Load(table, other), wanted.View());
        return order != 0 ? order < 0 : other < position;
    });
}

void PathIndex::Add(const EntryTable &table, EntryPosition position) {
    Cursor place = Place(table, position);
    if (buckets_.empty()) {
        buckets_.push_back({position});
        ++count_;
        return;
    }
    // Between two buckets: behind the first, whose front stays what it is.
    if (place.offset == 0 && place.bucket > 0) {
        --place.bucket;
        place.offset = buckets_[place.bucket].size();
    }
    Bucket &bucket = buckets_[place.bucket];
    bucket.insert(bucket.begin() + static_cast<std::ptrdiff_t>(place.offset), position);
    ++count_;
    if (bucket.size() > kLargestBucket) {
        SplitBucket(place.bucket);
    }
}

void PathIndex::SplitBucket(std::size_t bucket) {
    const auto middle = static_cast<std::ptrdiff_t>(buckets_[bucket].size() / 2);
    Bucket upper(buckets_[bucket].begin() + middle, buckets_[bucket].end());
    buckets_.insert(buckets_.begin() + static_cast<std::ptrdiff_t>(bucket) + 1, std::move(upper));
    buckets_[bucket].resize(static_cast<std::size_t>(middle));
}

void PathIndex::Remove(const EntryTable &table, std::span<const EntryPosition> positions) {
    if (positions.size() > count_ / kPassedPerSearch) {
        RemoveMany(positions);
        return;
    }
    for (const EntryPosition position : positions) {
        RemoveOne(table, position);
    }
}

void PathIndex::RemoveOne(const EntryTable &table, EntryPosition position) {
    const Cursor place = Place(table, position);
    Bucket &bucket = buckets_[place.bucket];
    bucket.erase(bucket.begin() + static_cast<std::ptrdiff_t>(place.offset));
    --count_;
    if (bucket.empty()) {
        buckets_.erase(buckets_.begin() + static_cast<std::ptrdiff_t>(place.bucket));
    }
}

void PathIndex::RemoveMany(std::span<const EntryPosition> positions) {
    for (Bucket &bucket : buckets_) {
        count_ -= std::erase_if(bucket, [&](EntryPosition position) {
            return std::binary_search(positions.begin(), positions.end(), position);
        });
    }
    std::erase_if(buckets_, [](const Bucket &bucket) { return bucket.empty(); });
}

void PathIndex::Renumber(std::span<const EntryPosition> renumbered) noexcept {
    for (Bucket &bucket : buckets_) {
        for (EntryPosition &position : bucket) {
            position = renumbered[position];
        }
    }
}

std::vector<EntryPosition> PathIndex::Between(const Cursor &first, const Cursor &last) const {
    std::vector<EntryPosition> positions;
    for (std::size_t i = first.bucket; i < buckets_.size() && i <= last.bucket; ++i) {
        const Bucket &bucket = buckets_[i];
        const std::size_t from = i == first.bucket ? first.offset : 0;
        const std::size_t to = i == last.bucket ? last.offset : bucket.size();
        positions.insert(positions.end(), bucket.begin() + static_cast<std::ptrdiff_t>(from),
                         bucket.begin() + static_cast<std::ptrdiff_t>(to));
    }
    std::sort(positions.begin(), positions.end());
    return positions;
}

std::vector<EntryPosition> PathIndex::AtOrBelow(const EntryTable &table, CFStringRef path) const {
    const Key wanted(path);
    Key key;
    const auto order = [&](EntryPosition position) {
        return CompareWithSubtree(key.Load(table, position), wanted.View());
    };
    const Cursor first = Find([&](EntryPosition position) { return order(position) < 0; });
    const Cursor last = Find([&](EntryPosition position) { return order(position) <= 0; });
    return Between(first, last);
}

// From name to name below a directory, over everything that lies below the names.
class PathIndex::ChildWalk {
  public:
    ChildWalk(const PathIndex &index, const EntryTable &table, CFStringRef path)
        : index_(index), table_(table), prefix_(path) {
        const bool isRoot = prefix_.View().empty();
        if (!isRoot) {
            prefix_.AppendSeparator();
        }
        cursor_ = index_.Find([&](EntryPosition position) {
            const KeyView key = key_.Load(table_, position);
            return isRoot ? key.empty() : CompareKeys(key, prefix_.View()) < 0;
        });
    }

    // The next child; kNoEntry behind the last.
    EntryPosition Next() {
        while (cursor_ != index_.End()) {
            const EntryPosition position = index_.At(cursor_);
            const KeyView key = key_.Load(table_, position);
            if (!key.starts_with(prefix_.View())) {
                break;
            }
            const std::size_t end = key.find(kSeparator, prefix_.View().size());
            if (end == KeyView::npos) {
                cursor_ = index_.Next(cursor_);
                return position;
            }
            SkipSubtree(std::u16string(key.substr(0, end)));
        }
        return kNoEntry;
    }

  private:
    void SkipSubtree(const std::u16string &path) {
        cursor_ = index_.Find([&](EntryPosition position) {
            return CompareWithSubtree(key_.Load(table_, position), path) <= 0;
        });
    }

    const PathIndex &index_;
    const EntryTable &table_;
    Key prefix_;
    Key key_;
    Cursor cursor_;
};

std::vector<EntryPosition> PathIndex::Children(const EntryTable &table, CFStringRef path) const {
    std::vector<EntryPosition> positions;
    ChildWalk walk(*this, table, path);
    for (EntryPosition position = walk.Next(); position != kNoEntry; position = walk.Next()) {
        positions.push_back(position);
    }
    std::sort(positions.begin(), positions.end());
    return positions;
}

} // namespace Kelvane
