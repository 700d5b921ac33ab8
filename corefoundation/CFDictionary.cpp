#include <CoreFoundation/CFDictionary.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Checks.hpp"
#include "corefoundation/Description.hpp"
#include "corefoundation/DictionaryTable.hpp"
#include "corefoundation/MixHash.hpp"

#include <CoreFoundation/CFString.h>

#include <cstring>

// An immutable dictionary's table block follows it; a mutable one has its block apart.
// Callbacks that are not constants of ours are copied behind.
struct __CFDictionary {
    CFRuntimeBase base;
    const CFDictionaryKeyCallBacks *keyCallBacks;
    const CFDictionaryValueCallBacks *valueCallBacks;
    CFInternal::DictionaryTable table;
};

using namespace CFInternal;

namespace {

enum DictionaryFlags : std::uint8_t { kImmutable = 0, kMutable = 1 };

constexpr std::size_t kHeaderSize = sizeof(CFRuntimeBase);
constexpr CFIndex kMinimumCapacity = 8;

const void *retainObject(CFAllocatorRef, const void *value) { return CFRetain(value); }
void releaseObject(CFAllocatorRef, const void *value) { CFRelease(value); }
const void *copyString(CFAllocatorRef allocator, const void *value) {
    CFStringRef copy = CFStringCreateCopy(allocator, static_cast<CFStringRef>(value));
    requireMemory(copy != nullptr);
    return copy;
}

constinit const CFDictionaryKeyCallBacks noKeyCallBacks = {};
constinit const CFDictionaryValueCallBacks noValueCallBacks = {};

bool same(const CFDictionaryKeyCallBacks &a, const CFDictionaryKeyCallBacks &b) {
    return a.version == b.version && a.retain == b.retain && a.release == b.release &&
           a.copyDescription == b.copyDescription && a.equal == b.equal && a.hash == b.hash;
}

bool same(const CFDictionaryValueCallBacks &a, const CFDictionaryValueCallBacks &b) {
    return a.version == b.version && a.retain == b.retain && a.release == b.release &&
           a.copyDescription == b.copyDescription && a.equal == b.equal;
}

constinit const __CFDictionary emptyDictionary = {immortalBase(kDictionaryTypeID),
                                                  &kCFTypeDictionaryKeyCallBacks,
                                                  &kCFTypeDictionaryValueCallBacks,
                                                  {}};

// The constant that equals the caller's callbacks, or null when they must be copied.
const CFDictionaryKeyCallBacks *known(const CFDictionaryKeyCallBacks *callBacks) {
    if (callBacks == nullptr || same(*callBacks, noKeyCallBacks)) {
        return &noKeyCallBacks;
    }
    if (same(*callBacks, kCFTypeDictionaryKeyCallBacks)) {
        return &kCFTypeDictionaryKeyCallBacks;
    }
    return same(*callBacks, kCFCopyStringDictionaryKeyCallBacks)
               ? &kCFCopyStringDictionaryKeyCallBacks
               : nullptr;
}

const CFDictionaryValueCallBacks *known(const CFDictionaryValueCallBacks *callBacks) {
    if (callBacks == nullptr || same(*callBacks, noValueCallBacks)) {
        return &noValueCallBacks;
    }
    return same(*callBacks, kCFTypeDictionaryValueCallBacks) ? &kCFTypeDictionaryValueCallBacks
                                                             : nullptr;
}

struct CallBackCopies {
    CFDictionaryKeyCallBacks key;
    CFDictionaryValueCallBacks value;
};

void setCallBacks(__CFDictionary *dictionary, CallBackCopies *copies,
                  const CFDictionaryKeyCallBacks *key, const CFDictionaryValueCallBacks *value) {
    dictionary->keyCallBacks = known(key);
    dictionary->valueCallBacks = known(value);
    if (dictionary->keyCallBacks == nullptr) {
        copies->key = *key;
        dictionary->keyCallBacks = &copies->key;
    }
    if (dictionary->valueCallBacks == nullptr) {
        copies->value = *value;
        dictionary->valueCallBacks = &copies->value;
    }
}

// A dictionary with blockSize bytes of room behind it and a table that is not set up.
__CFDictionary *allocateDictionary(CFAllocatorRef allocator, CFIndex blockSize,
                                   const CFDictionaryKeyCallBacks *key,
                                   const CFDictionaryValueCallBacks *value, DictionaryFlags flags,
                                   const char *function) {
    // Slots of 4 bytes may leave the block's end unaligned for pointers.
    const CFIndex rounded = (blockSize + 7) & ~CFIndex{7};
    const CFIndex size = sizeOrAbort(sizeof(__CFDictionary), rounded, 1, function);
    const bool mustCopy = known(key) == nullptr || known(value) == nullptr;
    const CFIndex total = mustCopy ? sizeOrAbort(size, 1, sizeof(CallBackCopies), function) : size;
    auto *dictionary = static_cast<__CFDictionary *>(allocateInstance(
        allocator, kDictionaryTypeID, total - static_cast<CFIndex>(kHeaderSize), flags));
    if (dictionary != nullptr) {
        void *behind = reinterpret_cast<char *>(dictionary) + size;
        setCallBacks(dictionary, static_cast<CallBackCopies *>(behind), key, value);
    }
    return dictionary;
}

CFDictionaryRef checked(CFDictionaryRef dictionary, const char *function) {
    requireType(dictionary, kDictionaryTypeID, function);
    return dictionary;
}

__CFDictionary *checkedMutable(CFMutableDictionaryRef dictionary, const char *function) {
    requireType(dictionary, kDictionaryTypeID, function);
    require(flagsOf(dictionary) == kMutable, function, "immutable dictionary");
    return dictionary;
}

// The callbacks of objects, which nearly all dictionaries have, are recognised: a direct
// call costs half.
const void *retainKey(CFDictionaryRef dictionary, const void *key) {
    const auto retain = dictionary->keyCallBacks->retain;
    if (retain == retainObject) {
        return CFRetain(key);
    }
    return retain == nullptr ? key : retain(CFGetAllocator(dictionary), key);
}

const void *retainValue(CFDictionaryRef dictionary, const void *value) {
    const auto retain = dictionary->valueCallBacks->retain;
    if (retain == retainObject) {
        return CFRetain(value);
    }
    return retain == nullptr ? value : retain(CFGetAllocator(dictionary), value);
}

void releaseKey(CFDictionaryRef dictionary, const void *key) {
    const auto release = dictionary->keyCallBacks->release;
    if (release == releaseObject) {
        CFRelease(key);
    } else if (release != nullptr) {
        release(CFGetAllocator(dictionary), key);
    }
}

void releaseValue(CFDictionaryRef dictionary, const void *value) {
    const auto release = dictionary->valueCallBacks->release;
    if (release == releaseObject) {
        CFRelease(value);
    } else if (release != nullptr) {
        release(CFGetAllocator(dictionary), value);
    }
}

void releaseEntries(CFDictionaryRef dictionary, const DictionaryTable &table) {
    for (CFIndex i = 0; i < table.count(); ++i) {
        releaseKey(dictionary, table[i].key);
        releaseValue(dictionary, table[i].value);
    }
}

bool valuesEqual(CFDictionaryRef dictionary, const void *a, const void *b) {
    const auto equal = dictionary->valueCallBacks->equal;
    return a == b || (equal != nullptr && equal(a, b));
}

CFIndex find(CFDictionaryRef dictionary, const void *key) {
    return dictionary->table.find(key, *dictionary->keyCallBacks);
}

// Of a mutable dictionary; false when memory is out.
bool setCapacity(__CFDictionary *dictionary, CFIndex capacity, const char *function) {
    CFAllocatorRef allocator = CFGetAllocator(dictionary);
    const CFIndex size = DictionaryTable::blockSize(capacity, function);
    void *block = CFAllocatorAllocate(allocator, size, 0);
    if (block == nullptr) {
        return false;
    }
    void *old = dictionary->table.block();
    dictionary->table.moveTo(block, capacity);
    CFAllocatorDeallocate(allocator, old);
    return true;
}

void makeRoomForOne(__CFDictionary *dictionary, const char *function) {
    const CFIndex count = dictionary->table.count();
    if (count == dictionary->table.capacity()) {
        const CFIndex capacity = count < kMinimumCapacity ? kMinimumCapacity : 2 * count;
        requireMemory(setCapacity(dictionary, capacity, function));
    }
}

// Adds a pair whose key is known to be absent; there is room.
void appendPair(__CFDictionary *dictionary, CFHashCode hash, const void *key, const void *value) {
    const void *ownKey = retainKey(dictionary, key);
    dictionary->table.append({hash, ownKey, retainValue(dictionary, value)});
}

void addPair(__CFDictionary *dictionary, const void *key, const void *value, const char *function) {
    makeRoomForOne(dictionary, function);
    appendPair(dictionary, hashKey(key, *dictionary->keyCallBacks), key, value);
}

// The same when the key may be there, and its pair then stays.
void appendIfAbsent(__CFDictionary *dictionary, const void *key, const void *value) {
    const CFDictionaryKeyCallBacks &callBacks = *dictionary->keyCallBacks;
    const CFHashCode hash = hashKey(key, callBacks);
    if (dictionary->table.findHashed(key, hash, callBacks) == kCFNotFound) {
        appendPair(dictionary, hash, key, value);
    }
}

void replaceValue(__CFDictionary *dictionary, CFIndex index, const void *value) {
    const void *retained = retainValue(dictionary, value);
    const void *old = dictionary->table[index].value;
    dictionary->table[index].value = retained;
    releaseValue(dictionary, old);
}

void copyPairs(__CFDictionary *target, CFDictionaryRef source) {
    for (CFIndex i = 0; i < source->table.count(); ++i) {
        const DictionaryEntry &entry = source->table[i];
        appendPair(target, entry.hash, entry.key, entry.value);
    }
}

// An empty immutable dictionary with room for capacity pairs.
__CFDictionary *allocateImmutable(CFAllocatorRef allocator, CFIndex capacity,
                                  const CFDictionaryKeyCallBacks *key,
                                  const CFDictionaryValueCallBacks *value, const char *function) {
    const CFIndex block = DictionaryTable::blockSize(capacity, function);
    __CFDictionary *dictionary =
        allocateDictionary(allocator, block, key, value, kImmutable, function);
    if (dictionary != nullptr) {
        dictionary->table.initialize(dictionary + 1, capacity);
    }
    return dictionary;
}

void finalizeDictionary(CFTypeRef cf) {
    const auto *dictionary = static_cast<CFDictionaryRef>(cf);
    releaseEntries(dictionary, dictionary->table);
    if (flagsOf(cf) == kMutable) {
        CFAllocatorDeallocate(CFGetAllocator(cf), dictionary->table.block());
    }
}

Boolean equalDictionaries(CFTypeRef cf1, CFTypeRef cf2) {
    const auto *a = static_cast<CFDictionaryRef>(cf1);
    const auto *b = static_cast<CFDictionaryRef>(cf2);
    if (a->table.count() != b->table.count() || a->keyCallBacks->equal != b->keyCallBacks->equal ||
        a->keyCallBacks->hash != b->keyCallBacks->hash ||
        a->valueCallBacks->equal != b->valueCallBacks->equal) {
        return FALSE;
    }
    for (CFIndex i = 0; i < a->table.count(); ++i) {
        const DictionaryEntry &entry = a->table[i];
        const CFIndex other = b->table.findHashed(entry.key, entry.hash, *b->keyCallBacks);
        if (other == kCFNotFound || !valuesEqual(a, entry.value, b->table[other].value)) {
            return FALSE;
        }
    }
    return TRUE;
}

// Of the count alone: a mutable dictionary may hold itself.
CFHashCode hashDictionary(CFTypeRef cf) {
    return mixHash(static_cast<std::uint64_t>(static_cast<CFDictionaryRef>(cf)->table.count()));
}

CFStringRef describeDictionary(CFTypeRef cf, CFDictionaryRef) {
    const auto *dictionary = static_cast<CFDictionaryRef>(cf);
    const DescriptionScope scope(cf);
    if (!scope.isOpen()) {
        return createString("{...}");
    }
    std::string text = "{\n";
    for (CFIndex i = 0; i < dictionary->table.count(); ++i) {
        if (!scope.takeValue()) {
            text += "    ...\n";
            break;
        }
        const DictionaryEntry &entry = dictionary->table[i];
        text += "    " + describeValue(entry.key, dictionary->keyCallBacks->copyDescription);
        text += " = " + describeValue(entry.value, dictionary->valueCallBacks->copyDescription);
        text += ";\n";
    }
    return createString(text + "}");
}

} // namespace

constinit const CFRuntimeClass CFInternal::kDictionaryClass = {0,
                                                               "CFDictionary",
                                                               nullptr,
                                                               nullptr,
                                                               finalizeDictionary,
                                                               equalDictionaries,
                                                               hashDictionary,
                                                               describeDictionary,
                                                               nullptr};

constinit const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {
    0, retainObject, releaseObject, CFCopyDescription, CFEqual, CFHash};
constinit const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks = {
    0, copyString, releaseObject, CFCopyDescription, CFEqual, CFHash};
constinit const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {
    0, retainObject, releaseObject, CFCopyDescription, CFEqual};

CFTypeID CFDictionaryGetTypeID(void) { return kDictionaryTypeID; }

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef allocator, const void **keys, const void **values,
                                   CFIndex numValues, const CFDictionaryKeyCallBacks *keyCallBacks,
                                   const CFDictionaryValueCallBacks *valueCallBacks) {
    require(numValues >= 0, __func__, "negative count");
    require((keys != nullptr && values != nullptr) || numValues == 0, __func__,
            "null keys or values");
    if (numValues == 0 && known(keyCallBacks) == &kCFTypeDictionaryKeyCallBacks &&
        known(valueCallBacks) == &kCFTypeDictionaryValueCallBacks) {
        return &emptyDictionary;
    }
    return nullWhenOutOfMemory([&]() -> CFDictionaryRef {
        Owner owner(allocateImmutable(allocator, numValues, keyCallBacks, valueCallBacks,
                                      "CFDictionaryCreate"));
        __CFDictionary *dictionary = owner.get();
        for (CFIndex i = 0; dictionary != nullptr && i < numValues; ++i) {
            appendIfAbsent(dictionary, keys[i], values[i]);
        }
        return owner.take();
    });
}

CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef allocator, CFDictionaryRef theDict) {
    checked(theDict, __func__);
    if (flagsOf(theDict) == kImmutable) {
        return static_cast<CFDictionaryRef>(CFRetain(theDict));
    }
    return nullWhenOutOfMemory([&]() -> CFDictionaryRef {
        Owner copy(allocateImmutable(allocator, theDict->table.count(), theDict->keyCallBacks,
                                     theDict->valueCallBacks, "CFDictionaryCreateCopy"));
        if (copy.get() != nullptr) {
            copyPairs(copy.get(), theDict);
        }
        return copy.take();
    });
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks *keyCallBacks,
                                                 const CFDictionaryValueCallBacks *valueCallBacks) {
    require(capacity >= 0, __func__, "negative capacity");
    __CFDictionary *dictionary =
        allocateDictionary(allocator, 0, keyCallBacks, valueCallBacks, kMutable, __func__);
    if (dictionary == nullptr) {
        return nullptr;
    }
    dictionary->table.initialize(nullptr, 0);
    if (capacity > 0 && !setCapacity(dictionary, boundedReserve(capacity), __func__)) {
        CFRelease(dictionary);
        return nullptr;
    }
    return dictionary;
}

CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                     CFDictionaryRef theDict) {
    checked(theDict, __func__);
    return nullWhenOutOfMemory([&]() -> CFMutableDictionaryRef {
        Owner copy(CFDictionaryCreateMutable(allocator, capacity, theDict->keyCallBacks,
                                             theDict->valueCallBacks));
        const CFIndex count = theDict->table.count();
        if (copy.get() == nullptr || count == 0) {
            return copy.take();
        }
        requireMemory(copy.get()->table.capacity() >= count ||
                      setCapacity(copy.get(), count, "CFDictionaryCreateMutableCopy"));
        copyPairs(copy.get(), theDict);
        return copy.take();
    });
}

CFIndex CFDictionaryGetCount(CFDictionaryRef theDict) {
    return checked(theDict, __func__)->table.count();
}

CFIndex CFDictionaryGetCountOfKey(CFDictionaryRef theDict, const void *key) {
    return CFDictionaryContainsKey(theDict, key) ? 1 : 0;
}

CFIndex CFDictionaryGetCountOfValue(CFDictionaryRef theDict, const void *value) {
    checked(theDict, __func__);
    CFIndex count = 0;
    for (CFIndex i = 0; i < theDict->table.count(); ++i) {
        count += valuesEqual(theDict, theDict->table[i].value, value) ? 1 : 0;
    }
    return count;
}

Boolean CFDictionaryContainsKey(CFDictionaryRef theDict, const void *key) {
    return find(checked(theDict, __func__), key) != kCFNotFound;
}

Boolean CFDictionaryContainsValue(CFDictionaryRef theDict, const void *value) {
    checked(theDict, __func__);
    for (CFIndex i = 0; i < theDict->table.count(); ++i) {
        if (valuesEqual(theDict, theDict->table[i].value, value)) {
            return TRUE;
        }
    }
    return FALSE;
}

const void *CFDictionaryGetValue(CFDictionaryRef theDict, const void *key) {
    const CFIndex index = find(checked(theDict, __func__), key);
    return index == kCFNotFound ? nullptr : theDict->table[index].value;
}

Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef theDict, const void *key,
                                      const void **value) {
    const CFIndex index = find(checked(theDict, __func__), key);
    if (index != kCFNotFound && value != nullptr) {
        *value = theDict->table[index].value;
    }
    return index != kCFNotFound;
}

Boolean CFDictionaryGetKeyIfPresent(CFDictionaryRef theDict, const void *key,
                                    const void **actualkey) {
    const CFIndex index = find(checked(theDict, __func__), key);
    if (index != kCFNotFound && actualkey != nullptr) {
        *actualkey = theDict->table[index].key;
    }
    return index != kCFNotFound;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef theDict, const void **keys, const void **values) {
    checked(theDict, __func__);
    for (CFIndex i = 0; i < theDict->table.count(); ++i) {
        if (keys != nullptr) {
            keys[i] = theDict->table[i].key;
        }
        if (values != nullptr) {
            values[i] = theDict->table[i].value;
        }
    }
}

void CFDictionaryApplyFunction(CFDictionaryRef theDict, CFDictionaryApplierFunction applier,
                               void *context) {
    checked(theDict, __func__);
    for (CFIndex i = 0; i < theDict->table.count(); ++i) {
        const DictionaryEntry entry = theDict->table[i];
        applier(entry.key, entry.value, context);
    }
}

void CFDictionaryAddValue(CFMutableDictionaryRef theDict, const void *key, const void *value) {
    __CFDictionary *dictionary = checkedMutable(theDict, __func__);
    if (find(dictionary, key) == kCFNotFound) {
        addPair(dictionary, key, value, __func__);
    }
}

void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void *key, const void *value) {
    __CFDictionary *dictionary = checkedMutable(theDict, __func__);
    const CFIndex index = find(dictionary, key);
    if (index == kCFNotFound) {
        addPair(dictionary, key, value, __func__);
    } else {
        replaceValue(dictionary, index, value);
    }
}

void CFDictionaryReplaceValue(CFMutableDictionaryRef theDict, const void *key, const void *value) {
    __CFDictionary *dictionary = checkedMutable(theDict, __func__);
    const CFIndex index = find(dictionary, key);
    if (index != kCFNotFound) {
        replaceValue(dictionary, index, value);
    }
}

void CFDictionaryRemoveValue(CFMutableDictionaryRef theDict, const void *key) {
    __CFDictionary *dictionary = checkedMutable(theDict, __func__);
    const CFIndex index = find(dictionary, key);
    if (index != kCFNotFound) {
        const DictionaryEntry entry = dictionary->table[index];
        dictionary->table.remove(index);
        releaseKey(dictionary, entry.key);
        releaseValue(dictionary, entry.value);
    }
}

void CFDictionaryRemoveAllValues(CFMutableDictionaryRef theDict) {
    __CFDictionary *dictionary = checkedMutable(theDict, __func__);
    // Emptied first: a release callback may look at the dictionary.
    const DictionaryTable old = dictionary->table;
    dictionary->table.initialize(nullptr, 0);
    releaseEntries(dictionary, old);
    CFAllocatorDeallocate(CFGetAllocator(dictionary), old.block());
}
