#include "corefoundation/plist/Common.hpp"

#include "corefoundation/CFNumberInternal.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFString.h>

namespace CFInternal::PropertyList {

Owned<> MakeArray(CFAllocatorRef allocator, std::span<const void *> members, bool isMutable) {
    const auto count = static_cast<CFIndex>(members.size());
    if (!isMutable) {
        return Own<CFTypeRef>(
            CFArrayCreate(allocator, members.data(), count, &kCFTypeArrayCallBacks));
    }
    auto array = Own(CFArrayCreateMutable(allocator, 0, &kCFTypeArrayCallBacks));
    for (const void *member : members) {
        CFArrayAppendValue(array.get(), member);
    }
    return Owned<>(array.release());
}

Owned<> MakeDictionary(CFAllocatorRef allocator, std::span<const void *> keys,
                       std::span<const void *> values, bool isMutable) {
    const auto count = static_cast<CFIndex>(keys.size());
    if (!isMutable) {
        return Own<CFTypeRef>(CFDictionaryCreate(allocator, keys.data(), values.data(), count,
                                                 &kCFTypeDictionaryKeyCallBacks,
                                                 &kCFTypeDictionaryValueCallBacks));
    }
    auto dictionary = Own(CFDictionaryCreateMutable(allocator, 0, &kCFTypeDictionaryKeyCallBacks,
                                                    &kCFTypeDictionaryValueCallBacks));
    for (std::size_t i = 0; i < keys.size(); ++i) {
        CFDictionaryAddValue(dictionary.get(), keys[i], values[i]);
    }
    return Owned<>(dictionary.release());
}

Owned<> MakeData(CFAllocatorRef allocator, Bytes bytes, bool isMutable) {
    const auto length = static_cast<CFIndex>(bytes.size());
    if (!isMutable) {
        return Own<CFTypeRef>(CFDataCreate(allocator, bytes.data(), length));
    }
    auto data = Own(CFDataCreateMutable(allocator, 0));
    if (length != 0) {
        CFDataAppendBytes(data.get(), bytes.data(), length);
    }
    return Owned<>(data.release());
}

Owned<> MakeString(CFAllocatorRef allocator, Owned<CFStringRef> string, bool isMutable) {
    if (!isMutable) {
        return Owned<>(string.release());
    }
    return Own<CFTypeRef>(CFStringCreateMutableCopy(allocator, 0, string.get()));
}

Owned<> MakeInteger(CFAllocatorRef allocator, std::int64_t high, std::uint64_t low) {
    return Own<CFTypeRef>(_CFNumberCreateWithInt128(allocator, high, low));
}

} // namespace CFInternal::PropertyList
