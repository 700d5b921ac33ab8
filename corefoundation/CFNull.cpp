#include "corefoundation/CFInternal.hpp"

#include <CoreFoundation/CFString.h>

struct __CFNull {
    CFRuntimeBase base;
};

namespace {

using namespace CFInternal;

constexpr __CFNull nullObject = {immortalBase(kNullTypeID)};

CFStringRef copyNullDescription(CFTypeRef, CFDictionaryRef) {
    return static_cast<CFStringRef>(CFRetain(CFSTR("<null>")));
}

} // namespace

constinit const CFRuntimeClass CFInternal::kNullClass = {
    0, "CFNull", nullptr, nullptr, nullptr, nullptr, nullptr, copyNullDescription, nullptr};

constinit const CFNullRef kCFNull = &nullObject;

CFTypeID CFNullGetTypeID() { return kNullTypeID; }
