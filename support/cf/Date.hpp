#pragma once

#include "support/cf/Type.hpp"

namespace CF {

// A CFDateRef or null. Times are seconds since 2001-01-01 00:00 UTC.
class CF_WRAPPER_VISIBLE Date : public TypeOf<Date, CFDateRef, CFDateGetTypeID> {
  public:
    using TypeOf::TypeOf;
    static Date FromAbsoluteTime(CFAbsoluteTime time) {
        return Adopt(Made(CFDateCreate(kCFAllocatorDefault, time)));
    }
    static Date Now() { return FromAbsoluteTime(CFAbsoluteTimeGetCurrent()); }
    // 0 for null.
    CFAbsoluteTime GetAbsoluteTime() const noexcept {
        return get() == nullptr ? 0.0 : CFDateGetAbsoluteTime(get());
    }
};

} // namespace CF
