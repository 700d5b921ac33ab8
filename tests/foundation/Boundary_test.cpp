#include "foundation/Boundary.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "support/cf/Extensions.hpp"
#include "tests/support/ErrorMatchers.hpp"
#include "tests/support/FreshProcess.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>

namespace {

using Kelvane::Error;

// The error that a closed boundary makes of what the body throws.
template <class Body>
CF::Error errorAtClosedBoundary(Body body) {
    CFErrorRef error = nullptr;
    EXPECT_EQ(Kelvane::AtClosedBoundary(&error, -1, body), -1);
    return CF::Error::Adopt(error);
}

TEST(AtClosedBoundary, KeepsOurErrors) {
    const CF::Error thrown = Error(kKVErrorIO);
    EXPECT_EQ(errorAtClosedBoundary([&]() -> int { throw thrown; }).get(), thrown.get());
}

TEST(AtClosedBoundary, LeavesTheTargetAloneOnSuccess) {
    CFErrorRef error = nullptr;
    EXPECT_EQ(Kelvane::AtClosedBoundary(&error, -1, [] { return 7; }), 7);
    EXPECT_EQ(error, nullptr);
}

TEST(AtClosedBoundary, TakesANullPointer) {
    EXPECT_EQ(Kelvane::AtClosedBoundary(nullptr, -1, []() -> int { throw 7; }), -1);
}

TEST(AtClosedBoundary, GivesTheTextOfForeignExceptions) {
    const CF::Error error =
        errorAtClosedBoundary([]() -> int { throw std::runtime_error("foreign"); });
    EXPECT_TRUE(testing_support::IsError(error, kKVErrorUnknown, "foreign"));
}

TEST(AtClosedBoundary, TakesWhatIsNoExceptionToo) {
    const CF::Error error = errorAtClosedBoundary([]() -> int { throw 7; });
    EXPECT_TRUE(
        testing_support::IsError(error, kKVErrorUnknown, "An exception of an unknown type"));
}

TEST(AtClosedBoundary, HasAnErrorInStoreForLackOfMemory) {
    const CF::Error error = errorAtClosedBoundary([]() -> int { throw std::bad_alloc(); });
    EXPECT_TRUE(testing_support::IsError(error, kKVErrorUnknown, "There is not enough memory"));
    EXPECT_TRUE(
        CFErrorDomainAndCodeMatch(error.GetUnderlying().get(), kCFErrorDomainPOSIX, ENOMEM));
    EXPECT_EQ(error.get(), Kelvane::OutOfMemoryError().get());
}

void needTemporaryPath() {
    const CF::Error error = errorAtClosedBoundary([] {
        Kelvane::GetTemporaryPath();
        return 0;
    });
    EXPECT_TRUE(testing_support::IsError(
        error, kKVErrorInvalidArgument,
        "Temporary storage path not set: call KelvaneSetTemporaryPath first"));
}

TEST(AtClosedBoundary, SaysThatTheTemporaryPathIsNotSet) {
    EXPECT_PASSES_IN_FRESH_PROCESS(needTemporaryPath());
}

} // namespace
