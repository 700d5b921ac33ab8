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
        Require(second != nullptr && CFEqual(first, second));
        CFRelease(second);
        CFRelease(document);
    }
    CFRelease(first);
}

} // namespace FuzzPlist
