// Read, write, read: the second graph must equal the first.
#pragma once

#include "fuzz/Require.hpp"

#include <CoreFoundation/CFPropertyList.h>
#include <cstdint>
#include <cstring>

namespace FuzzPlist {

using Fuzz::Require;

inline CFTypeRef ReadBytes(const std::uint8_t *bytes, std::size_t size) {
    CFErrorRef error = nullptr;
    CFDataRef data = CFDataCreate(nullptr, bytes, static_cast<CFIndex>(size));
    CFTypeRef root = CFPropertyListCreateWithData(nullptr, data, 0, nullptr, &error);
    CFRelease(data);
    // An object or an error, never both nor neither.
    Require((root == nullptr) == (error != nullptr));
    if (error != nullptr) {
        CFRelease(error);
    }
    return root;
}

inline bool SameBytes(CFDataRef a, CFDataRef b) {
    return a != nullptr && b != nullptr && CFEqual(a, b) != 0;
}

// Nothing is lost but fractions of seconds, which XML has no place for: what differs for them
// is written alike.
inline bool IsSame(CFTypeRef first, CFTypeRef second, CFDataRef document,
                   CFPropertyListFormat format) {
    if (second == nullptr || CFEqual(first, second)) {
        return second != nullptr;
    }
    const char date[] = "<date>";
    const UInt8 *bytes = CFDataGetBytePtr(document);
    const bool hasDate = memmem(bytes, static_cast<std::size_t>(CFDataGetLength(document)), date,
                                sizeof date - 1) != nullptr;
    CFDataRef again = CFPropertyListCreateData(nullptr, second, format, 0, nullptr);
    const bool same = hasDate && SameBytes(document, again);
    if (again != nullptr) {
        CFRelease(again);
    }
    return same && format == kCFPropertyListXMLFormat_v1_0;
}

inline void CheckRoundTrip(const std::uint8_t *bytes, std::size_t size,
                           CFPropertyListFormat format) {
    CFTypeRef first = ReadBytes(bytes, size);
    if (first == nullptr) {
        return;
    }
    CFDataRef document = CFPropertyListCreateData(nullptr, first, format, 0, nullptr);
    // Null objects are read and not written; nothing else is lost.
    Require(document != nullptr || !CFPropertyListIsValid(first, format));
    if (document != nullptr) {
        CFTypeRef second = ReadBytes(CFDataGetBytePtr(document),
                                     static_cast<std::size_t>(CFDataGetLength(document)));
        Require(IsSame(first, second, document, format));
        CFRelease(second);
        CFRelease(document);
    }
    CFRelease(first);
}

} // namespace FuzzPlist
