#include "tests/corefoundation/Objects.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <initializer_list>
#include <utility>

using namespace Objects;

namespace {

using ErrorPointer = CF::Pointer<CFErrorRef>;
using Texts = std::initializer_list<std::pair<CFStringRef, CFTypeRef>>;

ErrorPointer Error(CFErrorDomain domain, CFIndex code, Texts texts = {}) {
    std::vector<const void *> keys;
    std::vector<const void *> values;
    for (const auto &[key, value] : texts) {
        keys.push_back(key);
        values.push_back(value);
    }
    return Adopt(CFErrorCreateWithUserInfoKeysAndValues(
        nullptr, domain, code, keys.data(), values.data(), static_cast<CFIndex>(keys.size())));
}

std::string DescriptionOf(const ErrorPointer &error) {
    return UTF8(Adopt(CFErrorCopyDescription(error.get())).get());
}

std::string ReasonOf(const ErrorPointer &error) {
    return UTF8(Adopt(CFErrorCopyFailureReason(error.get())).get());
}

} // namespace

TEST(CFError, KeepsDomainAndCode) {
    const auto error = Error(CFSTR("domain"), -5);
    EXPECT_EQ(UTF8(CFErrorGetDomain(error.get())), "domain");
    EXPECT_EQ(CFErrorGetCode(error.get()), -5);
    EXPECT_EQ(CFGetTypeID(error.get()), CFErrorGetTypeID());
}

TEST(CFError, HasAnEmptyDictionaryWithoutOne) {
    const auto error = Adopt(CFErrorCreate(nullptr, CFSTR("domain"), 1, nullptr));
    const auto info = Adopt(CFErrorCopyUserInfo(error.get()));
    ASSERT_TRUE(info);
    EXPECT_EQ(CFDictionaryGetCount(info.get()), 0);
}

TEST(CFError, CopiesTheDictionary) {
    const auto info = Adopt(CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                      &kCFTypeDictionaryValueCallBacks));
    CFDictionarySetValue(info.get(), kCFErrorLocalizedDescriptionKey, CFSTR("before"));
    const auto error = Adopt(CFErrorCreate(nullptr, CFSTR("domain"), 1, info.get()));
    CFDictionarySetValue(info.get(), kCFErrorLocalizedDescriptionKey, CFSTR("after"));
    EXPECT_EQ(DescriptionOf(error), "before");
}

TEST(CFError, CopiesADomainThatMayChange) {
    const auto domain = Adopt(CFStringCreateMutableCopy(nullptr, 0, CFSTR("domain")));
    const auto error = Error(domain.get(), 1);
    CFStringAppend(domain.get(), CFSTR("!"));
    EXPECT_EQ(UTF8(CFErrorGetDomain(error.get())), "domain");
}

TEST(CFError, NamesThePlatformsDomains) {
    EXPECT_EQ(UTF8(kCFErrorDomainPOSIX), "NSPOSIXErrorDomain");
    EXPECT_EQ(UTF8(kCFErrorDomainOSStatus), "NSOSStatusErrorDomain");
    EXPECT_EQ(UTF8(kCFErrorDomainMach), "NSMachErrorDomain");
    EXPECT_EQ(UTF8(kCFErrorDomainCocoa), "NSCocoaErrorDomain");
}

TEST(CFError, NamesThePlatformsKeys) {
    EXPECT_EQ(UTF8(kCFErrorLocalizedDescriptionKey), "NSLocalizedDescription");
    EXPECT_EQ(UTF8(kCFErrorLocalizedFailureKey), "NSLocalizedFailure");
    EXPECT_EQ(UTF8(kCFErrorLocalizedFailureReasonKey), "NSLocalizedFailureReason");
    EXPECT_EQ(UTF8(kCFErrorLocalizedRecoverySuggestionKey), "NSLocalizedRecoverySuggestion");
    EXPECT_EQ(UTF8(kCFErrorDescriptionKey), "NSDescription");
    EXPECT_EQ(UTF8(kCFErrorUnderlyingErrorKey), "NSUnderlyingError");
    EXPECT_EQ(UTF8(kCFErrorURLKey), "NSURL");
    EXPECT_EQ(UTF8(kCFErrorFilePathKey), "NSFilePath");
}

TEST(CFError, DescribesItselfByTheLocalizedDescription) {
    const auto error = Error(CFSTR("d"), 1,
                             {{kCFErrorLocalizedDescriptionKey, CFSTR("Description")},
                              {kCFErrorLocalizedFailureKey, CFSTR("Failure")},
                              {kCFErrorLocalizedFailureReasonKey, CFSTR("Reason")}});
    EXPECT_EQ(DescriptionOf(error), "Description");
    EXPECT_EQ(ReasonOf(error), "Reason");
}

TEST(CFError, DescribesItselfByFailureAndReason) {
    EXPECT_EQ(DescriptionOf(Error(CFSTR("d"), 1,
                                  {{kCFErrorLocalizedFailureKey, CFSTR("It failed.")},
                                   {kCFErrorLocalizedFailureReasonKey, CFSTR("Because.")}})),
              "It failed. Because.");
    EXPECT_EQ(DescriptionOf(Error(CFSTR("d"), 1, {{kCFErrorLocalizedFailureKey, CFSTR("Bad.")}})),
              "Bad.");
}

TEST(CFError, DescribesItselfByTheReasonAlone) {
    EXPECT_EQ(DescriptionOf(
                  Error(CFSTR("d"), 1, {{kCFErrorLocalizedFailureReasonKey, CFSTR("Because.")}})),
              "The operation couldn\u2019t be completed. Because.");
}

TEST(CFError, DescribesItselfByDomainAndCode) {
    EXPECT_EQ(DescriptionOf(Error(CFSTR("my.domain"), 42)),
              "The operation couldn\u2019t be completed. (my.domain error 42.)");
}

TEST(CFError, DescribesItselfWithTheDevelopersText) {
    EXPECT_EQ(DescriptionOf(Error(CFSTR("d"), 1, {{kCFErrorDescriptionKey, CFSTR("details")}})),
              "The operation couldn\u2019t be completed. (d error 1 - details)");
}

TEST(CFError, IgnoresTextsThatAreNoStrings) {
    EXPECT_EQ(
        DescriptionOf(Error(CFSTR("d"), 1, {{kCFErrorLocalizedDescriptionKey, kCFBooleanTrue}})),
        "The operation couldn\u2019t be completed. (d error 1.)");
}

TEST(CFError, TakesTheTextsOfPOSIXErrorsFromTheSystem) {
    const auto error = Error(kCFErrorDomainPOSIX, ENOENT);
    EXPECT_EQ(DescriptionOf(error), "The operation couldn\u2019t be completed. "
                                    "(NSPOSIXErrorDomain error 2 - No such file or directory)");
    EXPECT_EQ(ReasonOf(error), "No such file or directory");
}

TEST(CFError, PrefersTheReasonOfAPOSIXErrorToTheSystems) {
    const auto error =
        Error(kCFErrorDomainPOSIX, ENOENT, {{kCFErrorLocalizedFailureReasonKey, CFSTR("Mine.")}});
    EXPECT_EQ(ReasonOf(error), "Mine.");
    EXPECT_EQ(DescriptionOf(error), "The operation couldn\u2019t be completed. Mine.");
}

TEST(CFError, SurvivesPOSIXCodesThatAreNone) {
    EXPECT_EQ(ReasonOf(Error(kCFErrorDomainPOSIX, INT64_MAX)), "(null)");
    EXPECT_NE(ReasonOf(Error(kCFErrorDomainPOSIX, -1)), "(null)");
}

TEST(CFError, HasNoReasonOrSuggestionOfItsOwn) {
    const auto error = Error(CFSTR("d"), 1);
    EXPECT_EQ(CFErrorCopyFailureReason(error.get()), nullptr);
    EXPECT_EQ(CFErrorCopyRecoverySuggestion(error.get()), nullptr);
}

TEST(CFError, GivesItsRecoverySuggestion) {
    const auto error =
        Error(CFSTR("d"), 1, {{kCFErrorLocalizedRecoverySuggestionKey, CFSTR("Try again.")}});
    EXPECT_EQ(UTF8(Adopt(CFErrorCopyRecoverySuggestion(error.get())).get()), "Try again.");
}

TEST(CFError, HoldsTheErrorBeneath) {
    const auto cause = Error(CFSTR("cause"), 2);
    const auto error = Error(CFSTR("d"), 1, {{kCFErrorUnderlyingErrorKey, cause.get()}});
    const auto info = Adopt(CFErrorCopyUserInfo(error.get()));
    EXPECT_EQ(CFDictionaryGetValue(info.get(), kCFErrorUnderlyingErrorKey), cause.get());
    EXPECT_EQ(CFGetRetainCount(cause.get()), 2);
}

TEST(CFError, IsEqualByDomainCodeAndDictionary) {
    EXPECT_TRUE(CFEqual(Error(CFSTR("d"), 1).get(), Error(CFSTR("d"), 1).get()));
    EXPECT_EQ(CFHash(Error(CFSTR("d"), 1).get()), CFHash(Error(CFSTR("d"), 1).get()));
    EXPECT_FALSE(CFEqual(Error(CFSTR("d"), 1).get(), Error(CFSTR("d"), 2).get()));
    EXPECT_FALSE(CFEqual(Error(CFSTR("d"), 1).get(), Error(CFSTR("e"), 1).get()));
    EXPECT_FALSE(
        CFEqual(Error(CFSTR("d"), 1).get(),
                Error(CFSTR("d"), 1, {{kCFErrorLocalizedDescriptionKey, CFSTR("text")}}).get()));
}

TEST(CFError, PrintsDomainCodeTextAndDictionary) {
    const auto cause = Error(CFSTR("cause"), 2);
    const auto error = Error(CFSTR("d"), 1,
                             {{kCFErrorLocalizedDescriptionKey, CFSTR("Two words")},
                              {kCFErrorUnderlyingErrorKey, cause.get()}});
    EXPECT_EQ(Description(error.get()),
              "Error Domain=d Code=1 \"Two words\" UserInfo={NSLocalizedDescription=\"Two words\", "
              "NSUnderlyingError=Error Domain=cause Code=2 "
              "\"The operation couldn\u2019t be completed. (cause error 2.)\"}");
}

TEST(CFError, PrintsALongChainWithoutDescendingForEver) {
    ErrorPointer error = Error(CFSTR("d"), 0);
    for (CFIndex i = 1; i < 100; ++i) {
        error = Error(CFSTR("d"), i, {{kCFErrorUnderlyingErrorKey, error.get()}});
    }
    const std::string text = Description(error.get());
    EXPECT_EQ(text.find("Error Domain=d Code=99"), 0U);
    EXPECT_NE(text.find("Error ..."), std::string::npos);
}

TEST(CFErrorDeathTest, RefusesNull) {
    EXPECT_DEATH(CFErrorGetCode(nullptr), "CFErrorGetCode");
    EXPECT_DEATH(CFErrorCreate(nullptr, nullptr, 1, nullptr), "CFErrorCreate");
}
