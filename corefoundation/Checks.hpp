// Checks of arguments on hot paths, ending the process of a caller who breaks a rule.
#pragma once

#include "corefoundation/CFInternal.hpp"

#include <exception>
#include <new>

namespace CFInternal {

// Aborts with the message unless the condition holds.
inline void require(bool condition, const char *function, const char *message) noexcept {
    if (!condition) [[unlikely]] {
        fatal(function, message);
    }
}

// For functions that change an object, which have no result to say it with: throws
// std::bad_alloc unless memory was there.
inline void requireMemory(bool granted) {
    if (!granted) [[unlikely]] {
        throw std::bad_alloc();
    }
}

// What create makes, or null when memory runs out in it: the result that functions named
// Create or Copy promise. Objects made on the way must be held by owners.
template <class Create>
auto nullWhenOutOfMemory(Create create) noexcept -> decltype(create()) {
    try {
        return create();
    } catch (const std::exception &) { // bad_alloc, or length_error of standard containers
        return nullptr;
    }
}

// Releases an object at the end of the scope, unless it is taken.
template <class Ref>
class Owner {
  public:
    explicit Owner(Ref object) noexcept : object_(object) {}
    Owner(const Owner &) = delete;
    Owner &operator=(const Owner &) = delete;
    ~Owner() {
        if (object_ != nullptr) {
            CFRelease(object_);
        }
    }
    Ref get() const noexcept { return object_; }
    Ref take() noexcept {
        const Ref object = object_;
        object_ = nullptr;
        return object;
    }

  private:
    Ref object_;
};

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
