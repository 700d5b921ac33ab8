// Integers beyond 64 signed bits, which property lists have and the public types lack.
#pragma once

#include <CoreFoundation/CFNumber.h>

// The platform has this type and leaves it out of its public headers. CFNumberCreate and
// CFNumberGetValue take it like the public ones.
enum : CFNumberType { kCFNumberSInt128Type = 17 };
// Its values: high * 2^64 + low.
struct CFSInt128 {
    SInt64 high;
    UInt64 low;
};

// A number with the value high * 2^64 + low; the caller releases it. A value that fits
// 64 signed bits becomes an ordinary kCFNumberSInt64Type. A wider one reports that
// type too, but compares, hashes and is written by its whole value; CFNumberGetValue
// gives the low bits and false. Null only when memory is out.
CF_EXPORT CFNumberRef _CFNumberCreateWithInt128(CFAllocatorRef allocator, SInt64 high, UInt64 low);
// Stores the value of an integer of any width, sign-extended. False, and nothing
// stored, for a floating-point number.
CF_EXPORT Boolean _CFNumberGetInt128(CFNumberRef number, SInt64 *high, UInt64 *low);
