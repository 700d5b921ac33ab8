#include <CoreFoundation/CFArray.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Checks.hpp"
#include "corefoundation/Description.hpp"
#include "corefoundation/MixHash.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

// An immutable array's values follow it; a mutable one has the flag kMutable and is a
// MutableArray. Callbacks that are not constants of ours are copied behind.
struct __CFArray {
    CFRuntimeBase base;
    CFIndex count;
    const void **values;
    const CFArrayCallBacks *callBacks;
};

using namespace CFInternal;

namespace {

enum ArrayFlags : std::uint8_t { kImmutable = 0, kMutable = 1 };

struct MutableArray : __CFArray {
    CFIndex capacity;
};

constexpr std::size_t kHeaderSize = sizeof(CFRuntimeBase);
constexpr std::size_t kValueSize = sizeof(const void *);
constexpr CFIndex kMinimumCapacity = 8;

const void *retainObject(CFAllocatorRef, const void *value) { return CFRetain(value); }
void releaseObject(CFAllocatorRef, const void *value) { CFRelease(value); }

constinit const CFArrayCallBacks noCallBacks = {0, nullptr, nullptr, nullptr, nullptr};
constinit __CFArray emptyArray = {immortalBase(kArrayTypeID), 0, nullptr, &kCFTypeArrayCallBacks};

bool sameCallBacks(const CFArrayCallBacks &a, const CFArrayCallBacks &b) {
    return a.version == b.version && a.retain == b.retain && a.release == b.release &&
           a.copyDescription == b.copyDescription && a.equal == b.equal;
}

// The constant that equals the caller's callbacks, or null when they must be copied.
const CFArrayCallBacks *knownCallBacks(const CFArrayCallBacks *callBacks) {
    if (callBacks == nullptr || sameCallBacks(*callBacks, noCallBacks)) {
        return &noCallBacks;
    }
    return sameCallBacks(*callBacks, kCFTypeArrayCallBacks) ? &kCFTypeArrayCallBacks : nullptr;
}

// An empty array whose object has room for size bytes before the copied callbacks.
__CFArray *allocateArray(CFAllocatorRef allocator, CFIndex size, const CFArrayCallBacks *callBacks,
                         ArrayFlags flags, const char *function) {
    const CFArrayCallBacks *known = knownCallBacks(callBacks);
    const CFIndex total =
        known != nullptr ? size : sizeOrAbort(size, 1, sizeof(CFArrayCallBacks), function);
    auto *array = static_cast<__CFArray *>(allocateInstance(
        allocator, kArrayTypeID, total - static_cast<CFIndex>(kHeaderSize), flags));
    if (array == nullptr) {
        return nullptr;
    }
    if (known == nullptr) {
        void *copy = reinterpret_cast<char *>(array) + size;
        std::memcpy(copy, callBacks, sizeof(CFArrayCallBacks));
        known = static_cast<const CFArrayCallBacks *>(copy);
    }
    array->count = 0;
    array->values = nullptr;
    array->callBacks = known;
    return array;
}

const void *retainValue(CFArrayRef array, const void *value) {
    const auto retain = array->callBacks->retain;
    if (retain == retainObject) {
        return CFRetain(value);
    }
    return retain == nullptr ? value : retain(CFGetAllocator(array), value);
}

void releaseValue(CFArrayRef array, const void *value) {
    const auto release = array->callBacks->release;
    if (release == releaseObject) {
        CFRelease(value);
    } else if (release != nullptr) {
        release(CFGetAllocator(array), value);
    }
}

bool valuesEqual(CFArrayRef array, const void *a, const void *b) {
    const auto equal = array->callBacks->equal;
    return a == b || (equal != nullptr && equal(a, b));
}

CFArrayRef checked(CFArrayRef array, const char *function) {
    requireType(array, kArrayTypeID, function);
    return array;
}

MutableArray *mutableArray(CFMutableArrayRef array, const char *function) {
    requireType(array, kArrayTypeID, function);
    require(flagsOf(array) == kMutable, function, "immutable array");
    return static_cast<MutableArray *>(array);
}

void requireIndex(CFIndex index, CFIndex count, const char *function) {
    require(index >= 0 && index < count, function, "index outside the array");
}

bool setCapacity(MutableArray *array, CFIndex capacity, const char *function) {
    CFAllocatorRef allocator = CFGetAllocator(array);
    const CFIndex size = sizeOrAbort(0, capacity, kValueSize, function);
    void *grown = array->values == nullptr
                      ? CFAllocatorAllocate(allocator, size, 0)
                      : CFAllocatorReallocate(allocator, array->values, size, 0);
    if (grown == nullptr) {
        return false;
    }
    array->values = static_cast<const void **>(grown);
    array->capacity = capacity;
    return true;
}

void makeRoom(MutableArray *array, CFIndex extra, const char *function) {
    CFIndex needed = 0;
    require(!__builtin_add_overflow(array->count, extra, &needed), function,
            "count beyond the address space");
    if (needed > array->capacity) {
        const CFIndex capacity = grownCapacity(array->capacity, needed, kMinimumCapacity);
        requireMemory(setCapacity(array, capacity, function));
    }
}

void moveValues(const void **to, const void **from, CFIndex count) {
    if (count > 0) {
        std::memmove(to, from, static_cast<std::size_t>(count) * kValueSize);
    }
}

// Replaces the range by values that are retained already. There must be room for all of them
// behind the ones that are there.
void splice(MutableArray *array, CFRange range, const std::vector<const void *> &values) noexcept {
    const auto added = static_cast<CFIndex>(values.size());
    const CFIndex end = range.location + range.length;
    moveValues(array->values + range.location + added, array->values + end, array->count - end);
    std::copy(values.begin(), values.end(), array->values + range.location);
    array->count += added - range.length;
}

void replaceValues(MutableArray *array, CFRange range, const void *const *values, CFIndex count,
                   const char *function) {
    // All memory is taken before anything changes. What goes is released when the array is
    // whole again: callbacks may look at it.
    std::vector<const void *> removed(static_cast<std::size_t>(range.length));
    // Copied first: they may be the array's own, which move when it grows.
    std::vector<const void *> retained(static_cast<std::size_t>(count));
    if (count > 0) {
        std::copy_n(values, count, retained.begin());
    }
    makeRoom(array, count, function);
    if (range.length > 0) {
        std::copy_n(array->values + range.location, range.length, removed.begin());
    }
    for (const void *&value : retained) {
        value = retainValue(array, value);
    }
    splice(array, range, retained);
    for (const void *value : removed) {
        releaseValue(array, value);
    }
}

void finalizeArray(CFTypeRef cf) {
    const auto *array = static_cast<CFArrayRef>(cf);
    for (CFIndex i = 0; i < array->count; ++i) {
        releaseValue(array, array->values[i]);
    }
    if (flagsOf(cf) == kMutable) {
        CFAllocatorDeallocate(CFGetAllocator(cf), array->values);
    }
}

Boolean equalArrays(CFTypeRef cf1, CFTypeRef cf2) {
    const auto *a = static_cast<CFArrayRef>(cf1);
    const auto *b = static_cast<CFArrayRef>(cf2);
    if (a->count != b->count || a->callBacks->equal != b->callBacks->equal) {
        return FALSE;
    }
    for (CFIndex i = 0; i < a->count; ++i) {
        if (!valuesEqual(a, a->values[i], b->values[i])) {
            return FALSE;
        }
    }
    return TRUE;
}

// Of the count alone: a mutable array may hold itself.
CFHashCode hashArray(CFTypeRef cf) {
    return mixHash(static_cast<std::uint64_t>(static_cast<CFArrayRef>(cf)->count));
}

CFStringRef describeArray(CFTypeRef cf, CFDictionaryRef) {
    const auto *array = static_cast<CFArrayRef>(cf);
    const DescriptionScope scope(cf);
    if (!scope.isOpen()) {
        return createString("(...)");
    }
    std::string text = "(";
    for (CFIndex i = 0; i < array->count; ++i) {
        text += i == 0 ? "\n    " : ",\n    ";
        if (!scope.takeValue()) {
            text += "...";
            break;
        }
        text += describeValue(array->values[i], array->callBacks->copyDescription);
    }
    return createString(text + "\n)");
}

// Merges the two sorted runs of source into target, the left value first when equal.
struct Merge {
    CFComparatorFunction comparator;
    void *context;

    void operator()(const std::vector<const void *> &source, std::vector<const void *> &target,
                    std::size_t start, std::size_t middle, std::size_t end) const {
        std::size_t left = start;
        std::size_t right = middle;
        for (std::size_t at = start; at < end; ++at) {
            const bool takeLeft =
                left < middle &&
                (right >= end || comparator(source[left], source[right], context) <= 0);
            target[at] = takeLeft ? source[left++] : source[right++];
        }
    }
};

// Bottom-up merge sort: unlike the standard library's, it stays within its bounds
// whatever the comparator answers.
void sortValues(std::vector<const void *> &values, const Merge &merge) {
    std::vector<const void *> other(values.size());
    for (std::size_t run = 1; run < values.size(); run *= 2) {
        for (std::size_t start = 0; start < values.size(); start += 2 * run) {
            merge(values, other, start, std::min(start + run, values.size()),
                  std::min(start + 2 * run, values.size()));
        }
        values.swap(other);
    }
}

} // namespace

constinit const CFRuntimeClass CFInternal::kArrayClass = {
    0, "CFArray", nullptr, nullptr, finalizeArray, equalArrays, hashArray, describeArray, nullptr};

constinit const CFArrayCallBacks kCFTypeArrayCallBacks = {0, retainObject, releaseObject,
                                                          CFCopyDescription, CFEqual};

CFTypeID CFArrayGetTypeID(void) { return kArrayTypeID; }

CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void **values, CFIndex numValues,
                         const CFArrayCallBacks *callBacks) {
    require(numValues >= 0, __func__, "negative count");
    require(values != nullptr || numValues == 0, __func__, "null values");
    if (numValues == 0 && knownCallBacks(callBacks) == &kCFTypeArrayCallBacks) {
        return &emptyArray;
    }
    const CFIndex size = sizeOrAbort(sizeof(__CFArray), numValues, kValueSize, __func__);
    __CFArray *array = allocateArray(allocator, size, callBacks, kImmutable, __func__);
    if (array == nullptr) {
        return nullptr;
    }
    array->values = reinterpret_cast<const void **>(array + 1);
    for (CFIndex i = 0; i < numValues; ++i) {
        array->values[i] = retainValue(array, values[i]);
    }
    array->count = numValues;
    return array;
}

CFArrayRef CFArrayCreateCopy(CFAllocatorRef allocator, CFArrayRef theArray) {
    checked(theArray, __func__);
    if (flagsOf(theArray) == kImmutable) {
        return static_cast<CFArrayRef>(CFRetain(theArray));
    }
    return CFArrayCreate(allocator, theArray->values, theArray->count, theArray->callBacks);
}

CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                       const CFArrayCallBacks *callBacks) {
    require(capacity >= 0, __func__, "negative capacity");
    auto *array = static_cast<MutableArray *>(
        allocateArray(allocator, sizeof(MutableArray), callBacks, kMutable, __func__));
    if (array == nullptr) {
        return nullptr;
    }
    array->capacity = 0;
    if (capacity > 0 && !setCapacity(array, boundedReserve(capacity), __func__)) {
        CFRelease(array);
        return nullptr;
    }
    return array;
}

CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                           CFArrayRef theArray) {
    checked(theArray, __func__);
    return nullWhenOutOfMemory([&]() -> CFMutableArrayRef {
        Owner copy(CFArrayCreateMutable(allocator, capacity, theArray->callBacks));
        if (copy.get() != nullptr) {
            replaceValues(static_cast<MutableArray *>(copy.get()), CFRangeMake(0, 0),
                          theArray->values, theArray->count, "CFArrayCreateMutableCopy");
        }
        return copy.take();
    });
}

CFIndex CFArrayGetCount(CFArrayRef theArray) { return checked(theArray, __func__)->count; }

CFIndex CFArrayGetCountOfValue(CFArrayRef theArray, CFRange range, const void *value) {
    requireRange(range, checked(theArray, __func__)->count, __func__);
    CFIndex count = 0;
    for (CFIndex i = range.location; i < range.location + range.length; ++i) {
        count += valuesEqual(theArray, theArray->values[i], value) ? 1 : 0;
    }
    return count;
}

Boolean CFArrayContainsValue(CFArrayRef theArray, CFRange range, const void *value) {
    return CFArrayGetFirstIndexOfValue(theArray, range, value) != kCFNotFound;
}

const void *CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx) {
    requireIndex(idx, checked(theArray, __func__)->count, __func__);
    return theArray->values[idx];
}

void CFArrayGetValues(CFArrayRef theArray, CFRange range, const void **values) {
    requireRange(range, checked(theArray, __func__)->count, __func__);
    require(values != nullptr || range.length == 0, __func__, "null buffer");
    if (range.length > 0) {
        std::copy_n(theArray->values + range.location, range.length, values);
    }
}

void CFArrayApplyFunction(CFArrayRef theArray, CFRange range, CFArrayApplierFunction applier,
                          void *context) {
    requireRange(range, checked(theArray, __func__)->count, __func__);
    for (CFIndex i = range.location; i < range.location + range.length; ++i) {
        requireIndex(i, theArray->count, __func__);
        applier(theArray->values[i], context);
    }
}

CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef theArray, CFRange range, const void *value) {
    requireRange(range, checked(theArray, __func__)->count, __func__);
    for (CFIndex i = range.location; i < range.location + range.length; ++i) {
        if (valuesEqual(theArray, theArray->values[i], value)) {
            return i;
        }
    }
    return kCFNotFound;
}

CFIndex CFArrayGetLastIndexOfValue(CFArrayRef theArray, CFRange range, const void *value) {
    requireRange(range, checked(theArray, __func__)->count, __func__);
    for (CFIndex i = range.location + range.length; i > range.location; --i) {
        if (valuesEqual(theArray, theArray->values[i - 1], value)) {
            return i - 1;
        }
    }
    return kCFNotFound;
}

CFIndex CFArrayBSearchValues(CFArrayRef theArray, CFRange range, const void *value,
                             CFComparatorFunction comparator, void *context) {
    requireRange(range, checked(theArray, __func__)->count, __func__);
    CFIndex low = range.location;
    CFIndex high = range.location + range.length;
    while (low < high) {
        const CFIndex middle = low + (high - low) / 2;
        requireIndex(middle, theArray->count, __func__);
        const CFComparisonResult order = comparator(theArray->values[middle], value, context);
        if (order == kCFCompareEqualTo) {
            return middle;
        }
        low = order < 0 ? middle + 1 : low;
        high = order < 0 ? high : middle;
    }
    return low;
}

void CFArrayAppendValue(CFMutableArrayRef theArray, const void *value) {
    MutableArray *array = mutableArray(theArray, __func__);
    makeRoom(array, 1, __func__);
    array->values[array->count] = retainValue(array, value);
    ++array->count;
}

void CFArrayInsertValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void *value) {
    MutableArray *array = mutableArray(theArray, __func__);
    require(idx >= 0 && idx <= array->count, __func__, "index outside the array");
    replaceValues(array, CFRangeMake(idx, 0), &value, 1, __func__);
}

void CFArraySetValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void *value) {
    MutableArray *array = mutableArray(theArray, __func__);
    if (idx == array->count) {
        CFArrayAppendValue(theArray, value);
        return;
    }
    requireIndex(idx, array->count, __func__);
    const void *retained = retainValue(array, value);
    const void *old = array->values[idx];
    array->values[idx] = retained;
    releaseValue(array, old);
}

void CFArrayRemoveValueAtIndex(CFMutableArrayRef theArray, CFIndex idx) {
    MutableArray *array = mutableArray(theArray, __func__);
    requireIndex(idx, array->count, __func__);
    const void *old = array->values[idx];
    moveValues(array->values + idx, array->values + idx + 1, array->count - idx - 1);
    --array->count;
    releaseValue(array, old);
}

void CFArrayRemoveAllValues(CFMutableArrayRef theArray) {
    MutableArray *array = mutableArray(theArray, __func__);
    replaceValues(array, CFRangeMake(0, array->count), nullptr, 0, __func__);
}

void CFArrayReplaceValues(CFMutableArrayRef theArray, CFRange range, const void **newValues,
                          CFIndex newCount) {
    MutableArray *array = mutableArray(theArray, __func__);
    requireRange(range, array->count, __func__);
    require(newCount >= 0, __func__, "negative count");
    require(newValues != nullptr || newCount == 0, __func__, "null values");
    replaceValues(array, range, newValues, newCount, __func__);
}

void CFArrayExchangeValuesAtIndices(CFMutableArrayRef theArray, CFIndex idx1, CFIndex idx2) {
    MutableArray *array = mutableArray(theArray, __func__);
    requireIndex(idx1, array->count, __func__);
    requireIndex(idx2, array->count, __func__);
    std::swap(array->values[idx1], array->values[idx2]);
}

void CFArraySortValues(CFMutableArrayRef theArray, CFRange range, CFComparatorFunction comparator,
                       void *context) {
    MutableArray *array = mutableArray(theArray, __func__);
    requireRange(range, array->count, __func__);
    if (range.length < 2) {
        return;
    }
    std::vector<const void *> values(array->values + range.location,
                                     array->values + range.location + range.length);
    sortValues(values, Merge{comparator, context});
    requireRange(range, array->count, __func__);
    std::copy(values.begin(), values.end(), array->values + range.location);
}

void CFArrayAppendArray(CFMutableArrayRef theArray, CFArrayRef otherArray, CFRange otherRange) {
    MutableArray *array = mutableArray(theArray, __func__);
    requireRange(otherRange, checked(otherArray, __func__)->count, __func__);
    if (otherRange.length > 0) {
        replaceValues(array, CFRangeMake(array->count, 0), otherArray->values + otherRange.location,
                      otherRange.length, __func__);
    }
}
