/* CFDictionary.h: unordered maps from keys to values, both of pointer size.
 *
 * What the dictionary does with keys and values is set at creation by callbacks:
 * with kCFTypeDictionaryKeyCallBacks and kCFTypeDictionaryValueCallBacks it holds
 * objects; with null callbacks keys and values are plain words. Keys must not change
 * their hash or equality while they are in a dictionary.
 *
 * Lookups take O(1) comparisons on average; keys are compared by address first. The
 * order of enumeration is unspecified, but the same as long as nothing changes.
 *
 * Faults. A null dictionary, a negative count and a change to an immutable dictionary
 * are programming errors and abort with a message.
 *
 * Threads. An immutable dictionary may be read from any number of threads; a mutable
 * one is used by one thread at a time.
 */
#ifndef COREFOUNDATION_CFDICTIONARY_H
#define COREFOUNDATION_CFDICTIONARY_H

#include <CoreFoundation/CFBase.h>

typedef const struct __CFDictionary *CFDictionaryRef;
typedef struct __CFDictionary *CFMutableDictionaryRef;

/* Returns what is stored in place of value. */
typedef const void *(*CFDictionaryRetainCallBack)(CFAllocatorRef allocator, const void *value);
typedef void (*CFDictionaryReleaseCallBack)(CFAllocatorRef allocator, const void *value);
/* A new string; the dictionary releases it. */
typedef CFStringRef (*CFDictionaryCopyDescriptionCallBack)(const void *value);
typedef Boolean (*CFDictionaryEqualCallBack)(const void *value1, const void *value2);
typedef CFHashCode (*CFDictionaryHashCallBack)(const void *value);
typedef struct {
    CFIndex version;                                     /* 0 */
    CFDictionaryRetainCallBack retain;                   /* null: keys are not retained */
    CFDictionaryReleaseCallBack release;                 /* null: keys are not released */
    CFDictionaryCopyDescriptionCallBack copyDescription; /* null: described by address */
    CFDictionaryEqualCallBack equal;                     /* null: compared by address */
    CFDictionaryHashCallBack hash;                       /* null: hashed by address */
} CFDictionaryKeyCallBacks;
typedef struct {
    CFIndex version;                                     /* 0 */
    CFDictionaryRetainCallBack retain;                   /* null: values are not retained */
    CFDictionaryReleaseCallBack release;                 /* null: values are not released */
    CFDictionaryCopyDescriptionCallBack copyDescription; /* null: described by address */
    CFDictionaryEqualCallBack equal;                     /* null: compared by address */
} CFDictionaryValueCallBacks;

/* For keys that are objects. Null is no object and aborts. */
CF_EXPORT const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
/* The same for keys that are strings; stores an immutable copy of each key. */
CF_EXPORT const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks;
/* For values that are objects. Null is no object and aborts. */
CF_EXPORT const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;

/* Called for each pair. */
typedef void (*CFDictionaryApplierFunction)(const void *key, const void *value, void *context);

/* The type identifier of every dictionary, mutable or not. */
CF_EXPORT CFTypeID CFDictionaryGetTypeID(void);

/* ---- Making ---------------------------------------------------------------- */

/* A new immutable dictionary of numValues pairs; the caller releases it. When keys are
 * equal the first of them and its value stay. keys and values may be null when
 * numValues is 0, and so may the callbacks; the records are copied. Null only when
 * memory is out. */
CF_EXPORT CFDictionaryRef CFDictionaryCreate(CFAllocatorRef allocator, const void **keys,
                                             const void **values, CFIndex numValues,
                                             const CFDictionaryKeyCallBacks *keyCallBacks,
                                             const CFDictionaryValueCallBacks *valueCallBacks);
/* An immutable dictionary with the same pairs and callbacks; one that is immutable
 * already is retained instead of copied. */
CF_EXPORT CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef allocator, CFDictionaryRef theDict);
/* A new empty mutable dictionary. capacity is the number of pairs to make room for at
 * once; it limits nothing, and 0 is always right. */
CF_EXPORT CFMutableDictionaryRef CFDictionaryCreateMutable(
    CFAllocatorRef allocator, CFIndex capacity, const CFDictionaryKeyCallBacks *keyCallBacks,
    const CFDictionaryValueCallBacks *valueCallBacks);
/* A new mutable dictionary with the same pairs and callbacks; capacity as above. */
CF_EXPORT CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef allocator,
                                                               CFIndex capacity,
                                                               CFDictionaryRef theDict);

/* ---- Reading --------------------------------------------------------------- */

/* The number of pairs. O(1). */
CF_EXPORT CFIndex CFDictionaryGetCount(CFDictionaryRef theDict);
/* 1 when the key is there, else 0. */
CF_EXPORT CFIndex CFDictionaryGetCountOfKey(CFDictionaryRef theDict, const void *key);
/* How many values equal value. O(count). */
CF_EXPORT CFIndex CFDictionaryGetCountOfValue(CFDictionaryRef theDict, const void *value);
CF_EXPORT Boolean CFDictionaryContainsKey(CFDictionaryRef theDict, const void *key);
/* O(count). */
CF_EXPORT Boolean CFDictionaryContainsValue(CFDictionaryRef theDict, const void *value);
/* The value of the key, borrowed; null when the key is not there. */
CF_EXPORT const void *CFDictionaryGetValue(CFDictionaryRef theDict, const void *key);
/* Whether the key is there; if it is, stores its value, borrowed, in *value unless
 * value is null. Tells a stored null apart from an absent key. */
CF_EXPORT Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef theDict, const void *key,
                                                const void **value);
/* As above for the stored key itself, which may be another object than key. */
CF_EXPORT Boolean CFDictionaryGetKeyIfPresent(CFDictionaryRef theDict, const void *key,
                                              const void **actualkey);
/* Copies all keys and values, borrowed and in matching order, to arrays with room for
 * the count of pairs; either may be null. */
CF_EXPORT void CFDictionaryGetKeysAndValues(CFDictionaryRef theDict, const void **keys,
                                            const void **values);
/* Calls applier once for each pair. applier must not change the dictionary. */
CF_EXPORT void CFDictionaryApplyFunction(CFDictionaryRef theDict,
                                         CFDictionaryApplierFunction applier, void *context);

/* ---- Changing (mutable dictionaries only) ---------------------------------- */

/* Adds the pair unless the key is there already. Amortised O(1). */
CF_EXPORT void CFDictionaryAddValue(CFMutableDictionaryRef theDict, const void *key,
                                    const void *value);
/* Adds the pair, or replaces the value of the key (the stored key stays). */
CF_EXPORT void CFDictionarySetValue(CFMutableDictionaryRef theDict, const void *key,
                                    const void *value);
/* Replaces the value of the key if it is there, else does nothing. */
CF_EXPORT void CFDictionaryReplaceValue(CFMutableDictionaryRef theDict, const void *key,
                                        const void *value);
/* Takes the pair out if it is there. Amortised O(1). */
CF_EXPORT void CFDictionaryRemoveValue(CFMutableDictionaryRef theDict, const void *key);
/* Takes all pairs out. O(count). */
CF_EXPORT void CFDictionaryRemoveAllValues(CFMutableDictionaryRef theDict);

#endif
