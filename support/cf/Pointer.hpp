// A retained reference in the size of one pointer, for fields of large tables.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <new>
#include <utility>

namespace CF {

// Says that a constructor takes over a reference the caller owns.
struct adopt_t {
    explicit adopt_t() = default;
};
inline constexpr adopt_t adopt{};

// Owns one reference to a CoreFoundation object, or nothing. Copying retains,
// destruction releases. Ref is a reference type such as CFStringRef.
template <class Ref>
class Pointer {
  public:
    constexpr Pointer() noexcept = default;
    constexpr Pointer(std::nullptr_t) noexcept {}
    // Retains; the caller keeps its own reference.
    Pointer(Ref ref) noexcept : ref_(ref) { retain(); }
    // Takes over the caller's reference.
    Pointer(adopt_t, Ref ref) noexcept : ref_(ref) {}
    Pointer(const Pointer &other) noexcept : ref_(other.ref_) { retain(); }
    Pointer(Pointer &&other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
    ~Pointer() { drop(ref_); }

    Pointer &operator=(const Pointer &other) noexcept {
        Pointer copy(other);
        swap(copy);
        return *this;
    }
    Pointer &operator=(Pointer &&other) noexcept {
        Pointer taken(std::move(other));
        swap(taken);
        return *this;
    }

    Ref get() const noexcept { return ref_; }
    explicit operator bool() const noexcept { return ref_ != nullptr; }
    void swap(Pointer &other) noexcept { std::swap(ref_, other.ref_); }
    // Gives the reference to the caller, who releases it.
    [[nodiscard]] Ref detach() noexcept { return std::exchange(ref_, nullptr); }
    // A further reference for the caller to release; null stays null.
    [[nodiscard]] Ref copyRef() const noexcept {
        retain();
        return ref_;
    }

  private:
    void retain() const noexcept {
        if (ref_ != nullptr) {
            CFRetain(static_cast<CFTypeRef>(ref_));
        }
    }
    static void drop(Ref ref) noexcept {
        if (ref != nullptr) {
            CFRelease(static_cast<CFTypeRef>(ref));
        }
    }
    Ref ref_ = nullptr;
};

// A retained reference to an object of any type.
using AutoPointer = Pointer<CFTypeRef>;

// The object that a Create or Copy function gave, where it gives null only when memory is out:
// throws std::bad_alloc then.
template <class Ref>
Ref Made(Ref object) {
    if (object == nullptr) [[unlikely]] {
        throw std::bad_alloc();
    }
    return object;
}

template <class Ref>
Pointer<Ref> Adopt(Ref ref) noexcept {
    return Pointer<Ref>(adopt, ref);
}

} // namespace CF
