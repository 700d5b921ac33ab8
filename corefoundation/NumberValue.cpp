#include "corefoundation/NumberValue.hpp"

#include "corefoundation/Fault.hpp"
#include "corefoundation/Hash.hpp"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace CFInternal {

namespace {

// -2^127 has a double of its own, and so has the first value above the largest integer.
constexpr double kInt128Limit = 0x1p127;

template <class T>
T Load(const void *source) {
    T value;
    std::memcpy(&value, source, sizeof value);
    return value;
}

template <class T>
NumberValue ReadInteger(const void *source) {
    return NumberValue::Integer(Load<T>(source));
}

// Whether the double is an integer that Int128 holds.
bool IsIntegral(double value) {
    return value >= -kInt128Limit && value < kInt128Limit && std::trunc(value) == value;
}

bool EqualsDouble(Int128 integer, double real) {
    return IsIntegral(real) && static_cast<Int128>(real) == integer;
}

template <class T>
bool WriteInteger(const NumberValue &value, void *destination) {
    T result = 0;
    bool exact = false;
    if (!value.isFloat) {
        // The low bits, as a conversion between integer types gives them.
        result = static_cast<T>(value.integer);
        exact = result == value.integer;
    } else if (!std::isnan(value.real)) {
        constexpr double limit = -static_cast<double>(std::numeric_limits<T>::min());
        const double whole = std::trunc(value.real);
        if (whole < -limit) {
            result = std::numeric_limits<T>::min();
        } else if (whole >= limit) {
            result = std::numeric_limits<T>::max();
        } else {
            result = static_cast<T>(whole);
            exact = whole == value.real;
        }
    }
    std::memcpy(destination, &result, sizeof result);
    return exact;
}

bool WriteDouble(const NumberValue &value, void *destination) {
    const double result = value.isFloat ? value.real : static_cast<double>(value.integer);
    std::memcpy(destination, &result, sizeof result);
    return value.isFloat || EqualsDouble(value.integer, result);
}

bool WriteFloat(const NumberValue &value, void *destination) {
    const float result =
        value.isFloat ? static_cast<float>(value.real) : static_cast<float>(value.integer);
    std::memcpy(destination, &result, sizeof result);
    const auto back = static_cast<double>(result);
    if (!value.isFloat) {
        return EqualsDouble(value.integer, back);
    }
    return back == value.real || std::isnan(value.real);
}

template <class T>
CFComparisonResult Order(T a, T b) {
    if (a == b) {
        return kCFCompareEqualTo;
    }
    return a < b ? kCFCompareLessThan : kCFCompareGreaterThan;
}

CFComparisonResult CompareIntegerToReal(Int128 integer, double real) {
    if (real >= kInt128Limit) {
        return kCFCompareLessThan;
    }
    if (real < -kInt128Limit) {
        return kCFCompareGreaterThan;
    }
    const double whole = std::trunc(real);
    const CFComparisonResult order = Order(integer, static_cast<Int128>(whole));
    return order != kCFCompareEqualTo ? order : Order(whole, real);
}

bool IsNegative(const NumberValue &value) {
    return value.isFloat ? value.real < 0 : value.integer < 0;
}

CFComparisonResult CompareNaNTo(const NumberValue &other) {
    return IsNegative(other) ? kCFCompareGreaterThan : kCFCompareLessThan;
}

bool IsNaN(const NumberValue &value) { return value.isFloat && std::isnan(value.real); }

} // namespace

CFNumberType CanonicalNumberType(CFNumberType type) {
    static_assert(sizeof(long) == 8 && sizeof(long long) == 8 && sizeof(int) == 4);
    switch (type) {
    case kCFNumberSInt8Type:
    case kCFNumberSInt16Type:
    case kCFNumberSInt32Type:
    case kCFNumberSInt64Type:
    case kCFNumberFloat32Type:
    case kCFNumberFloat64Type:
        return type;
    case kCFNumberCharType:
        return kCFNumberSInt8Type;
    case kCFNumberShortType:
        return kCFNumberSInt16Type;
    case kCFNumberIntType:
        return kCFNumberSInt32Type;
    case kCFNumberLongType:
    case kCFNumberLongLongType:
    case kCFNumberCFIndexType:
    case kCFNumberNSIntegerType:
        return kCFNumberSInt64Type;
    case kCFNumberFloatType:
        return kCFNumberFloat32Type;
    case kCFNumberDoubleType:
    case kCFNumberCGFloatType:
        return kCFNumberFloat64Type;
    default:
        Fault("CFNumber: unknown number type");
    }
}

CFIndex NumberTypeSize(CFNumberType canonicalType) {
    switch (canonicalType) {
    case kCFNumberSInt8Type:
        return 1;
    case kCFNumberSInt16Type:
        return 2;
    case kCFNumberSInt32Type:
    case kCFNumberFloat32Type:
        return 4;
    default:
        return 8;
    }
}

bool IsFloatNumberType(CFNumberType canonicalType) {
    return canonicalType == kCFNumberFloat32Type || canonicalType == kCFNumberFloat64Type;
}

NumberValue ReadNumber(CFNumberType canonicalType, const void *source) {
    switch (canonicalType) {
    case kCFNumberSInt8Type:
        return ReadInteger<SInt8>(source);
    case kCFNumberSInt16Type:
        return ReadInteger<SInt16>(source);
    case kCFNumberSInt32Type:
        return ReadInteger<SInt32>(source);
    case kCFNumberFloat32Type:
        return NumberValue::Real(static_cast<double>(Load<float>(source)));
    case kCFNumberFloat64Type:
        return NumberValue::Real(Load<double>(source));
    default:
        return ReadInteger<SInt64>(source);
    }
}

bool WriteNumber(const NumberValue &value, CFNumberType canonicalType, void *destination) {
    switch (canonicalType) {
    case kCFNumberSInt8Type:
        return WriteInteger<SInt8>(value, destination);
    case kCFNumberSInt16Type:
        return WriteInteger<SInt16>(value, destination);
    case kCFNumberSInt32Type:
        return WriteInteger<SInt32>(value, destination);
    case kCFNumberFloat32Type:
        return WriteFloat(value, destination);
    case kCFNumberFloat64Type:
        return WriteDouble(value, destination);
    default:
        return WriteInteger<SInt64>(value, destination);
    }
}

CFComparisonResult CompareNumbers(const NumberValue &a, const NumberValue &b) {
    if (IsNaN(a) && IsNaN(b)) {
        return kCFCompareEqualTo;
    }
    if (IsNaN(a)) {
        return CompareNaNTo(b);
    }
    if (IsNaN(b)) {
        return -CompareNaNTo(a);
    }
    if (a.isFloat) {
        return b.isFloat ? Order(a.real, b.real) : -CompareIntegerToReal(b.integer, a.real);
    }
    return b.isFloat ? CompareIntegerToReal(a.integer, b.real) : Order(a.integer, b.integer);
}

CFHashCode HashNumber(const NumberValue &value) {
    if (value.isFloat && !IsIntegral(value.real)) {
        return std::isnan(value.real) ? 0 : MixHash(Load<std::uint64_t>(&value.real));
    }
    const Int128 integer = value.isFloat ? static_cast<Int128>(value.real) : value.integer;
    const auto low = static_cast<std::uint64_t>(integer);
    const auto high = static_cast<std::uint64_t>(integer >> 64);
    // Integers of 64 bits, the usual ones, take one round.
    const bool narrow = integer == static_cast<std::int64_t>(low);
    return narrow ? MixHash(low) : MixHash(MixHash(low) ^ high);
}

} // namespace CFInternal
