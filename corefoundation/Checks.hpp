// Checks of arguments on hot paths, ending the process of a caller who breaks a rule.
#pragma once

#include "corefoundation/CFInternal.hpp"

namespace CFInternal {

// Aborts with the message unless the condition holds.
inline void require(bool condition, const char *function, const char *message) noexcept {
    if (!condition) [[unlikely]] {
        fatal(function, message);
    }
}

// Whether the range lies within 0 ... count; computed without overflow.
constexpr bool isRangeWithin(CFRange range, CFIndex count) noexcept {
    return range.location >= 0 && range.length >= 0 && range.location <= count &&
           range.length <= count - range.location;
}

inline void requireRange(CFRange range, CFIndex count, const char *function) noexcept {
    require(isRangeWithin(range, count), function, "range outside the object");
}

// count * size + fixed; aborts when that is beyond CFIndex.
inline CFIndex sizeOrAbort(CFIndex fixed, CFIndex count, std::size_t size,
                           const char *function) noexcept {
    CFIndex bytes = 0;
    require(!__builtin_mul_overflow(count, size, &bytes) &&
                !__builtin_add_overflow(bytes, fixed, &bytes),
            function, "count beyond the address space");
    return bytes;
}

// The next capacity of a growing buffer that must hold needed elements.
constexpr CFIndex grownCapacity(CFIndex capacity, CFIndex needed, CFIndex minimum) noexcept {
    const CFIndex half = capacity + capacity / 2;
    const CFIndex wanted = half > needed ? half : needed;
    return wanted > minimum ? wanted : minimum;
}

// A capacity asked for at creation is a hint that may come from hostile input: more than
// this many elements are made room for as they come.
inline constexpr CFIndex kMaximumReserve = 1 << 16;
constexpr CFIndex boundedReserve(CFIndex capacity) noexcept {
    return capacity < kMaximumReserve ? capacity : kMaximumReserve;
}

} // namespace CFInternal
