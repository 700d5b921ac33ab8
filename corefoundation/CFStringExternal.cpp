// Strings as data, with a byte order mark where it is needed.
#include "corefoundation/Checks.hpp"
#include "corefoundation/StringStorage.hpp"

#include <CoreFoundation/CFData.h>

using namespace CFInternal;

CFDataRef CFStringCreateExternalRepresentation(CFAllocatorRef alloc, CFStringRef theString,
                                               CFStringEncoding encoding, UInt8 lossByte) {
    const CFRange all = CFRangeMake(0, CFStringGetLength(theString));
    CFIndex size = 0;
    const CFIndex converted =
        CFStringGetBytes(theString, all, encoding, lossByte, true, nullptr, 0, &size);
    if (converted != all.length || CFStringIsEncodingAvailable(encoding) == 0) {
        return nullptr;
    }
    return nullWhenOutOfMemory([&]() -> CFDataRef {
        const Owner data(CFDataCreateMutable(alloc, 0));
        if (data.get() == nullptr) {
            return nullptr;
        }
        CFDataSetLength(data.get(), size);
        CFStringGetBytes(theString, all, encoding, lossByte, true,
                         CFDataGetMutableBytePtr(data.get()), size, nullptr);
        return CFDataCreateCopy(alloc, data.get());
    });
}

CFStringRef CFStringCreateFromExternalRepresentation(CFAllocatorRef alloc, CFDataRef data,
                                                     CFStringEncoding encoding) {
    return CFStringCreateWithBytes(alloc, CFDataGetBytePtr(data), CFDataGetLength(data), encoding,
                                   true);
}
