// The end of a process whose code broke a function's contract.
#pragma once

#include <CoreFoundation/CFBase.h>

namespace CFInternal {

// Prints the message to standard error and aborts.
[[noreturn]] void Fault(const char *message) noexcept;

// Faults unless the condition holds. Inline, for checks on hot paths.
inline void Require(bool condition, const char *message) noexcept {
    if (__builtin_expect(!condition, 0)) {
        Fault(message);
    }
}

// Whether the range lies within 0 ... count; computed without overflow.
constexpr bool IsRangeWithin(CFRange range, CFIndex count) {
    return range.location >= 0 && range.length >= 0 && range.location <= count &&
           range.length <= count - range.location;
}

} // namespace CFInternal
