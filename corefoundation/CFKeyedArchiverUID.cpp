#include <CoreFoundation/CFKeyedArchiverUID.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Description.hpp"
#include "corefoundation/MixHash.hpp"

struct __CFKeyedArchiverUID {
    CFRuntimeBase base;
    uint32_t value;
};

using namespace CFInternal;

namespace {

Boolean equalUIDs(CFTypeRef cf1, CFTypeRef cf2) {
    return static_cast<CFKeyedArchiverUIDRef>(cf1)->value ==
           static_cast<CFKeyedArchiverUIDRef>(cf2)->value;
}

CFHashCode hashUID(CFTypeRef cf) { return mixHash(static_cast<CFKeyedArchiverUIDRef>(cf)->value); }

CFStringRef describeUID(CFTypeRef cf, CFDictionaryRef) {
    return createString(
        "{value = " + std::to_string(static_cast<CFKeyedArchiverUIDRef>(cf)->value) + "}");
}

} // namespace

constinit const CFRuntimeClass CFInternal::kKeyedArchiverUIDClass = {
    0, "CFKeyedArchiverUID", nullptr, nullptr, nullptr, equalUIDs, hashUID, describeUID, nullptr};

CFTypeID _CFKeyedArchiverUIDGetTypeID(void) { return kKeyedArchiverUIDTypeID; }

CFKeyedArchiverUIDRef _CFKeyedArchiverUIDCreate(CFAllocatorRef allocator, uint32_t value) {
    auto *uid = static_cast<__CFKeyedArchiverUID *>(allocateInstance(
        allocator, kKeyedArchiverUIDTypeID, sizeof(__CFKeyedArchiverUID) - sizeof(CFRuntimeBase)));
    if (uid != nullptr) {
        uid->value = value;
    }
    return uid;
}

uint32_t _CFKeyedArchiverUIDGetValue(CFKeyedArchiverUIDRef uid) {
    requireType(uid, kKeyedArchiverUIDTypeID, __func__);
    return uid->value;
}
