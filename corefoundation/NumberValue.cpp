#include "corefoundation/NumberValue.hpp"

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/ContentHash.hpp"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace CFInternal {

namespace {

// -2^127 has a double of its own, and so has the first value above the largest integer.
constexpr double kInt128Limit = 0x1p127;

template <class T>
T load(const void *source) {
    T value;
    std::memcpy(&value, source, sizeof value);
    return value;
}

template <class T>
NumberValue readInteger(const void *source) {
    return NumberValue::Integer(load<T>(source));
}

// Whether the double is an integer that Int128 holds.
bool isIntegral(double value) {
    return value >= -kInt128Limit && value < kInt128Limit && std::trunc(value) == value;
}

bool equalsDouble(Int128 integer, double real) {
    return isIntegral(real) && static_cast<Int128>(real) == integer;
}

template <class T>
bool writeInteger(const NumberValue &value, void *destination) {
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

bool writeDouble(const NumberValue &value, void *destination) {
    const double result = value.isFloat ? value.real : static_cast<double>(value.integer);
    std::memcpy(destination, &result, sizeof result);
    return value.isFloat || equalsDouble(value.integer, result);
}

bool writeFloat(const NumberValue &value, void *destination) {
    const float result =
        value.isFloat ? static_cast<float>(value.real) : static_cast<float>(value.integer);
    std::memcpy(destination, &result, sizeof result);
    const auto back = static_cast<double>(result);
    if (!value.isFloat) {
        return equalsDouble(value.integer, back);
    }
    return back == value.real || std::isnan(value.real);
}

template <class T>
CFComparisonResult order(T a, T b) {
    if (a == b) {
        return kCFCompareEqualTo;
    }
    return a < b ? kCFCompareLessThan : kCFCompareGreaterThan;
}

CFComparisonResult compareIntegerToReal(Int128 integer, double real) {
    if (real >= kInt128Limit) {
        return kCFCompareLessThan;
    }
    if (real < -kInt128Limit) {
        return kCFCompareGreaterThan;
    }
    const double whole = std::trunc(real);
    const CFComparisonResult wholeOrder = order(integer, static_cast<Int128>(whole));
    return wholeOrder != kCFCompareEqualTo ? wholeOrder : order(whole, real);
}

bool isNegative(const NumberValue &value) {
    return value.isFloat ? value.real < 0 : value.integer < 0;
}

CFComparisonResult compareNaNTo(const NumberValue &other) {
    return isNegative(other) ? kCFCompareGreaterThan : kCFCompareLessThan;
}

bool isNaN(const NumberValue &value) { return value.isFloat && std::isnan(value.real); }

} // namespace

CFNumberType canonicalNumberType(CFNumberType type) {
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
        fatal(__func__, "unknown number type");
    }
}

CFIndex numberTypeSize(CFNumberType canonicalType) {
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

bool isFloatNumberType(CFNumberType canonicalType) {
    return canonicalType == kCFNumberFloat32Type || canonicalType == kCFNumberFloat64Type;
}

NumberValue readNumber(CFNumberType canonicalType, const void *source) {
    switch (canonicalType) {
    case kCFNumberSInt8Type:
        return readInteger<SInt8>(source);
    case kCFNumberSInt16Type:
        return readInteger<SInt16>(source);
    case kCFNumberSInt32Type:
        return readInteger<SInt32>(source);
    case kCFNumberFloat32Type:
        return NumberValue::Real(static_cast<double>(load<float>(source)));
    case kCFNumberFloat64Type:
        return NumberValue::Real(load<double>(source));
    default:
        return readInteger<SInt64>(source);
    }
}

bool writeNumber(const NumberValue &value, CFNumberType canonicalType, void *destination) {
    switch (canonicalType) {
    case kCFNumberSInt8Type:
        return writeInteger<SInt8>(value, destination);
    case kCFNumberSInt16Type:
        return writeInteger<SInt16>(value, destination);
    case kCFNumberSInt32Type:
        return writeInteger<SInt32>(value, destination);
    case kCFNumberFloat32Type:
        return writeFloat(value, destination);
    case kCFNumberFloat64Type:
        return writeDouble(value, destination);
    default:
        return writeInteger<SInt64>(value, destination);
    }
}

CFComparisonResult compareNumbers(const NumberValue &a, const NumberValue &b) {
    if (isNaN(a) && isNaN(b)) {
        return kCFCompareEqualTo;
    }
    if (isNaN(a)) {
        return compareNaNTo(b);
    }
    if (isNaN(b)) {
        return -compareNaNTo(a);
    }
    if (a.isFloat) {
        return b.isFloat ? order(a.real, b.real) : -compareIntegerToReal(b.integer, a.real);
    }
    return b.isFloat ? compareIntegerToReal(a.integer, b.real) : order(a.integer, b.integer);
}

CFHashCode hashNumber(const NumberValue &value) {
    if (value.isFloat && !isIntegral(value.real)) {
        return std::isnan(value.real) ? 0 : hashBytes(&value.real, sizeof value.real);
    }
    const Int128 integer = value.isFloat ? static_cast<Int128>(value.real) : value.integer;
    return hashBytes(&integer, sizeof integer);
}

} // namespace CFInternal
