#pragma once

#include "support/cf/Type.hpp"

namespace CF {

// A CFBooleanRef or null.
class CF_WRAPPER_VISIBLE Boolean : public TypeOf<Boolean, CFBooleanRef, CFBooleanGetTypeID> {
  public:
    using TypeOf::TypeOf;
    explicit Boolean(bool value) : Boolean(value ? kCFBooleanTrue : kCFBooleanFalse) {}
    // False for null.
    bool GetValue() const noexcept { return get() != nullptr && CFBooleanGetValue(get()) != 0; }
};

} // namespace CF
