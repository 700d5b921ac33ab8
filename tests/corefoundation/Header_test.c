/* The headers and constant strings as a C program sees them. */
#include <CoreFoundation/CFRuntime.h>
#include <CoreFoundation/CoreFoundation.h>

#include "tests/corefoundation/Header_test.h"

static const CFRuntimeClass kRecord = {0, "TestFromC", 0, 0, 0, 0, 0, 0, 0};

CFStringRef ConstantFromC(void) { return CFSTR("constant from C"); }

CFIndex LengthFromC(CFStringRef string) {
    CFMutableStringRef copy = CFStringCreateMutableCopy(kCFAllocatorDefault, 0, string);
    CFStringAppend(copy, CFSTR(" h\xc3\xa9"));
    CFIndex length = CFStringGetLength(copy);
    CFRelease(copy);
    return length;
}

CFTypeID RegisterFromC(void) { return _CFRuntimeRegisterClass(&kRecord); }

CFTypeRef CreateFromC(CFTypeID typeID) {
    return _CFRuntimeCreateInstance(kCFAllocatorDefault, typeID, 8, NULL);
}
