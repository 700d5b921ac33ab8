/* CFBase.h: scalar types, ownership rules and the polymorphic object functions.
 *
 * Ownership. A function whose name contains Create or Copy returns a reference
 * that the caller releases with CFRelease. A function whose name contains Get
 * returns a borrowed reference, valid as long as the object it came from.
 *
 * Memory. When memory is out, functions named Create or Copy return null, and functions
 * that change an object leave it as it was and throw std::bad_alloc, since they have no
 * other way to say so. In a program without a handler for it, this ends the process.
 *
 * Threads. Reference counting is atomic. Immutable objects may be read from any
 * number of threads; a mutable object is used by one thread at a time.
 */
#ifndef COREFOUNDATION_CFBASE_H
#define COREFOUNDATION_CFBASE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define CF_EXTERN_C_BEGIN extern "C" {
#define CF_EXTERN_C_END }
#define CF_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define CF_EXTERN_C_BEGIN
#define CF_EXTERN_C_END
#define CF_EXPORT extern __attribute__((visibility("default")))
#endif

#define CF_INLINE static inline __attribute__((always_inline))
/* Lets the compiler check nothing: %@ is unknown to it. Kept so that sources
 * written for the platform's framework compile unchanged. */
#define CF_FORMAT_FUNCTION(F, A)

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef unsigned char Boolean;
typedef uint8_t UInt8;
typedef int8_t SInt8;
typedef uint16_t UInt16;
typedef int16_t SInt16;
typedef uint32_t UInt32;
typedef int32_t SInt32;
typedef uint64_t UInt64;
typedef int64_t SInt64;
typedef uint16_t UniChar;
typedef uint32_t UTF32Char;
typedef float Float32;
typedef double Float64;

/* A count, length or index; -1 (kCFNotFound) says "none". */
typedef signed long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned long CFOptionFlags;
typedef unsigned long CFHashCode;

/* A reference to any object. */
typedef const void *CFTypeRef;
typedef const struct __CFString *CFStringRef;
typedef struct __CFString *CFMutableStringRef;
typedef const struct __CFAllocator *CFAllocatorRef;
typedef const struct __CFNull *CFNullRef;
/* One of the property-list types: string, data, number, boolean, date, array, dictionary. */
typedef CFTypeRef CFPropertyListRef;

enum { kCFNotFound = -1 };

typedef CFIndex CFComparisonResult;
enum { kCFCompareLessThan = -1L, kCFCompareEqualTo = 0, kCFCompareGreaterThan = 1 };
typedef CFComparisonResult (*CFComparatorFunction)(const void *val1, const void *val2,
                                                   void *context);

typedef struct {
    CFIndex location;
    CFIndex length;
} CFRange;

CF_INLINE CFRange CFRangeMake(CFIndex location, CFIndex length) {
    CFRange range;
    range.location = location;
    range.length = length;
    return range;
}

/* ---- Objects of any type ------------------------------------------------ */

/* Type identifier of an object. Null is a programming error and aborts. */
CF_EXPORT CFTypeID CFGetTypeID(CFTypeRef cf);
/* A new string naming the type ("CFString"); the caller releases it. Null for an
 * identifier that is none. */
CF_EXPORT CFStringRef CFCopyTypeIDDescription(CFTypeID typeID);
/* Adds a reference and returns its argument. Null aborts. */
CF_EXPORT CFTypeRef CFRetain(CFTypeRef cf);
/* Drops a reference; the last one finalises and frees the object. Null aborts,
 * and so does a release of an object whose count is already zero. */
CF_EXPORT void CFRelease(CFTypeRef cf);
/* The number of references; a large constant for objects that are never freed. */
CF_EXPORT CFIndex CFGetRetainCount(CFTypeRef cf);
/* True when both are the same object, or of one type whose equality says so. Null
 * aborts. */
CF_EXPORT Boolean CFEqual(CFTypeRef cf1, CFTypeRef cf2);
/* Equal objects have equal hashes, unless the type has no hash callback (address).
 * Hashes of content differ from run to run, so they are not to be stored. */
CF_EXPORT CFHashCode CFHash(CFTypeRef cf);
/* A new string describing the object: the type's formatting description, its
 * debug description when there is none, else "<CFType 0x...>". */
CF_EXPORT CFStringRef CFCopyDescription(CFTypeRef cf);
/* The allocator that the object came from; borrowed. */
CF_EXPORT CFAllocatorRef CFGetAllocator(CFTypeRef cf);

/* ---- Allocators ---------------------------------------------------------- */

/* Null and kCFAllocatorDefault mean the thread's default, which is malloc. */
CF_EXPORT const CFAllocatorRef kCFAllocatorDefault;
CF_EXPORT const CFAllocatorRef kCFAllocatorSystemDefault;
CF_EXPORT const CFAllocatorRef kCFAllocatorMalloc;
CF_EXPORT const CFAllocatorRef kCFAllocatorMallocZone;
/* Allocates nothing and frees nothing: the deallocator of no-copy constructors
 * whose bytes belong to somebody else. */
CF_EXPORT const CFAllocatorRef kCFAllocatorNull;
/* For CFAllocatorCreate only: the context itself provides the memory. */
CF_EXPORT const CFAllocatorRef kCFAllocatorUseContext;

typedef const void *(*CFAllocatorRetainCallBack)(const void *info);
typedef void (*CFAllocatorReleaseCallBack)(const void *info);
typedef CFStringRef (*CFAllocatorCopyDescriptionCallBack)(const void *info);
typedef void *(*CFAllocatorAllocateCallBack)(CFIndex allocSize, CFOptionFlags hint, void *info);
typedef void *(*CFAllocatorReallocateCallBack)(void *ptr, CFIndex newsize, CFOptionFlags hint,
                                               void *info);
typedef void (*CFAllocatorDeallocateCallBack)(void *ptr, void *info);
typedef CFIndex (*CFAllocatorPreferredSizeCallBack)(CFIndex size, CFOptionFlags hint, void *info);
typedef struct {
    CFIndex version; /* 0 */
    void *info;
    CFAllocatorRetainCallBack retain;
    CFAllocatorReleaseCallBack release;
    CFAllocatorCopyDescriptionCallBack copyDescription;
    CFAllocatorAllocateCallBack allocate;
    CFAllocatorReallocateCallBack reallocate;
    CFAllocatorDeallocateCallBack deallocate;
    CFAllocatorPreferredSizeCallBack preferredSize;
} CFAllocatorContext;

CF_EXPORT CFTypeID CFAllocatorGetTypeID(void);
CF_EXPORT CFAllocatorRef CFAllocatorGetDefault(void);
/* A new allocator over the callbacks; allocate may be null (then it yields null). */
CF_EXPORT CFAllocatorRef CFAllocatorCreate(CFAllocatorRef allocator, CFAllocatorContext *context);
/* Uninitialised memory of size bytes, or null when size is below 1 or memory is out. */
CF_EXPORT void *CFAllocatorAllocate(CFAllocatorRef allocator, CFIndex size, CFOptionFlags hint);
CF_EXPORT void *CFAllocatorReallocate(CFAllocatorRef allocator, void *ptr, CFIndex newsize,
                                      CFOptionFlags hint);
/* Null ptr does nothing. */
CF_EXPORT void CFAllocatorDeallocate(CFAllocatorRef allocator, void *ptr);

/* ---- Null ---------------------------------------------------------------- */

CF_EXPORT const CFNullRef kCFNull;
CF_EXPORT CFTypeID CFNullGetTypeID(void);

#endif
