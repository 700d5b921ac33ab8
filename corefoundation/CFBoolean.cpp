#include <CoreFoundation/CFNumber.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Description.hpp"

struct __CFBoolean {
    CFRuntimeBase base;
    Boolean value;
};

using namespace CFInternal;

namespace {

constinit const __CFBoolean trueObject = {immortalBase(kBooleanTypeID), TRUE};
constinit const __CFBoolean falseObject = {immortalBase(kBooleanTypeID), FALSE};

CFHashCode hashBoolean(CFTypeRef cf) { return static_cast<CFBooleanRef>(cf)->value; }

CFStringRef describeBoolean(CFTypeRef cf, CFDictionaryRef) {
    return createString(static_cast<CFBooleanRef>(cf)->value ? "true" : "false");
}

} // namespace

// Equality is identity: there are only the two objects.
constinit const CFRuntimeClass CFInternal::kBooleanClass = {
    0, "CFBoolean", nullptr, nullptr, nullptr, nullptr, hashBoolean, describeBoolean, nullptr};

constinit const CFBooleanRef kCFBooleanTrue = &trueObject;
constinit const CFBooleanRef kCFBooleanFalse = &falseObject;

CFTypeID CFBooleanGetTypeID(void) { return kBooleanTypeID; }

Boolean CFBooleanGetValue(CFBooleanRef boolean) {
    requireType(boolean, kBooleanTypeID, __func__);
    return boolean->value;
}
