#include "support/cf/Extensions.hpp"

#include "support/cf/Data.hpp"
#include "support/cf/Pointer.hpp"

#include <cstdlib>
#include <exception>
#include <string>

namespace {

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The digits of up to three bytes, with padding for the ones that are missing.
void appendBase64Group(std::string &text, std::span<const std::uint8_t> bytes) {
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        bits = bits << 8 | (i < bytes.size() ? bytes[i] : 0U);
    }
    for (std::size_t digit = 0; digit < 4; ++digit) {
        const bool isPadding = digit > bytes.size();
        text += isPadding ? '=' : kBase64Digits[bits >> (18 - 6 * digit) & 0x3F];
    }
}

std::string base64(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    while (!bytes.empty()) {
        const std::size_t count = bytes.size() < 3 ? bytes.size() : 3;
        appendBase64Group(text, bytes.first(count));
        bytes = bytes.subspan(count);
    }
    return text;
}

void setValue(const void *key, const void *value, void *destination) {
    CFDictionarySetValue(static_cast<CFMutableDictionaryRef>(destination), key, value);
}

} // namespace

CFErrorRef CFErrorCreatePOSIXError(CFAllocatorRef allocator, CFIndex code,
                                   CFDictionaryRef userInfo) {
    return CFErrorCreate(allocator, kCFErrorDomainPOSIX, code, userInfo);
}

Boolean CFErrorDomainAndCodeMatch(CFErrorRef error, CFStringRef domain, CFIndex code) {
    return error != nullptr && domain != nullptr && CFErrorGetCode(error) == code &&
           CFEqual(CFErrorGetDomain(error), domain);
}

void CFDictionarySetValues(CFMutableDictionaryRef destination, CFDictionaryRef source) {
    // Setting the pairs of a dictionary in itself would change it under the enumeration.
    if (source != nullptr && source != destination) {
        CFDictionaryApplyFunction(source, setValue, destination);
    }
}

char *CFStringCopyCString(CFStringRef string, CFStringEncoding encoding) {
    if (string == nullptr) {
        return nullptr;
    }
    const CFIndex size = CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), encoding);
    if (size == kCFNotFound) {
        return nullptr;
    }
    auto *text = static_cast<char *>(std::malloc(static_cast<std::size_t>(size) + 1));
    if (text != nullptr && !CFStringGetCString(string, text, size + 1, encoding)) {
        std::free(text);
        return nullptr;
    }
    return text;
}

CFDataRef CFDataCreateFromUTF8String(CFAllocatorRef allocator, CFStringRef string) {
    // Any loss byte makes lone surrogates U+FFFD instead of failing.
    return string == nullptr ? nullptr
                             : CFStringCreateExternalRepresentation(allocator, string,
                                                                    kCFStringEncodingUTF8, '?');
}

CFStringRef CFDataCopyUTF8String(CFDataRef data) {
    return data == nullptr
               ? nullptr
               : CFStringCreateWithBytes(kCFAllocatorDefault, CFDataGetBytePtr(data),
                                         CFDataGetLength(data), kCFStringEncodingUTF8, false);
}

CFStringRef CFDataCopyBase64Representation(CFDataRef data) {
    if (data == nullptr) {
        return nullptr;
    }
    try {
        const std::string text = base64(CF::Data(data).GetBytes());
        return CFStringCreateWithBytes(
            kCFAllocatorDefault, reinterpret_cast<const UInt8 *>(text.data()),
            static_cast<CFIndex>(text.size()), kCFStringEncodingASCII, false);
    } catch (const std::exception &) {
        return nullptr; // memory is out, as other functions of this kind say it
    }
}
