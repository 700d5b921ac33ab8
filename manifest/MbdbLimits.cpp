#include "manifest/MbdbLimits.hpp"

#include "Kelvane/Error.hpp"
#include "support/cf/Dictionary.hpp"

namespace Kelvane {

namespace {

constexpr auto kLimit = static_cast<CFIndex>(kMbdbByteStringLimit);
constexpr CFIndex kMostBytesOfUnit = 3;

[[noreturn]] void throwTooMuch(const char *format, CFIndex number) {
    throw Error(kKVErrorInvalidArgument, nullptr, CF::String(format), static_cast<long>(number));
}

void requireText(CFStringRef text) {
    const CFIndex units = CFStringGetLength(text);
    if (units < kLimit / kMostBytesOfUnit) {
        return; // which saves nearly all texts from being measured
    }
    CFIndex bytes = 0;
    CFStringGetBytes(text, CFRangeMake(0, units), kCFStringEncodingUTF8, 0, false, nullptr, 0,
                     &bytes);
    if (bytes >= kLimit) {
        throwTooMuch("Text is too long for a binary manifest (%ld bytes)", bytes);
    }
}

void requireData(CFDataRef data) {
    if (CFDataGetLength(data) >= kLimit) {
        throwTooMuch("Data is too long for a binary manifest (%ld bytes)", CFDataGetLength(data));
    }
}

bool hasUTF8(CFStringRef text) {
    const CFIndex units = CFStringGetLength(text);
    return CFStringGetBytes(text, CFRangeMake(0, units), kCFStringEncodingUTF8, 0, false, nullptr,
                            0, nullptr) == units;
}

void requireProperties(CFDictionaryRef properties) {
    const CFIndex count = CFDictionaryGetCount(properties);
    if (count > kMostMbdbProperties) {
        throwTooMuch("Too many extended attributes for a binary manifest (%ld)", count);
    }
    CF::Dictionary(properties).ForEach([](CFTypeRef name, CFTypeRef value) {
        if (CFGetTypeID(name) != CFStringGetTypeID() || CFGetTypeID(value) != CFDataGetTypeID() ||
            !hasUTF8(static_cast<CFStringRef>(name))) {
            throw Error(kKVErrorInvalidArgument, nullptr,
                        "Extended attributes of a binary manifest are named by text and hold data");
        }
        requireText(static_cast<CFStringRef>(name));
        requireData(static_cast<CFDataRef>(value));
    });
}

} // namespace

void RequireMbdbRecord(const KVManifestEntryClass &entry) {
    requireText(entry.domain.get());
    requireText(entry.relativePath.get());
    requireText(entry.target.get());
    requireData(entry.dataHash.get());
    requireData(entry.encryptionData.get());
    requireProperties(entry.properties.get());
}

} // namespace Kelvane
