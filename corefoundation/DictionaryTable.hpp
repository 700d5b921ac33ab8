// The table inside a dictionary: entries in a dense array, found by an index of slots.
#pragma once

#include <CoreFoundation/CFDictionary.h>

#include <cstddef>
#include <cstdint>

namespace CFInternal {

struct DictionaryEntry {
    CFHashCode hash; // mixed
    const void *key;
    const void *value;
};

// A table does not own what its entries refer to, nor its memory: one block of
// blockSize(capacity) bytes given by the dictionary, the entries first, then the slots.
// A slot holds the number of an entry plus 1, or 0; entries are placed by linear
// probing. Small tables have no slots: a scan is faster. Removal leaves no trace, so
// that a table never degrades.
class DictionaryTable {
  public:
    // The size of the block for capacity entries; aborts beyond the address space.
    static CFIndex blockSize(CFIndex capacity, const char *function);

    // Starts over, empty, in the block.
    void initialize(void *block, CFIndex capacity);
    // Moves all entries to a larger block.
    void moveTo(void *block, CFIndex capacity);

    CFIndex count() const { return count_; }
    CFIndex capacity() const { return capacity_; }
    void *block() const { return entries_; }
    DictionaryEntry &operator[](CFIndex index) const { return entries_[index]; }

    // The number of the key's entry, or kCFNotFound.
    CFIndex find(const void *key, const CFDictionaryKeyCallBacks &callBacks) const;
    // The same when the hash is known, mixed.
    CFIndex findHashed(const void *key, CFHashCode hash,
                       const CFDictionaryKeyCallBacks &callBacks) const;
    // Adds an entry whose key is not there; count() is below capacity().
    void append(const DictionaryEntry &entry);
    // Takes an entry out; the last one gets its number.
    void remove(CFIndex index);

  private:
    bool hasSlots() const { return slotMask_ != 0; }
    CFIndex scan(const void *key, const CFDictionaryKeyCallBacks &callBacks) const;
    std::size_t slotOf(CFIndex index) const;
    void emptySlot(std::size_t slot);
    void placeInSlot(CFIndex index);

    CFIndex count_;
    CFIndex capacity_;
    DictionaryEntry *entries_;
    std::uint32_t *slots_;
    std::size_t slotMask_; // number of slots - 1, or 0 without
};

// The mixed hash of a key.
CFHashCode hashKey(const void *key, const CFDictionaryKeyCallBacks &callBacks);

} // namespace CFInternal
