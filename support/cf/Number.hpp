#pragma once

#include "support/cf/Type.hpp"

#include <concepts>
#include <cstdint>

namespace CF {

// A CFNumberRef or null.
class CF_WRAPPER_VISIBLE Number : public TypeOf<Number, CFNumberRef, CFNumberGetTypeID> {
  public:
    using TypeOf::TypeOf;

    // high * 2^64 + low.
    struct Wide {
        std::int64_t high;
        std::uint64_t low;
    };

    static Number FromInt32(std::int32_t value) { return make(kCFNumberSInt32Type, &value); }
    static Number FromInt64(std::int64_t value) { return make(kCFNumberSInt64Type, &value); }
    static Number FromUInt32(std::uint32_t value) { return FromInt64(value); }
    static Number FromUInt64(std::uint64_t value) {
        if (value <= INT64_MAX) {
            return FromInt64(static_cast<std::int64_t>(value));
        }
        const Wide wide{0, value};
        return make(kWideType, &wide);
    }
    static Number FromDouble(double value) { return make(kCFNumberDoubleType, &value); }

    // The value converted as CFNumberGetValue converts; 0 for null.
    std::int32_t GetInt32() const noexcept { return static_cast<std::int32_t>(GetInt64()); }
    std::uint32_t GetUInt32() const noexcept { return static_cast<std::uint32_t>(GetInt64()); }
    std::uint64_t GetUInt64() const noexcept { return static_cast<std::uint64_t>(GetInt64()); }
    std::int64_t GetInt64() const noexcept {
        std::int64_t value = 0;
        if (get() != nullptr) {
            CFNumberGetValue(get(), kCFNumberSInt64Type, &value);
        }
        return value;
    }
    // The integer of whatever size, so that nothing is cut off but a fraction; numbers beyond
    // 128 bits become the nearest that has them.
    Wide GetWide() const noexcept {
        Wide value{};
        if (get() != nullptr) {
            CFNumberGetValue(get(), kWideType, &value);
        }
        return value;
    }
    double GetDouble() const noexcept {
        double value = 0;
        if (get() != nullptr) {
            CFNumberGetValue(get(), kCFNumberDoubleType, &value);
        }
        return value;
    }

  private:
    // A type of CoreFoundation that its headers do not name.
    static constexpr CFNumberType kWideType = 17;

    static Number make(CFNumberType type, const void *value) {
        return Adopt(Made(CFNumberCreate(kCFAllocatorDefault, type, value)));
    }
};

} // namespace CF
