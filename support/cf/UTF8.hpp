// Strings from UTF-8 bytes.
#pragma once

#include "support/cf/Pointer.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace CF {

// Whether the bytes are well-formed UTF-8: no overlong forms, no surrogates, nothing above
// U+10FFFF.
inline bool IsUTF8(std::string_view bytes) noexcept {
    std::size_t i = 0;
    while (i < bytes.size()) {
        const auto lead = static_cast<std::uint8_t>(bytes[i++]);
        if (lead < 0x80) {
            continue;
        }
        if (lead < 0xC2 || lead > 0xF4) {
            return false;
        }
        const std::size_t following = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        if (bytes.size() - i < following) {
            return false;
        }
        // The first of them tells what is overlong, a surrogate, or too large.
        const auto second = static_cast<std::uint8_t>(bytes[i]);
        const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        if (second < lowest || second > highest) {
            return false;
        }
        for (std::size_t end = i++ + following; i < end; ++i) {
            if ((static_cast<std::uint8_t>(bytes[i]) & 0xC0) != 0x80) {
                return false;
            }
        }
    }
    return true;
}

// A new string, which the caller releases; null when the bytes are not UTF-8. Throws
// std::bad_alloc when memory is out, which is the other reason for a null string.
inline CFStringRef CreateFromUTF8(std::string_view bytes) {
    CFStringRef string =
        CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8 *>(bytes.data()),
                                static_cast<CFIndex>(bytes.size()), kCFStringEncodingUTF8, false);
    return string == nullptr && IsUTF8(bytes) ? Made(string) : string;
}

} // namespace CF
