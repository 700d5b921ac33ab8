#include "corefoundation/DictionaryTable.hpp"

#include "corefoundation/Checks.hpp"
#include "corefoundation/MixHash.hpp"

#include <cstring>
#include <type_traits>

namespace CFInternal {

namespace {

// Up to here all entries lie in a few cache lines.
constexpr CFIndex kScannedCapacity = 8;
// Slots hold entry numbers in 32 bits.
constexpr CFIndex kMaximumCapacity = CFIndex{1} << 31;

// At least two a possible entry, so that probes stay short.
std::size_t slotCount(CFIndex capacity) {
    if (capacity <= kScannedCapacity) {
        return 0;
    }
    std::size_t slots = 32;
    while (slots < 2 * static_cast<std::size_t>(capacity)) {
        slots *= 2;
    }
    return slots;
}

bool keysEqual(const DictionaryEntry &entry, const void *key, CFHashCode hash,
               const CFDictionaryKeyCallBacks &callBacks) {
    return entry.key == key ||
           (entry.hash == hash && callBacks.equal != nullptr && callBacks.equal(entry.key, key));
}

} // namespace

// Dictionaries are made in raw memory and freed without destruction.
static_assert(std::is_trivial_v<DictionaryTable>);

CFHashCode hashKey(const void *key, const CFDictionaryKeyCallBacks &callBacks) {
    return mixHash(callBacks.hash == nullptr ? reinterpret_cast<std::uintptr_t>(key)
                                             : callBacks.hash(key));
}

CFIndex DictionaryTable::blockSize(CFIndex capacity, const char *function) {
    require(capacity <= kMaximumCapacity, function, "too many pairs");
    const auto slots = static_cast<CFIndex>(slotCount(capacity) * sizeof(std::uint32_t));
    return sizeOrAbort(slots, capacity, sizeof(DictionaryEntry), function);
}

void DictionaryTable::initialize(void *block, CFIndex capacity) {
    const std::size_t slots = slotCount(capacity);
    count_ = 0;
    capacity_ = capacity;
    entries_ = static_cast<DictionaryEntry *>(block);
    slots_ = reinterpret_cast<std::uint32_t *>(entries_ + capacity);
    slotMask_ = slots == 0 ? 0 : slots - 1;
    if (slots != 0) {
        std::memset(slots_, 0, slots * sizeof(std::uint32_t));
    }
}

void DictionaryTable::moveTo(void *block, CFIndex capacity) {
    const DictionaryEntry *old = entries_;
    const CFIndex count = count_;
    initialize(block, capacity);
    for (CFIndex i = 0; i < count; ++i) {
        append(old[i]);
    }
}

CFIndex DictionaryTable::find(const void *key, const CFDictionaryKeyCallBacks &callBacks) const {
    return hasSlots() ? findHashed(key, hashKey(key, callBacks), callBacks) : scan(key, callBacks);
}

CFIndex DictionaryTable::scan(const void *key, const CFDictionaryKeyCallBacks &callBacks) const {
    for (CFIndex i = 0; i < count_; ++i) {
        if (entries_[i].key == key) {
            return i;
        }
    }
    // The hash callback may be expensive, or refuse what is no key at all.
    if (count_ == 0 || callBacks.equal == nullptr) {
        return kCFNotFound;
    }
    return findHashed(key, hashKey(key, callBacks), callBacks);
}

CFIndex DictionaryTable::findHashed(const void *key, CFHashCode hash,
                                    const CFDictionaryKeyCallBacks &callBacks) const {
    if (!hasSlots()) {
        for (CFIndex i = 0; i < count_; ++i) {
            if (keysEqual(entries_[i], key, hash, callBacks)) {
                return i;
            }
        }
        return kCFNotFound;
    }
    for (std::size_t slot = hash & slotMask_; slots_[slot] != 0; slot = (slot + 1) & slotMask_) {
        const CFIndex index = static_cast<CFIndex>(slots_[slot]) - 1;
        if (keysEqual(entries_[index], key, hash, callBacks)) {
            return index;
        }
    }
    return kCFNotFound;
}

void DictionaryTable::placeInSlot(CFIndex index) {
    std::size_t slot = entries_[index].hash & slotMask_;
    while (slots_[slot] != 0) {
        slot = (slot + 1) & slotMask_;
    }
    slots_[slot] = static_cast<std::uint32_t>(index + 1);
}

void DictionaryTable::append(const DictionaryEntry &entry) {
    entries_[count_] = entry;
    if (hasSlots()) {
        placeInSlot(count_);
    }
    ++count_;
}

std::size_t DictionaryTable::slotOf(CFIndex index) const {
    std::size_t slot = entries_[index].hash & slotMask_;
    while (slots_[slot] != static_cast<std::uint32_t>(index + 1)) {
        slot = (slot + 1) & slotMask_;
    }
    return slot;
}

// Closes the gap: an entry behind it moves up when that brings it no further ahead than
// its own place.
void DictionaryTable::emptySlot(std::size_t slot) {
    std::size_t gap = slot;
    for (std::size_t at = (gap + 1) & slotMask_; slots_[at] != 0; at = (at + 1) & slotMask_) {
        const std::size_t home = entries_[slots_[at] - 1].hash & slotMask_;
        if (((at - home) & slotMask_) >= ((at - gap) & slotMask_)) {
            slots_[gap] = slots_[at];
            gap = at;
        }
    }
    slots_[gap] = 0;
}

void DictionaryTable::remove(CFIndex index) {
    const CFIndex last = count_ - 1;
    if (hasSlots()) {
        emptySlot(slotOf(index));
        if (index != last) {
            slots_[slotOf(last)] = static_cast<std::uint32_t>(index + 1);
        }
    }
    entries_[index] = entries_[last];
    count_ = last;
}

} // namespace CFInternal
