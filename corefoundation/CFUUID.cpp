#include <CoreFoundation/CFUUID.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Checks.hpp"
#include "corefoundation/ContentHash.hpp"
#include "corefoundation/Description.hpp"

#include <CoreFoundation/CFString.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <sys/random.h>

struct __CFUUID {
    CFRuntimeBase base;
    CFUUIDBytes bytes;
};

using namespace CFInternal;

namespace {

constexpr std::size_t kByteCount = 16;
static_assert(sizeof(CFUUIDBytes) == kByteCount);
using ByteArray = std::array<UInt8, kByteCount>;
// 32 digits and 4 hyphens.
constexpr std::size_t kTextLength = 36;

bool isHyphenAt(std::size_t position) {
    return position == 8 || position == 13 || position == 18 || position == 23;
}

ByteArray arrayOf(const CFUUIDBytes &bytes) {
    ByteArray result;
    std::memcpy(result.data(), &bytes, kByteCount);
    return result;
}

CFUUIDBytes bytesOf(const ByteArray &array) {
    CFUUIDBytes bytes;
    std::memcpy(&bytes, array.data(), kByteCount);
    return bytes;
}

ByteArray randomBytes() {
    ByteArray bytes{};
    std::size_t filled = 0;
    while (filled < kByteCount) {
        const ssize_t got = getrandom(bytes.data() + filled, kByteCount - filled, 0);
        require(got >= 0 || errno == EINTR, __func__, "no random bytes");
        filled += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    return bytes;
}

std::string textOf(const CFUUIDBytes &bytes) {
    std::string text;
    const ByteArray array = arrayOf(bytes);
    for (const UInt8 &byte : array) {
        if (isHyphenAt(text.size())) {
            text += '-';
        }
        appendHex(text, &byte, 1, "0123456789ABCDEF");
    }
    return text;
}

std::optional<unsigned> digitValue(char c) {
    if (c >= '0' && c <= '9') {
        return static_cast<unsigned>(c - '0');
    }
    if (c >= 'a' && c <= 'f') {
        return static_cast<unsigned>(c - 'a' + 10);
    }
    if (c >= 'A' && c <= 'F') {
        return static_cast<unsigned>(c - 'A' + 10);
    }
    return std::nullopt;
}

std::optional<ByteArray> parse(const std::string &text) {
    ByteArray bytes{};
    std::size_t digits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto digit = digitValue(text[i]);
        if (isHyphenAt(i) ? text[i] != '-' : !digit.has_value()) {
            return std::nullopt;
        }
        if (digit.has_value()) {
            UInt8 &byte = bytes[digits++ / 2];
            byte = static_cast<UInt8>(byte * 16U + *digit);
        }
    }
    return bytes;
}

CFUUIDRef createUUID(CFAllocatorRef allocator, const CFUUIDBytes &bytes) {
    auto *uuid = static_cast<__CFUUID *>(
        allocateInstance(allocator, kUUIDTypeID, sizeof(__CFUUID) - sizeof(CFRuntimeBase)));
    if (uuid != nullptr) {
        uuid->bytes = bytes;
    }
    return uuid;
}

CFUUIDRef constantUUID(const CFUUIDBytes &bytes) {
    static std::mutex mutex;
    // Never freed: the objects are handed out for the rest of the process.
    static auto &constants = *new std::map<ByteArray, __CFUUID>;
    const std::lock_guard lock(mutex);
    const __CFUUID constant = {immortalBase(kUUIDTypeID), bytes};
    return &constants.emplace(arrayOf(bytes), constant).first->second;
}

Boolean equalUUIDs(CFTypeRef cf1, CFTypeRef cf2) {
    return arrayOf(static_cast<CFUUIDRef>(cf1)->bytes) ==
           arrayOf(static_cast<CFUUIDRef>(cf2)->bytes);
}

CFHashCode hashUUID(CFTypeRef cf) {
    return hashBytes(arrayOf(static_cast<CFUUIDRef>(cf)->bytes).data(), kByteCount);
}

CFStringRef describeUUID(CFTypeRef cf, CFDictionaryRef) {
    std::array<char, 40> address{};
    std::snprintf(address.data(), address.size(), "<CFUUID %p> ", cf);
    return createString(address.data() + textOf(static_cast<CFUUIDRef>(cf)->bytes));
}

} // namespace

constinit const CFRuntimeClass CFInternal::kUUIDClass = {
    0, "CFUUID", nullptr, nullptr, nullptr, equalUUIDs, hashUUID, describeUUID, nullptr};

CFTypeID CFUUIDGetTypeID(void) { return kUUIDTypeID; }

CFUUIDRef CFUUIDCreate(CFAllocatorRef alloc) {
    ByteArray bytes = randomBytes();
    // RFC 4122, 4.4: version 4 and the variant of that RFC.
    bytes[6] = static_cast<UInt8>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<UInt8>((bytes[8] & 0x3F) | 0x80);
    return createUUID(alloc, bytesOf(bytes));
}

CFUUIDRef CFUUIDCreateWithBytes(CFAllocatorRef alloc, UInt8 byte0, UInt8 byte1, UInt8 byte2,
                                UInt8 byte3, UInt8 byte4, UInt8 byte5, UInt8 byte6, UInt8 byte7,
                                UInt8 byte8, UInt8 byte9, UInt8 byte10, UInt8 byte11, UInt8 byte12,
                                UInt8 byte13, UInt8 byte14, UInt8 byte15) {
    return createUUID(alloc, {byte0, byte1, byte2, byte3, byte4, byte5, byte6, byte7, byte8, byte9,
                              byte10, byte11, byte12, byte13, byte14, byte15});
}

CFUUIDRef CFUUIDCreateFromUUIDBytes(CFAllocatorRef alloc, CFUUIDBytes bytes) {
    return createUUID(alloc, bytes);
}

CFUUIDRef CFUUIDCreateFromString(CFAllocatorRef alloc, CFStringRef uuidStr) {
    if (uuidStr == nullptr || CFStringGetLength(uuidStr) != kTextLength) {
        return nullptr;
    }
    return nullWhenOutOfMemory([&] {
        const std::string text = utf8Of(uuidStr);
        const auto bytes = text.size() == kTextLength ? parse(text) : std::nullopt;
        return bytes.has_value() ? createUUID(alloc, bytesOf(*bytes)) : nullptr;
    });
}

CFStringRef CFUUIDCreateString(CFAllocatorRef alloc, CFUUIDRef uuid) {
    requireType(uuid, kUUIDTypeID, __func__);
    return nullWhenOutOfMemory([&] {
        return CFStringCreateWithCString(alloc, textOf(uuid->bytes).c_str(),
                                         kCFStringEncodingASCII);
    });
}

CFUUIDBytes CFUUIDGetUUIDBytes(CFUUIDRef uuid) {
    requireType(uuid, kUUIDTypeID, __func__);
    return uuid->bytes;
}

CFUUIDRef CFUUIDGetConstantUUIDWithBytes(CFAllocatorRef, UInt8 byte0, UInt8 byte1, UInt8 byte2,
                                         UInt8 byte3, UInt8 byte4, UInt8 byte5, UInt8 byte6,
                                         UInt8 byte7, UInt8 byte8, UInt8 byte9, UInt8 byte10,
                                         UInt8 byte11, UInt8 byte12, UInt8 byte13, UInt8 byte14,
                                         UInt8 byte15) {
    return constantUUID({byte0, byte1, byte2, byte3, byte4, byte5, byte6, byte7, byte8, byte9,
                         byte10, byte11, byte12, byte13, byte14, byte15});
}
