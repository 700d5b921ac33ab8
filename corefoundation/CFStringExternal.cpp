// Strings as data, with a byte order mark where it is needed.
#include "corefoundation/StringStorage.hpp"

#include <CoreFoundation/CFData.h>

CFDataRef CFStringCreateExternalRepresentation(CFAllocatorRef alloc, CFStringRef theString,
                                               CFStringEncoding encoding, UInt8 lossByte) {
    const CFRange all = CFRangeMake(0, CFStringGetLength(theString));
    CFIndex size = 0;
    const CFIndex converted =
        CFStringGetBytes(theString, all, encoding, lossByte, true, nullptr, 0, &size);
    if (converted != all.length || CFStringIsEncodingAvailable(encoding) == 0) {
        return nullptr;
    }
    CFMutableDataRef data = CFDataCreateMutable(alloc, 0);
    if (data == nullptr) {
        return nullptr;
    }
    CFDataSetLength(data, size);
    CFStringGetBytes(theString, all, encoding, lossByte, true, CFDataGetMutableBytePtr(data), size,
                     nullptr);
    CFDataRef result = CFDataCreateCopy(alloc, data);
    CFRelease(data);
    return result;
}

CFStringRef CFStringCreateFromExternalRepresentation(CFAllocatorRef alloc, CFDataRef data,
                                                     CFStringEncoding encoding) {
    return CFStringCreateWithBytes(alloc, CFDataGetBytePtr(data), CFDataGetLength(data), encoding,
                                   true);
}
