/* CFNumber.h: numbers and truth values.
 *
 * A number is an integer or a floating-point value with the type it was made of.
 * Numbers that are numerically equal are equal and hash alike, whatever their types;
 * NaN equals NaN. Both kinds of object are immutable and may be used by any number
 * of threads.
 *
 * Faults. A null number or pointer and an unknown type are programming errors and
 * abort with a message.
 */
#ifndef COREFOUNDATION_CFNUMBER_H
#define COREFOUNDATION_CFNUMBER_H

#include <CoreFoundation/CFBase.h>

typedef const struct __CFBoolean *CFBooleanRef;

/* The two truth values; never freed, and usable by static initialisers. */
CF_EXPORT const CFBooleanRef kCFBooleanTrue;
CF_EXPORT const CFBooleanRef kCFBooleanFalse;

CF_EXPORT CFTypeID CFBooleanGetTypeID(void);
/* 1 for kCFBooleanTrue, 0 for kCFBooleanFalse. */
CF_EXPORT Boolean CFBooleanGetValue(CFBooleanRef boolean);

typedef CFIndex CFNumberType;
enum {
    /* Of fixed size. */
    kCFNumberSInt8Type = 1,
    kCFNumberSInt16Type = 2,
    kCFNumberSInt32Type = 3,
    kCFNumberSInt64Type = 4,
    kCFNumberFloat32Type = 5,
    kCFNumberFloat64Type = 6,
    /* Of the C type's size. */
    kCFNumberCharType = 7,
    kCFNumberShortType = 8,
    kCFNumberIntType = 9,
    kCFNumberLongType = 10,
    kCFNumberLongLongType = 11,
    kCFNumberFloatType = 12,
    kCFNumberDoubleType = 13,
    /* Of a pointer's size, and the floating-point type that goes with it. */
    kCFNumberCFIndexType = 14,
    kCFNumberNSIntegerType = 15,
    kCFNumberCGFloatType = 16,
    kCFNumberMaxType = 16
};

typedef const struct __CFNumber *CFNumberRef;

/* Values that have no integer; never freed. */
CF_EXPORT const CFNumberRef kCFNumberPositiveInfinity;
CF_EXPORT const CFNumberRef kCFNumberNegativeInfinity;
CF_EXPORT const CFNumberRef kCFNumberNaN;

CF_EXPORT CFTypeID CFNumberGetTypeID(void);
/* A number with the value of type theType at valuePtr, which needs no alignment; the
 * caller releases it. It may be a shared object. Null only when memory is out. */
CF_EXPORT CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType theType,
                                     const void *valuePtr);
/* The type the value is kept in: one of the types of fixed size, never smaller than
 * the one it was made of. */
CF_EXPORT CFNumberType CFNumberGetType(CFNumberRef number);
/* The size in bytes of a value of CFNumberGetType. */
CF_EXPORT CFIndex CFNumberGetByteSize(CFNumberRef number);
/* Whether the value is kept in floating point. */
CF_EXPORT Boolean CFNumberIsFloatType(CFNumberRef number);
/* Stores the value, converted to theType, at valuePtr, which needs no alignment.
 * Returns whether the conversion kept the value. When it did not, what is stored is: the
 * low bits of an integer that does not fit another integer type; the fraction cut off
 * and the nearest limit of the type for a floating-point value, 0 for NaN; the nearest
 * floating-point value for a number that has none of its own. */
CF_EXPORT Boolean CFNumberGetValue(CFNumberRef number, CFNumberType theType, void *valuePtr);
/* Orders by numerical value, without loss between integers and floating point. NaN
 * equals NaN and has its place between the numbers below 0 and 0. context is unused
 * and may be null. */
CF_EXPORT CFComparisonResult CFNumberCompare(CFNumberRef number, CFNumberRef otherNumber,
                                             void *context);

#endif
