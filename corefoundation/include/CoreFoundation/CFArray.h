/* CFArray.h: ordered lists of pointer-sized values.
 *
 * What the array does with its values is set at creation by callbacks: with
 * kCFTypeArrayCallBacks it retains, releases, describes and compares objects; with
 * null callbacks the values are plain words that it stores and compares as such.
 *
 * Faults. A null array, an index outside 0 ... count - 1 (an insertion allows count),
 * a range that does not lie within the array, a negative count, and a change to an
 * immutable array are programming errors and abort with a message.
 *
 * Threads. An immutable array may be read from any number of threads; a mutable one
 * is used by one thread at a time.
 */
#ifndef COREFOUNDATION_CFARRAY_H
#define COREFOUNDATION_CFARRAY_H

#include <CoreFoundation/CFBase.h>

typedef const struct __CFArray *CFArrayRef;
typedef struct __CFArray *CFMutableArrayRef;

/* Returns what is stored in place of value. */
typedef const void *(*CFArrayRetainCallBack)(CFAllocatorRef allocator, const void *value);
typedef void (*CFArrayReleaseCallBack)(CFAllocatorRef allocator, const void *value);
/* A new string; the array releases it. */
typedef CFStringRef (*CFArrayCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFArrayEqualCallBack)(const void *value1, const void *value2);
typedef struct {
    CFIndex version;                                /* 0 */
    CFArrayRetainCallBack retain;                   /* null: values are not retained */
    CFArrayReleaseCallBack release;                 /* null: values are not released */
    CFArrayCopyDescriptionCallBack copyDescription; /* null: described by address */
    CFArrayEqualCallBack equal;                     /* null: compared by address */
} CFArrayCallBacks;

/* For values that are objects. Null is no object and aborts. */
CF_EXPORT const CFArrayCallBacks kCFTypeArrayCallBacks;

/* Called for each value, in order. */
typedef void (*CFArrayApplierFunction)(const void *value, void *context);

/* The type identifier of every array, mutable or not. */
CF_EXPORT CFTypeID CFArrayGetTypeID(void);

/* ---- Making ---------------------------------------------------------------- */

/* A new immutable array of numValues values, retained by the callbacks; the caller
 * releases it. values may be null when numValues is 0, callBacks may be null, and
 * the record is copied. Null only when memory is out. One allocation, O(numValues). */
CF_EXPORT CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void **values, CFIndex numValues,
                                   const CFArrayCallBacks *callBacks);
/* An immutable array with the same values and callbacks; one that is immutable
 * already is retained instead of copied. */
CF_EXPORT CFArrayRef CFArrayCreateCopy(CFAllocatorRef allocator, CFArrayRef theArray);
/* A new empty mutable array. capacity is the number of values to make room for at
 * once; it limits nothing, and 0 is always right. */
CF_EXPORT CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                 const CFArrayCallBacks *callBacks);
/* A new mutable array with the same values and callbacks; capacity as above. */
CF_EXPORT CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                     CFArrayRef theArray);

/* ---- Reading --------------------------------------------------------------- */

/* The number of values. O(1). */
CF_EXPORT CFIndex CFArrayGetCount(CFArrayRef theArray);
/* How many values of the range equal value. O(range). */
CF_EXPORT CFIndex CFArrayGetCountOfValue(CFArrayRef theArray, CFRange range, const void *value);
/* Whether a value of the range equals value. O(range). */
CF_EXPORT Boolean CFArrayContainsValue(CFArrayRef theArray, CFRange range, const void *value);
/* The value at the index; borrowed. O(1). */
CF_EXPORT const void *CFArrayGetValueAtIndex(CFArrayRef theArray, CFIndex idx);
/* Copies the values of the range to values, which has room for range.length of them;
 * borrowed. */
CF_EXPORT void CFArrayGetValues(CFArrayRef theArray, CFRange range, const void **values);
/* Calls applier for each value of the range, in order. applier must not change the array. */
CF_EXPORT void CFArrayApplyFunction(CFArrayRef theArray, CFRange range,
                                    CFArrayApplierFunction applier, void *context);
/* The lowest index in the range whose value equals value, or kCFNotFound. O(range). */
CF_EXPORT CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef theArray, CFRange range,
                                              const void *value);
/* The highest index in the range whose value equals value, or kCFNotFound. O(range). */
CF_EXPORT CFIndex CFArrayGetLastIndexOfValue(CFArrayRef theArray, CFRange range, const void *value);
/* Searches the range, which must be sorted by comparator. An index whose value
 * compares equal, when there is one; else the index where value would be inserted to
 * keep the order, between range.location and range.location + range.length.
 * O(log range). */
CF_EXPORT CFIndex CFArrayBSearchValues(CFArrayRef theArray, CFRange range, const void *value,
                                       CFComparatorFunction comparator, void *context);

/* ---- Changing (mutable arrays only) ---------------------------------------- */

/* Adds value at the end. Amortised O(1). */
CF_EXPORT void CFArrayAppendValue(CFMutableArrayRef theArray, const void *value);
/* Puts value before the one at idx; idx may equal the count. O(count). */
CF_EXPORT void CFArrayInsertValueAtIndex(CFMutableArrayRef theArray, CFIndex idx,
                                         const void *value);
/* Replaces the value at idx; idx may equal the count, which appends. O(1). */
CF_EXPORT void CFArraySetValueAtIndex(CFMutableArrayRef theArray, CFIndex idx, const void *value);
/* Takes the value at idx out. O(count). */
CF_EXPORT void CFArrayRemoveValueAtIndex(CFMutableArrayRef theArray, CFIndex idx);
/* Takes all values out. O(count). */
CF_EXPORT void CFArrayRemoveAllValues(CFMutableArrayRef theArray);
/* Puts newCount values in place of the range. newValues may be null when newCount is
 * 0; the new values are retained before the old ones are released. O(count). */
CF_EXPORT void CFArrayReplaceValues(CFMutableArrayRef theArray, CFRange range,
                                    const void **newValues, CFIndex newCount);
/* Swaps two values, which may be the same. O(1). */
CF_EXPORT void CFArrayExchangeValuesAtIndices(CFMutableArrayRef theArray, CFIndex idx1,
                                              CFIndex idx2);
/* Sorts the range; equal values keep their order. A comparator that contradicts
 * itself gives some order of the same values. O(n log n) comparisons. */
CF_EXPORT void CFArraySortValues(CFMutableArrayRef theArray, CFRange range,
                                 CFComparatorFunction comparator, void *context);
/* Adds the values of a range of otherArray, which may be theArray, at the end. */
CF_EXPORT void CFArrayAppendArray(CFMutableArrayRef theArray, CFArrayRef otherArray,
                                  CFRange otherRange);

#endif
