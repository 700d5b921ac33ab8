#include <CoreFoundation/CFNumber.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/CFNumberInternal.hpp"
#include "corefoundation/Checks.hpp"
#include "corefoundation/Description.hpp"
#include "corefoundation/NumberValue.hpp"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

// The header's flags hold the canonical type, or kWideType, which makes it a WideNumber.
// The object is not larger than its class needs: a backup's manifest holds millions.
struct __CFNumber {
    CFRuntimeBase base;
    UInt64 bits; // of the integer, sign-extended, or of the double
};

using namespace CFInternal;

namespace {

// An integer beyond 64 signed bits.
constexpr std::uint8_t kWideType = kCFNumberSInt128Type;

struct WideNumber : __CFNumber {
    SInt64 high;
};

constexpr std::size_t kHeaderSize = sizeof(CFRuntimeBase);

constexpr CFRuntimeBase realBase = immortalBase(kNumberTypeID, kCFNumberFloat64Type);
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constinit const __CFNumber positiveInfinity = {realBase, std::bit_cast<UInt64>(kInfinity)};
constinit const __CFNumber negativeInfinity = {realBase, std::bit_cast<UInt64>(-kInfinity)};
constinit const __CFNumber notANumber = {
    realBase, std::bit_cast<UInt64>(std::numeric_limits<double>::quiet_NaN())};

// Counts, flags, modes and user numbers are mostly small: they share constant objects.
constexpr SInt64 kFirstShared = -1;
constexpr std::size_t kSharedCount = 514;
using SharedNumbers = std::array<__CFNumber, kSharedCount>;

constexpr SharedNumbers makeSharedNumbers(CFNumberType type) {
    SharedNumbers numbers{};
    for (std::size_t i = 0; i < kSharedCount; ++i) {
        const SInt64 value = kFirstShared + static_cast<SInt64>(i);
        numbers[i] = {immortalBase(kNumberTypeID, static_cast<std::uint8_t>(type)),
                      static_cast<UInt64>(value)};
    }
    return numbers;
}
constinit const SharedNumbers sharedSInt32 = makeSharedNumbers(kCFNumberSInt32Type);
constinit const SharedNumbers sharedSInt64 = makeSharedNumbers(kCFNumberSInt64Type);

// The constant object of the value, or null.
CFNumberRef sharedNumber(CFNumberType type, SInt64 value) {
    const UInt64 index = static_cast<UInt64>(value) - static_cast<UInt64>(kFirstShared);
    if (index >= kSharedCount) {
        return nullptr;
    }
    if (type == kCFNumberSInt32Type) {
        return &sharedSInt32[index];
    }
    return type == kCFNumberSInt64Type ? &sharedSInt64[index] : nullptr;
}

CFNumberRef createNumber(CFAllocatorRef allocator, CFNumberType type, UInt64 bits) {
    auto *number = static_cast<__CFNumber *>(allocateInstance(allocator, kNumberTypeID,
                                                              sizeof(__CFNumber) - kHeaderSize,
                                                              static_cast<std::uint8_t>(type)));
    if (number != nullptr) {
        number->bits = bits;
    }
    return number;
}

CFNumberRef createInteger(CFAllocatorRef allocator, CFNumberType type, SInt64 value) {
    CFNumberRef shared = sharedNumber(type, value);
    return shared != nullptr ? shared : createNumber(allocator, type, static_cast<UInt64>(value));
}

Int128 joinWords(SInt64 high, UInt64 low) {
    // Shifting a negative number left is well defined from C++20 on.
    return (static_cast<Int128>(high) << 64) | static_cast<Int128>(low);
}

NumberValue valueOf(CFNumberRef number) {
    const std::uint8_t type = flagsOf(number);
    if (type == kWideType) {
        const auto *wide = static_cast<const WideNumber *>(number);
        return NumberValue::Integer(joinWords(wide->high, wide->bits));
    }
    if (isFloatNumberType(type)) {
        return NumberValue::Real(std::bit_cast<double>(number->bits));
    }
    return NumberValue::Integer(static_cast<SInt64>(number->bits));
}

CFNumberRef checked(CFNumberRef number, const char *function) {
    requireType(number, kNumberTypeID, function);
    return number;
}

// A wide integer passes for the widest public type.
CFNumberType publicTypeOf(CFNumberRef number) {
    const std::uint8_t type = flagsOf(number);
    return type == kWideType ? CFNumberType{kCFNumberSInt64Type} : CFNumberType{type};
}

std::string integerText(Int128 value) {
    std::array<char, 48> digits{};
    std::size_t at = digits.size();
    // Negative remainders reach the lowest value too.
    const bool negative = value < 0;
    do {
        const int digit = static_cast<int>(value % 10);
        digits[--at] = static_cast<char>('0' + (digit < 0 ? -digit : digit));
        value /= 10;
    } while (value != 0);
    if (negative) {
        digits[--at] = '-';
    }
    return {digits.data() + at, digits.size() - at};
}

// The shortest text that reads back as the same value, independent of locale.
template <class Real>
std::string realText(Real value) {
    if (std::isnan(value)) {
        return "nan";
    }
    std::array<char, 64> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value);
    return {text.data(), end.ptr};
}

// As writeNumber, for the type that is not public.
bool writeWide(const NumberValue &value, void *destination) {
    constexpr double kLimit = 0x1p127;
    Int128 integer = value.integer;
    bool exact = !value.isFloat;
    if (value.isFloat) {
        const double whole = std::isnan(value.real) ? 0 : std::trunc(value.real);
        constexpr Int128 kLowest = Int128{std::numeric_limits<SInt64>::min()} * (Int128{1} << 64);
        integer = whole < -kLimit   ? kLowest
                  : whole >= kLimit ? -(kLowest + 1)
                                    : static_cast<Int128>(whole);
        exact = static_cast<double>(integer) == value.real;
    }
    const CFSInt128 words = {static_cast<SInt64>(integer >> 64), static_cast<UInt64>(integer)};
    std::memcpy(destination, &words, sizeof words);
    return exact;
}

Boolean equalNumbers(CFTypeRef cf1, CFTypeRef cf2) {
    return compareNumbers(valueOf(static_cast<CFNumberRef>(cf1)),
                          valueOf(static_cast<CFNumberRef>(cf2))) == kCFCompareEqualTo;
}

CFHashCode hashNumberObject(CFTypeRef cf) {
    return hashNumber(valueOf(static_cast<CFNumberRef>(cf)));
}

CFStringRef describeNumber(CFTypeRef cf, CFDictionaryRef) {
    const auto *number = static_cast<CFNumberRef>(cf);
    const NumberValue value = valueOf(number);
    if (!value.isFloat) {
        return createString(integerText(value.integer));
    }
    return createString(flagsOf(number) == kCFNumberFloat32Type
                            ? realText(static_cast<float>(value.real))
                            : realText(value.real));
}

} // namespace

constinit const CFRuntimeClass CFInternal::kNumberClass = {
    0,      "CFNumber", nullptr, nullptr, nullptr, equalNumbers, hashNumberObject, describeNumber,
    nullptr};

constinit const CFNumberRef kCFNumberPositiveInfinity = &positiveInfinity;
constinit const CFNumberRef kCFNumberNegativeInfinity = &negativeInfinity;
constinit const CFNumberRef kCFNumberNaN = &notANumber;

CFTypeID CFNumberGetTypeID(void) { return kNumberTypeID; }

CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType theType, const void *valuePtr) {
    require(valuePtr != nullptr, __func__, "null value");
    if (theType == kCFNumberSInt128Type) {
        CFSInt128 words;
        std::memcpy(&words, valuePtr, sizeof words);
        return _CFNumberCreateWithInt128(allocator, words.high, words.low);
    }
    const CFNumberType type = canonicalNumberType(theType);
    const NumberValue value = readNumber(type, valuePtr);
    if (value.isFloat) {
        return createNumber(allocator, type, std::bit_cast<UInt64>(value.real));
    }
    return createInteger(allocator, type, static_cast<SInt64>(value.integer));
}

CFNumberRef _CFNumberCreateWithInt128(CFAllocatorRef allocator, SInt64 high, UInt64 low) {
    const auto narrow = static_cast<SInt64>(low);
    if (joinWords(high, low) == narrow) {
        return createInteger(allocator, kCFNumberSInt64Type, narrow);
    }
    auto *number = static_cast<WideNumber *>(
        allocateInstance(allocator, kNumberTypeID, sizeof(WideNumber) - kHeaderSize, kWideType));
    if (number != nullptr) {
        number->bits = low;
        number->high = high;
    }
    return number;
}

Boolean _CFNumberGetInt128(CFNumberRef number, SInt64 *high, UInt64 *low) {
    const NumberValue value = valueOf(checked(number, __func__));
    require(high != nullptr && low != nullptr, __func__, "null buffer");
    if (value.isFloat) {
        return FALSE;
    }
    *high = static_cast<SInt64>(value.integer >> 64);
    *low = static_cast<UInt64>(value.integer);
    return TRUE;
}

CFNumberType CFNumberGetType(CFNumberRef number) { return publicTypeOf(checked(number, __func__)); }

CFIndex CFNumberGetByteSize(CFNumberRef number) {
    return numberTypeSize(publicTypeOf(checked(number, __func__)));
}

Boolean CFNumberIsFloatType(CFNumberRef number) {
    return isFloatNumberType(publicTypeOf(checked(number, __func__)));
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void *valuePtr) {
    checked(number, __func__);
    require(valuePtr != nullptr, __func__, "null buffer");
    if (theType == kCFNumberSInt128Type) {
        return writeWide(valueOf(number), valuePtr);
    }
    return writeNumber(valueOf(number), canonicalNumberType(theType), valuePtr);
}

CFComparisonResult CFNumberCompare(CFNumberRef number, CFNumberRef otherNumber, void *) {
    return compareNumbers(valueOf(checked(number, __func__)),
                          valueOf(checked(otherNumber, __func__)));
}
