#include "corefoundation/plist/BinaryLeaf.hpp"

#include "corefoundation/CFNumberInternal.hpp"

#include <CoreFoundation/CFDate.h>
#include <CoreFoundation/CFKeyedArchiverUID.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <bit>
#include <cmath>

namespace CFInternal::PropertyList {

namespace {

constexpr unsigned kIntegerMarker = 0x10;
constexpr std::uint8_t kWideIntegerMarker = 0x14;
constexpr std::uint8_t kFloatMarker = 0x22;
constexpr std::uint8_t kDoubleMarker = 0x23;
constexpr std::uint8_t kDateMarker = 0x33;
constexpr unsigned kDataMarker = 0x40;
constexpr unsigned kAsciiMarker = 0x50;
constexpr unsigned kUtf16Marker = 0x60;
constexpr unsigned kUidMarker = 0x80;
constexpr std::uint8_t kFalseMarker = 0x08;
constexpr std::uint8_t kTrueMarker = 0x09;

void AppendUnsigned(ByteBuffer &out, std::uint64_t value) {
    const std::size_t width = WidthOf(value);
    out.push_back(
        static_cast<std::uint8_t>(kIntegerMarker | static_cast<unsigned>(std::countr_zero(width))));
    AppendBigEndian(out, value, width);
}

// Readers take 1, 2 and 4 bytes as unsigned and 8 as signed, so negative numbers take
// 8 and those from 2^63 on 16.
void AppendInteger(ByteBuffer &out, std::int64_t high, std::uint64_t low) {
    if (high == 0 && low <= INT64_MAX) {
        AppendUnsigned(out, low);
    } else if (high == -1 && low > INT64_MAX) {
        AppendUnsigned(out, low);
    } else {
        out.push_back(kWideIntegerMarker);
        AppendBigEndian(out, static_cast<std::uint64_t>(high), 8);
        AppendBigEndian(out, low, 8);
    }
}

void AppendNumber(ByteBuffer &out, CFNumberRef number) {
    std::int64_t high = 0;
    std::uint64_t low = 0;
    if (_CFNumberGetInt128(number, &high, &low)) {
        AppendInteger(out, high, low);
    } else if (CFNumberGetType(number) == kCFNumberFloat32Type) {
        float value = 0;
        (void)CFNumberGetValue(number, kCFNumberFloat32Type, &value);
        out.push_back(kFloatMarker);
        AppendBigEndian(out, std::bit_cast<std::uint32_t>(value), 4);
    } else {
        double value = 0;
        (void)CFNumberGetValue(number, kCFNumberFloat64Type, &value);
        out.push_back(kDoubleMarker);
        AppendBigEndian(out, std::bit_cast<std::uint64_t>(value), 8);
    }
}

void AppendDate(ByteBuffer &out, CFDateRef date) {
    const double seconds = CFDateGetAbsoluteTime(date);
    if (!std::isfinite(seconds)) {
        ThrowUnwritable("A date is not a finite number");
    }
    out.push_back(kDateMarker);
    AppendBigEndian(out, std::bit_cast<std::uint64_t>(seconds), 8);
}

void AppendData(ByteBuffer &out, CFDataRef data) {
    const auto length = static_cast<std::size_t>(CFDataGetLength(data));
    AppendMarker(out, kDataMarker, length);
    if (length != 0) {
        const UInt8 *bytes = CFDataGetBytePtr(data);
        out.insert(out.end(), bytes, bytes + length);
    }
}

void AppendString(ByteBuffer &out, CFStringRef string) {
    const CFIndex length = CFStringGetLength(string);
    const auto count = static_cast<std::size_t>(length);
    const CFRange whole = CFRangeMake(0, length);
    CFIndex used = 0;
    if (CFStringGetBytes(string, whole, kCFStringEncodingASCII, 0, false, nullptr, 0, &used) ==
        length) {
        AppendMarker(out, kAsciiMarker, count);
        const std::size_t start = out.size();
        out.resize(start + count);
        (void)CFStringGetBytes(string, whole, kCFStringEncodingASCII, 0, false, out.data() + start,
                               length, &used);
        return;
    }
    std::vector<UniChar> units(count);
    CFStringGetCharacters(string, whole, units.data());
    AppendMarker(out, kUtf16Marker, count);
    out.reserve(out.size() + 2 * count);
    for (const UniChar unit : units) {
        AppendBigEndian(out, unit, 2);
    }
}

void AppendUid(ByteBuffer &out, CFKeyedArchiverUIDRef uid) {
    const std::uint32_t value = _CFKeyedArchiverUIDGetValue(uid);
    const std::size_t width = WidthOf(value);
    out.push_back(static_cast<std::uint8_t>(kUidMarker | (width - 1)));
    AppendBigEndian(out, value, width);
}

} // namespace

void AppendBigEndian(ByteBuffer &out, std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0;) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

std::size_t WidthOf(std::uint64_t value) {
    if (value <= UINT16_MAX) {
        return value <= UINT8_MAX ? 1 : 2;
    }
    return value <= UINT32_MAX ? 4 : 8;
}

void AppendMarker(ByteBuffer &out, unsigned highBits, std::uint64_t count) {
    constexpr unsigned kCountFollows = 0xF;
    if (count < kCountFollows) {
        out.push_back(static_cast<std::uint8_t>(highBits | static_cast<unsigned>(count)));
    } else {
        out.push_back(static_cast<std::uint8_t>(highBits | kCountFollows));
        AppendUnsigned(out, count);
    }
}

void AppendLeaf(ByteBuffer &out, CFTypeRef leaf) {
    switch (typeIDOf(leaf)) {
    case kBooleanTypeID:
        out.push_back(CFBooleanGetValue(static_cast<CFBooleanRef>(leaf)) ? kTrueMarker
                                                                         : kFalseMarker);
        break;
    case kNumberTypeID:
        AppendNumber(out, static_cast<CFNumberRef>(leaf));
        break;
    case kDateTypeID:
        AppendDate(out, static_cast<CFDateRef>(leaf));
        break;
    case kDataTypeID:
        AppendData(out, static_cast<CFDataRef>(leaf));
        break;
    case kStringTypeID:
        AppendString(out, static_cast<CFStringRef>(leaf));
        break;
    default:
        AppendUid(out, static_cast<CFKeyedArchiverUIDRef>(leaf));
        break;
    }
}

} // namespace CFInternal::PropertyList
