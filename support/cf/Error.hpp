#pragma once

#include "support/cf/Dictionary.hpp"
#include "support/cf/String.hpp"
#include "support/cf/Type.hpp"

namespace CF {

// A CFErrorRef or null; the exception type of the library. It is deliberately no
// std::exception: handlers of foreign failures must not swallow it.
class CF_WRAPPER_VISIBLE Error : public TypeOf<Error, CFErrorRef, CFErrorGetTypeID> {
  public:
    using TypeOf::TypeOf;

    CFIndex GetCode() const noexcept { return get() == nullptr ? 0 : CFErrorGetCode(get()); }
    // Borrowed; null for null.
    CFStringRef GetDomain() const noexcept {
        return get() == nullptr ? nullptr : CFErrorGetDomain(get());
    }
    String GetDescription() const {
        return get() == nullptr ? String() : String::Adopt(Made(CFErrorCopyDescription(get())));
    }
    // Null when the error has none.
    String GetFailureReason() const {
        return get() == nullptr ? String() : String::Adopt(CFErrorCopyFailureReason(get()));
    }
    // The error beneath this one; null when there is none.
    Error GetUnderlying() const {
        if (get() == nullptr) {
            return {};
        }
        const auto info = Dictionary::Adopt(CFErrorCopyUserInfo(get()));
        return info.Get<Error>(kCFErrorUnderlyingErrorKey);
    }
};

} // namespace CF
