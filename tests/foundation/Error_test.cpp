#include "Kelvane/Error.hpp"

#include "support/cf/CF.hpp"
#include "support/cf/Extensions.hpp"
#include "tests/support/ErrorMatchers.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

namespace {

using Kelvane::Error;
using Kelvane::MakeFSError;
using testing_support::ReasonOf;

CF::Dictionary userInfo(const CF::Error &error) {
    return CF::Dictionary::Adopt(CFErrorCopyUserInfo(error.get()));
}

bool isFriendly(const CF::Error &error) {
    return userInfo(error).Get<CF::Boolean>(kCFErrorIsFriendlyKey).GetValue();
}

CF::String description(const CF::Error &error) {
    return userInfo(error).Get<CF::String>(kCFErrorLocalizedDescriptionKey);
}

struct CodeCase {
    std::uint32_t code;
    const char *text;
    bool friendly = false;
};

class ErrorCodes : public ::testing::TestWithParam<CodeCase> {};

TEST_P(ErrorCodes, HaveTheirText) {
    const auto code = static_cast<KVError>(GetParam().code);
    EXPECT_EQ(CF::String::GetUTF8(KVErrorGetString(code)), GetParam().text);
}

TEST_P(ErrorCodes, DescribeTheirErrors) {
    const CF::Error error = Error(static_cast<KVError>(GetParam().code));
    EXPECT_TRUE(CFEqual(error.GetDomain(), CFSTR("Kelvane.ErrorDomain")));
    EXPECT_TRUE(CFEqual(error.GetDomain(), kKVErrorDomain));
    EXPECT_EQ(error.GetCode(), static_cast<CFIndex>(GetParam().code));
    EXPECT_EQ(description(error).GetUTF8(), GetParam().text);
    EXPECT_EQ(isFriendly(error), GetParam().friendly);
    EXPECT_EQ(userInfo(error).GetCount(), GetParam().friendly ? 2 : 1);
}

INSTANTIATE_TEST_SUITE_P(
    All, ErrorCodes,
    ::testing::Values(
        CodeCase{0, ""}, CodeCase{1, "Unknown Error"},
        CodeCase{2, "Invalid argument (This is a bug, please report to developer)"},
        CodeCase{3, "Error in filesystem"}, CodeCase{4, "Error reading and writing data"},
        CodeCase{5, "No item exists in backup at this path"},
        CodeCase{6, "Requested file not in cache"}, CodeCase{7, "Error accessing cached file data"},
        CodeCase{8, "Error loading external representation of backup data"},
        CodeCase{9, "Error in archive file manipulation"}, CodeCase{10, "Invalid backup"},
        CodeCase{11, "Backup manifest database is invalid"},
        CodeCase{12,
                 "Backup metadata references an unknown manifest version (please report to "
                 "developer)",
                 true},
        CodeCase{13, "Database operation failed"},
        CodeCase{14, "Error writing backup data to external representation"},
        CodeCase{15, "Encrypted backups are not supported", true}, CodeCase{16, "File not found"},
        CodeCase{17, "Backup KeyBag is invalid"}, CodeCase{18, "Cryto operation failed"},
        CodeCase{19, "Backup is encrypted and no password specified", true},
        CodeCase{20, "Backup metadata is missing or invalid"},
        CodeCase{21, "Backup is encrypted and the specified password appears to be incorrect",
                 true},
        CodeCase{22, "An error occurred preventing the encrypted backup from being unlocked"},
        CodeCase{23, "A password was specified but backup is not encrypted."},
        CodeCase{24, "The backup archive did not contain a valid MBFile"},
        CodeCase{25, "Unknown Error"}, CodeCase{0xFFFFFFFF, "Unknown Error"}));

TEST(ErrorGetString, GivesTheSameObjectEachTime) {
    EXPECT_EQ(KVErrorGetString(kKVErrorIO), KVErrorGetString(kKVErrorIO));
}

TEST(ErrorGetString, OutlivesSurplusReleases) {
    for (int release = 0; release < 3; ++release) {
        CFRelease(KVErrorGetString(kKVErrorArchive));
    }
    const CF::Error error = Error(kKVErrorArchive);
    EXPECT_EQ(description(error).GetUTF8(), "Error in archive file manipulation");
}

TEST(Error, CarriesTheReason) {
    EXPECT_EQ(ReasonOf(Error(kKVErrorIO, nullptr, CFSTR("because"))), "because");
}

TEST(Error, LeavesAnEmptyReasonOut) {
    const CF::Error error = Error(kKVErrorIO, nullptr, CFSTR(""));
    EXPECT_FALSE(CFDictionaryContainsKey(userInfo(error).get(), kCFErrorLocalizedFailureReasonKey));
}

TEST(Error, CarriesTheUnderlyingError) {
    const CF::Error cause = Error(kKVErrorArchive, nullptr, CFSTR("deep"));
    const CF::Error error = Error(kKVErrorInvalidBackup, cause);
    EXPECT_EQ(error.GetUnderlying().get(), cause.get());
}

TEST(Error, HasNoUnderlyingKeyWithoutACause) {
    const CF::Error error = Error(kKVErrorInvalidBackup);
    EXPECT_FALSE(CFDictionaryContainsKey(userInfo(error).get(), kCFErrorUnderlyingErrorKey));
}

TEST(Error, FormatsTheReason) {
    const CF::String object("name");
    EXPECT_EQ(ReasonOf(Error(kKVErrorIO, nullptr, CFSTR("at %s"), "path")), "at path");
    EXPECT_EQ(ReasonOf(Error(kKVErrorIO, nullptr, CFSTR("of %@"), object.get())), "of name");
    EXPECT_EQ(ReasonOf(Error(kKVErrorIO, nullptr, CFSTR("%d left"), -3)), "-3 left");
    EXPECT_EQ(ReasonOf(Error(kKVErrorIO, nullptr, CFSTR("%u of %u"), 3U, 4U)), "3 of 4");
}

TEST(Error, NullFormatGivesNoReason) {
    const CF::Error error = Error(kKVErrorIO, nullptr, nullptr, 5);
    EXPECT_FALSE(CFDictionaryContainsKey(userInfo(error).get(), kCFErrorLocalizedFailureReasonKey));
}

TEST(MakeFSError, JoinsTextAndPath) {
    const CF::Error error = MakeFSError(std::runtime_error("no room"), "/some/where");
    EXPECT_TRUE(testing_support::IsError(error, kKVErrorFilesystem, "no room (/some/where)"));
    EXPECT_FALSE(error.GetUnderlying());
}

TEST(MakeFSError, PutsTheErrorNumberUnderneath) {
    const CF::Error error = MakeFSError(EISDIR, CFSTR("odd (%s)"), "/p");
    EXPECT_TRUE(testing_support::IsError(error, kKVErrorFilesystem, "odd (/p)"));
    EXPECT_TRUE(
        CFErrorDomainAndCodeMatch(error.GetUnderlying().get(), kCFErrorDomainPOSIX, EISDIR));
}

TEST(MakeFSError, ErrorNumberZeroMeansNoCause) {
    const CF::Error error = MakeFSError(0, CFSTR("odd (%s)"), "/p");
    EXPECT_TRUE(testing_support::IsError(error, kKVErrorFilesystem, "odd (/p)"));
    EXPECT_FALSE(error.GetUnderlying());
}

TEST(AtBoundary, StoresARetainedErrorAndReturnsTheFailure) {
    CFErrorRef error = nullptr;
    const int result = Kelvane::AtBoundary(&error, -1, []() -> int { throw Error(kKVErrorIO); });
    EXPECT_EQ(result, -1);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(CFGetRetainCount(error), 1);
    EXPECT_EQ(CFErrorGetCode(error), static_cast<CFIndex>(kKVErrorIO));
    CFRelease(error);
}

TEST(AtBoundary, TakesANullPointer) {
    EXPECT_FALSE(Kelvane::AtBoundary(nullptr, false, []() -> bool { throw Error(kKVErrorIO); }));
}

TEST(AtBoundary, StoresNullForAnEmptyError) {
    CFErrorRef error = Error(kKVErrorIO).detach();
    CFErrorRef const before = error;
    EXPECT_FALSE(Kelvane::AtBoundary(&error, false, []() -> bool { throw CF::Error(); }));
    EXPECT_EQ(error, nullptr);
    CFRelease(before);
}

TEST(AtBoundary, LeavesTheTargetAloneOnSuccess) {
    auto *const mark = reinterpret_cast<CFErrorRef>(std::uintptr_t{0x10});
    CFErrorRef error = mark;
    EXPECT_TRUE(Kelvane::AtBoundary(&error, false, [] { return true; }));
    EXPECT_EQ(error, mark);
}

TEST(AtBoundary, LetsForeignExceptionsPass) {
    CFErrorRef error = nullptr;
    EXPECT_THROW(
        Kelvane::AtBoundary(&error, false, []() -> bool { throw std::runtime_error("foreign"); }),
        std::runtime_error);
    EXPECT_EQ(error, nullptr);
}

TEST(LocalError, HandsOverWhatWasStored) {
    Kelvane::LocalError local;
    Kelvane::StoreError(Error(kKVErrorIO), local.out());
    EXPECT_EQ(local.get().GetCode(), static_cast<CFIndex>(kKVErrorIO));
}

TEST(LocalError, IsNullWhenNothingWasStored) {
    const Kelvane::LocalError local;
    EXPECT_FALSE(local.get());
}

} // namespace
