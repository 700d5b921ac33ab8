#pragma once

#include "support/cf/String.hpp"
#include "support/cf/Type.hpp"

namespace CF {

// A CFUUIDRef or null.
class CF_WRAPPER_VISIBLE UUID : public TypeOf<UUID, CFUUIDRef, CFUUIDGetTypeID> {
  public:
    using TypeOf::TypeOf;
    // A new random UUID.
    static UUID Create() { return Adopt(Made(CFUUIDCreate(kCFAllocatorDefault))); }
    // 36 characters, upper-case hexadecimal in groups of 8-4-4-4-12; null for null.
    String GetString() const {
        return get() == nullptr
                   ? String()
                   : String::Adopt(Made(CFUUIDCreateString(kCFAllocatorDefault, get())));
    }
};

} // namespace CF
