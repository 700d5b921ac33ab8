// The arithmetic of numbers apart from the objects that hold them.
#pragma once

#include <CoreFoundation/CFNumber.h>

namespace CFInternal {

__extension__ typedef __int128 Int128;

// The value of a number: an integer, or a double when isFloat is set.
struct NumberValue {
    bool isFloat;
    Int128 integer;
    double real;

    static constexpr NumberValue Integer(Int128 value) { return {false, value, 0}; }
    static constexpr NumberValue Real(double value) { return {true, 0, value}; }
};

// The type of fixed size that stands for the given one; aborts for an unknown type.
CFNumberType canonicalNumberType(CFNumberType type);
// The size in bytes of a value of that canonical type.
CFIndex numberTypeSize(CFNumberType canonicalType);
bool isFloatNumberType(CFNumberType canonicalType);

// Reads a value of a canonical type from memory of any alignment.
NumberValue readNumber(CFNumberType canonicalType, const void *source);
// Writes the value as a canonical type to memory of any alignment; false when it lost
// something.
bool writeNumber(const NumberValue &value, CFNumberType canonicalType, void *destination);

// Numerical order without loss; NaN equals itself and lies between the numbers
// below 0 and 0.
CFComparisonResult compareNumbers(const NumberValue &a, const NumberValue &b);
// Equal for equal values, whatever their kinds.
CFHashCode hashNumber(const NumberValue &value);

} // namespace CFInternal
