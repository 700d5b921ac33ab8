// What tests expect of error objects.
#pragma once

#include "KVError.h"
#include "foundation/Boundary.hpp"
#include "support/cf/Error.hpp"

#include <gtest/gtest.h>

#include <string>

namespace testing_support {

// The failure reason in UTF-8; empty when there is none.
inline std::string ReasonOf(const CF::Error &error) { return error.GetFailureReason().GetUTF8(); }

inline ::testing::AssertionResult IsError(const CF::Error &error, KVError code,
                                          const std::string &reason) {
    if (!error) {
        return ::testing::AssertionFailure() << "no error";
    }
    if (!CFEqual(error.GetDomain(), kKVErrorDomain) ||
        error.GetCode() != static_cast<CFIndex>(code) || ReasonOf(error) != reason) {
        return ::testing::AssertionFailure()
               << "domain " << CF::String(error.GetDomain()).GetUTF8() << ", code "
               << error.GetCode() << ", reason \"" << ReasonOf(error) << "\"";
    }
    return ::testing::AssertionSuccess();
}

// Runs the body and returns the error that it throws; null when it throws none.
template <class Body>
CF::Error ErrorThrownBy(Body body) {
    try {
        body();
    } catch (const CF::Error &error) {
        return error;
    }
    return {};
}

} // namespace testing_support
