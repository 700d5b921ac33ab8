/* CFKeyedArchiverUID.h: references between the objects of a keyed archive.
 *
 * In a binary property list a UID is a type of its own; in XML it is a dictionary with
 * the one key "CF$UID". UIDs are immutable, equal when their values are, and may be used
 * by any number of threads.
 */
#ifndef COREFOUNDATION_CFKEYEDARCHIVERUID_H
#define COREFOUNDATION_CFKEYEDARCHIVERUID_H

#include <CoreFoundation/CFBase.h>

typedef const struct __CFKeyedArchiverUID *CFKeyedArchiverUIDRef;

CF_EXPORT CFTypeID _CFKeyedArchiverUIDGetTypeID(void);
/* A new UID; the caller releases it. Null only when memory is out. */
CF_EXPORT CFKeyedArchiverUIDRef _CFKeyedArchiverUIDCreate(CFAllocatorRef allocator, uint32_t value);
/* The index of the object referred to. Null is a programming error and aborts. */
CF_EXPORT uint32_t _CFKeyedArchiverUIDGetValue(CFKeyedArchiverUIDRef uid);

#endif
