// The boundary between exceptions inside and CFErrorRef outside.
#pragma once

#include "support/cf/Error.hpp"

namespace Kelvane {

// Hands an error to a caller's out-parameter, which may be null. The caller of the
// exported function releases it.
inline void StoreError(const CF::Error &error, CFErrorRef *destination) noexcept {
    if (destination != nullptr) {
        *destination = error.copyRef();
    }
}

// Runs the body of an exported function. A CF::Error becomes the out-parameter and the
// failure value; every other exception passes on to the host, untranslated, because
// only the body knows what it means. On success the out-parameter is left untouched.
template <class Result, class Body>
Result AtBoundary(CFErrorRef *error, Result failure, Body &&body) {
    try {
        return body();
    } catch (const CF::Error &caught) {
        StoreError(caught, error);
        return failure;
    }
}

// Code 1, "There is not enough memory". Made by the first call, which therefore has to come before
// there is none left to make it.
const CF::Error &OutOfMemoryError();

// The error that stands for the exception being handled: a CF::Error as it is; code 2 when the
// temporary path is not set; OutOfMemoryError; code 1 with the text of any other exception.
// Within a handler only.
CF::Error CurrentError() noexcept;

// AtBoundary for functions that promise a host in plain C an error for everything that goes
// wrong: an exception that passed on would end it.
template <class Result, class Body>
Result AtClosedBoundary(CFErrorRef *error, Result failure, Body &&body) noexcept {
    try {
        OutOfMemoryError();
        return body();
    } catch (...) {
        StoreError(CurrentError(), error);
        return failure;
    }
}

// An out-parameter to pass to a function whose error is to become an underlying one.
class LocalError {
  public:
    LocalError() = default;
    LocalError(const LocalError &) = delete;
    LocalError &operator=(const LocalError &) = delete;
    ~LocalError() {
        if (error_ != nullptr) {
            CFRelease(error_);
        }
    }
    CFErrorRef *out() noexcept { return &error_; }
    CF::Error get() const { return CF::Error(error_); }

  private:
    CFErrorRef error_ = nullptr;
};

} // namespace Kelvane
