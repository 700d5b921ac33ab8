// A type of the tests' own, whose callbacks leave traces.
#pragma once

#include <CoreFoundation/CFRuntime.h>
#include <CoreFoundation/CoreFoundation.h>

struct TestObject {
    CFRuntimeBase base;
    int value;
    bool initialized;
};

namespace TestClass {

inline int finalized = 0;

inline TestObject *Body(CFTypeRef cf) { return static_cast<TestObject *>(const_cast<void *>(cf)); }

// Registered anew for each different record.
inline CFTypeRef Create(CFTypeID typeID, int value = 0, CFAllocatorRef allocator = nullptr) {
    CFTypeRef object = _CFRuntimeCreateInstance(
        allocator, typeID, sizeof(TestObject) - sizeof(CFRuntimeBase), nullptr);
    Body(object)->value = value;
    return object;
}

inline void Init(CFTypeRef cf) { Body(cf)->initialized = true; }
inline void Finalize(CFTypeRef) { ++finalized; }
inline Boolean Equal(CFTypeRef a, CFTypeRef b) { return Body(a)->value == Body(b)->value; }
inline CFHashCode Hash(CFTypeRef cf) { return static_cast<CFHashCode>(Body(cf)->value); }

inline CFStringRef CopyFormatted(CFTypeRef cf, CFDictionaryRef options) {
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("formatted %d%s"), Body(cf)->value,
                                    options == nullptr ? "" : " with options");
}
inline CFStringRef CopyDebug(CFTypeRef cf) {
    return CFStringCreateWithFormat(nullptr, nullptr, CFSTR("debug %d"), Body(cf)->value);
}
inline CFStringRef CopyNoFormatted(CFTypeRef, CFDictionaryRef) { return nullptr; }
inline CFStringRef CopyNoDebug(CFTypeRef) { return nullptr; }

} // namespace TestClass
