/* CFData.h: byte strings.
 *
 * An immutable data holds its bytes in the object's own allocation, unless it was
 * made without copying. A mutable data owns a growing buffer.
 *
 * Faults. A null data, a null pointer with a positive length, a negative length, a
 * range outside the data, and a change to an immutable data are programming errors
 * and abort with a message. No function reads or writes outside the data.
 *
 * Threads. An immutable data may be read from any number of threads; a mutable one
 * is used by one thread at a time.
 */
#ifndef COREFOUNDATION_CFDATA_H
#define COREFOUNDATION_CFDATA_H

#include <CoreFoundation/CFBase.h>

typedef const struct __CFData *CFDataRef;
typedef struct __CFData *CFMutableDataRef;

/* The type identifier of every data, mutable or not. */
CF_EXPORT CFTypeID CFDataGetTypeID(void);

/* ---- Making ---------------------------------------------------------------- */

/* A new immutable data holding a copy of length bytes; the caller releases it.
 * bytes may be null when length is 0. Null only when memory is out. O(length). */
CF_EXPORT CFDataRef CFDataCreate(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length);
/* A new immutable data over the caller's bytes, which must not change or go away
 * while it lives. bytesDeallocator frees them when the last reference goes: null
 * means the default allocator (free), kCFAllocatorNull that nobody frees them.
 * Null when memory is out; the bytes then stay the caller's. */
CF_EXPORT CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8 *bytes,
                                                CFIndex length, CFAllocatorRef bytesDeallocator);
/* An immutable data with the same bytes; the caller releases it. One that is
 * immutable already and owns its bytes is retained instead of copied. */
CF_EXPORT CFDataRef CFDataCreateCopy(CFAllocatorRef allocator, CFDataRef theData);
/* A new empty mutable data. capacity is the number of bytes to make room for at
 * once; it limits nothing, and 0 is always right. */
CF_EXPORT CFMutableDataRef CFDataCreateMutable(CFAllocatorRef allocator, CFIndex capacity);
/* A new mutable data with a copy of the bytes; capacity as above. */
CF_EXPORT CFMutableDataRef CFDataCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                   CFDataRef theData);

/* ---- Reading --------------------------------------------------------------- */

/* The number of bytes. O(1). */
CF_EXPORT CFIndex CFDataGetLength(CFDataRef theData);
/* The bytes; borrowed, valid until the data is changed or freed. Not null, but not
 * to be read when the length is 0. */
CF_EXPORT const UInt8 *CFDataGetBytePtr(CFDataRef theData);
/* The bytes of a mutable data, for writing within its length; borrowed, valid until
 * the next change of length. Aborts for an immutable one. */
CF_EXPORT UInt8 *CFDataGetMutableBytePtr(CFMutableDataRef theData);
/* Copies the bytes of the range to buffer, which has room for range.length of them. */
CF_EXPORT void CFDataGetBytes(CFDataRef theData, CFRange range, UInt8 *buffer);

/* ---- Changing (mutable data only) ------------------------------------------ */

/* Cuts the data or extends it with zero bytes. Amortised O(change). */
CF_EXPORT void CFDataSetLength(CFMutableDataRef theData, CFIndex length);
/* Extends the data by extraLength zero bytes; a negative number cuts that many. */
CF_EXPORT void CFDataIncreaseLength(CFMutableDataRef theData, CFIndex extraLength);
/* Adds a copy of the bytes at the end; they may lie in the data itself.
 * Amortised O(length). */
CF_EXPORT void CFDataAppendBytes(CFMutableDataRef theData, const UInt8 *bytes, CFIndex length);
/* Puts newLength bytes in place of the range; they may lie in the data itself.
 * newBytes may be null when newLength is 0. O(length of the data). */
CF_EXPORT void CFDataReplaceBytes(CFMutableDataRef theData, CFRange range, const UInt8 *newBytes,
                                  CFIndex newLength);
/* Takes the bytes of the range out. O(length of the data). */
CF_EXPORT void CFDataDeleteBytes(CFMutableDataRef theData, CFRange range);

/* ---- Searching ------------------------------------------------------------- */

typedef CFOptionFlags CFDataSearchFlags;
enum {
    kCFDataSearchBackwards = 1UL << 0, /* the last match rather than the first */
    kCFDataSearchAnchored = 1UL << 1   /* only a match at the start (or end) of the range */
};
/* Where dataToFind lies whole within searchRange; {kCFNotFound, 0} when it does not.
 * An empty dataToFind is never found. */
CF_EXPORT CFRange CFDataFind(CFDataRef theData, CFDataRef dataToFind, CFRange searchRange,
                             CFDataSearchFlags compareOptions);

#endif
