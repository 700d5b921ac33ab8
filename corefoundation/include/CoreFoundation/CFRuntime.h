/* CFRuntime.h: how a library adds its own reference-counted types.
 *
 * A type is a static CFRuntimeClass; an instance is a CFRuntimeBase followed by
 * the type's own bytes. Half-built objects can be finalised: an instance is
 * zero-filled before its init callback runs.
 */
#ifndef COREFOUNDATION_CFRUNTIME_H
#define COREFOUNDATION_CFRUNTIME_H

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDictionary.h>

/* The first two words of every object. Opaque: only the runtime reads them. */
typedef struct __CFRuntimeBase {
    uintptr_t _cfisa;
    uint64_t _cfinfoa;
} CFRuntimeBase;

#define INIT_CFRUNTIME_BASE(...)                                                                   \
    { 0, 0 }

typedef struct __CFRuntimeClass {
    CFIndex version; /* 0 */
    /* Plain ASCII; the pointer is kept, so the text must outlive the process's use. */
    const char *className;
    /* Called once on a new instance, after it was zero-filled. May be null. */
    void (*init)(CFTypeRef cf);
    /* Reserved; never called. */
    CFTypeRef (*copy)(CFAllocatorRef allocator, CFTypeRef cf);
    /* Called when the last reference goes; frees what the instance owns, not the
     * instance itself. May be null. */
    void (*finalize)(CFTypeRef cf);
    /* Called with two distinct objects of this type; null means identity. */
    Boolean (*equal)(CFTypeRef cf1, CFTypeRef cf2);
    /* Null means a hash of the address. */
    CFHashCode (*hash)(CFTypeRef cf);
    /* What %@ prints; returns a new string, or null for the default. */
    CFStringRef (*copyFormattingDesc)(CFTypeRef cf, CFDictionaryRef formatOptions);
    CFStringRef (*copyDebugDesc)(CFTypeRef cf);
} CFRuntimeClass;

/* What registration returns when the class table is full or the record is null. */
enum { _kCFRuntimeNotATypeID = 0 };

/* Registers the class and returns its identifier, for the rest of the process.
 * The record must live as long as the process. Any thread may call it. */
CF_EXPORT CFTypeID _CFRuntimeRegisterClass(const CFRuntimeClass *cls);
/* The record registered under the identifier, or null. */
CF_EXPORT const CFRuntimeClass *_CFRuntimeGetClassWithTypeID(CFTypeID typeID);
/* A new instance of sizeof(CFRuntimeBase) + extraBytes zero-filled bytes with one
 * reference, its init callback done. Null when memory is out or the type unknown.
 * category is unused. */
CF_EXPORT CFTypeRef _CFRuntimeCreateInstance(CFAllocatorRef allocator, CFTypeID typeID,
                                             CFIndex extraBytes, unsigned char *category);

#endif
