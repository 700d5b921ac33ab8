#include "manifest/EntryTable.hpp"

#include <algorithm>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

namespace Kelvane {

namespace {

// Below this many positions gaps cost less than closing them.
constexpr std::size_t kFewPositions = 64;

CF::Array MakeArray(std::vector<const void *> &values) {
    auto array = CF::Array::Adopt(CFArrayCreate(kCFAllocatorDefault, values.data(),
                                                static_cast<CFIndex>(values.size()),
                                                &kCFTypeArrayCallBacks));
    if (!array) {
        throw std::bad_alloc();
    }
    return array;
}

// Grows as vectors do: callers append a few at a time.
template <class Vector>
void MakeRoom(Vector &vector, std::size_t needed) {
    if (needed > vector.capacity()) {
        vector.reserve(std::max(needed, vector.capacity() * 2));
    }
}

} // namespace

EntryTable::Weight EntryTable::WeightOf(const KVManifestEntryClass &entry) noexcept {
    return {KVManifestEntryGetFileSize(&entry), KVManifestEntryIsFile(&entry)};
}

EntryTable::EntryTable(CF::Array entries) {
    const CFIndex count = entries.GetCount();
    Reserve(static_cast<std::size_t>(count));
    for (CFIndex i = 0; i < count; ++i) {
        Append(static_cast<KVManifestEntryClass *>(
            const_cast<void *>(CFArrayGetValueAtIndex(entries.get(), i))));
    }
    listing_ = std::move(entries);
}

std::int64_t EntryTable::TotalSize() const noexcept {
    constexpr WideSize kLowest = std::numeric_limits<std::int64_t>::min();
    constexpr WideSize kHighest = std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(std::clamp(totalSize_, kLowest, kHighest));
}

void EntryTable::Reserve(std::size_t additional) {
    if (additional > kMaximumEntries - entries_.size()) {
        throw std::length_error("too many entries in a manifest");
    }
    const std::size_t needed = entries_.size() + additional;
    MakeRoom(entries_, needed);
    MakeRoom(sizes_, needed);
    MakeRoom(files_, needed);
}

void EntryTable::Append(KVManifestEntryClass *entry, const Weight &weight) {
    if (entries_.size() == entries_.capacity()) {
        Reserve(1);
    }
    listing_ = nullptr;
    entries_.emplace_back(entry);
    sizes_.push_back(weight.size);
    files_.push_back(weight.file);
    ++count_;
    totalSize_ += weight.size;
    totalFiles_ += weight.file ? 1 : 0;
}

void EntryTable::Remove(EntryPosition position) noexcept {
    listing_ = nullptr;
    --count_;
    totalSize_ -= sizes_[position];
    totalFiles_ -= files_[position] ? 1 : 0;
    entries_[position] = nullptr;
}

bool EntryTable::IsMostlyGaps() const noexcept {
    return entries_.size() > kFewPositions && entries_.size() - count_ > count_;
}

std::vector<EntryPosition> EntryTable::Compact() {
    std::vector<EntryPosition> renumbered(entries_.size(), kNoEntry);
    EntryPosition next = 0;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i]) {
            renumbered[i] = next;
            entries_[next].swap(entries_[i]);
            sizes_[next] = sizes_[i];
            files_[next] = files_[i];
            ++next;
        }
    }
    entries_.resize(next);
    sizes_.resize(next);
    files_.resize(next);
    return renumbered;
}

const CF::Array &EntryTable::Listing() {
    if (!listing_) {
        std::vector<const void *> values;
        values.reserve(count_);
        ForEach([&](KVManifestEntryClass *entry) { values.push_back(entry); });
        listing_ = MakeArray(values);
    }
    return listing_;
}

CF::Array EntryTable::ArrayOf(std::span<const EntryPosition> positions) const {
    std::vector<const void *> values;
    values.reserve(positions.size());
    for (const EntryPosition position : positions) {
        if (At(position) != nullptr) {
            values.push_back(At(position));
        }
    }
    return MakeArray(values);
}

std::vector<EntryPosition> EntryTable::Positions() const {
    std::vector<EntryPosition> positions;
    positions.reserve(count_);
    for (EntryPosition position = 0; position < End(); ++position) {
        if (At(position) != nullptr) {
            positions.push_back(position);
        }
    }
    return positions;
}

} // namespace Kelvane
