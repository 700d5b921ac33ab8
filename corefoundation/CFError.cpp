#include <CoreFoundation/CFError.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Checks.hpp"
#include "corefoundation/Description.hpp"
#include "corefoundation/MixHash.hpp"

#include <CoreFoundation/CFString.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

struct __CFError {
    CFRuntimeBase base;
    CFErrorDomain domain;
    CFIndex code;
    CFDictionaryRef userInfo;
};

using namespace CFInternal;

const CFErrorDomain kCFErrorDomainPOSIX = CFSTR("NSPOSIXErrorDomain");
const CFErrorDomain kCFErrorDomainOSStatus = CFSTR("NSOSStatusErrorDomain");
const CFErrorDomain kCFErrorDomainMach = CFSTR("NSMachErrorDomain");
const CFErrorDomain kCFErrorDomainCocoa = CFSTR("NSCocoaErrorDomain");

const CFStringRef kCFErrorLocalizedDescriptionKey = CFSTR("NSLocalizedDescription");
const CFStringRef kCFErrorLocalizedFailureKey = CFSTR("NSLocalizedFailure");
const CFStringRef kCFErrorLocalizedFailureReasonKey = CFSTR("NSLocalizedFailureReason");
const CFStringRef kCFErrorLocalizedRecoverySuggestionKey = CFSTR("NSLocalizedRecoverySuggestion");
const CFStringRef kCFErrorDescriptionKey = CFSTR("NSDescription");
const CFStringRef kCFErrorUnderlyingErrorKey = CFSTR("NSUnderlyingError");
const CFStringRef kCFErrorURLKey = CFSTR("NSURL");
const CFStringRef kCFErrorFilePathKey = CFSTR("NSFilePath");

namespace {

constexpr const char *kNotCompleted = "The operation couldn\u2019t be completed. ";

CFErrorRef checked(CFErrorRef error, const char *function) {
    requireType(error, kErrorTypeID, function);
    return error;
}

// The text of a key, or nothing when there is none or it is no string; borrowed.
CFStringRef textFor(CFErrorRef error, CFStringRef key) {
    CFTypeRef value = CFDictionaryGetValue(error->userInfo, key);
    const bool isString = value != nullptr && typeIDOf(value) == kStringTypeID;
    return isString ? static_cast<CFStringRef>(value) : nullptr;
}

CFStringRef copyTextFor(CFErrorRef error, CFStringRef key) {
    CFStringRef text = textFor(error, key);
    return text == nullptr ? nullptr : static_cast<CFStringRef>(CFRetain(text));
}

std::optional<std::string> utf8For(CFErrorRef error, CFStringRef key) {
    CFStringRef text = textFor(error, key);
    return text == nullptr ? std::nullopt : std::optional(utf8Of(text));
}

// The system's text for an errno value.
std::optional<std::string> systemText(CFErrorRef error) {
    const CFIndex code = error->code;
    if (!CFEqual(error->domain, kCFErrorDomainPOSIX) || code < std::numeric_limits<int>::min() ||
        code > std::numeric_limits<int>::max()) {
        return std::nullopt;
    }
    std::array<char, 256> buffer{};
    return strerror_r(static_cast<int>(code), buffer.data(), buffer.size());
}

// Without a reason: "(DOMAIN error CODE.)", with the developers' text when there is one.
std::string domainAndCode(CFErrorRef error) {
    const std::string start = "(" + utf8Of(error->domain) + " error " + std::to_string(error->code);
    auto text = utf8For(error, kCFErrorDescriptionKey);
    if (!text.has_value()) {
        text = systemText(error);
    }
    return text.has_value() ? start + " - " + *text + ")" : start + ".)";
}

std::string describeFailure(CFErrorRef error) {
    const auto failure = utf8For(error, kCFErrorLocalizedFailureKey);
    const auto reason = utf8For(error, kCFErrorLocalizedFailureReasonKey);
    if (failure.has_value()) {
        return reason.has_value() ? *failure + " " + *reason : *failure;
    }
    return kNotCompleted + (reason.has_value() ? *reason : domainAndCode(error));
}

CFStringRef copyDescription(CFErrorRef error) {
    CFStringRef text = copyTextFor(error, kCFErrorLocalizedDescriptionKey);
    return text != nullptr ? text : createString(describeFailure(error));
}

CFDictionaryRef createUserInfo(CFAllocatorRef allocator, const void *const *keys,
                               const void *const *values, CFIndex count) {
    // The dictionary only reads the arrays.
    return CFDictionaryCreate(allocator, const_cast<const void **>(keys),
                              const_cast<const void **>(values), count,
                              &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
}

// Takes over the dictionary.
CFErrorRef createError(CFAllocatorRef allocator, CFErrorDomain domain, CFIndex code,
                       CFDictionaryRef userInfo) {
    if (userInfo == nullptr) {
        return nullptr;
    }
    auto *error = static_cast<CFErrorRef>(
        allocateInstance(allocator, kErrorTypeID, sizeof(__CFError) - sizeof(CFRuntimeBase)));
    if (error == nullptr) {
        CFRelease(userInfo);
        return nullptr;
    }
    error->domain = CFStringCreateCopy(allocator, domain);
    error->code = code;
    error->userInfo = userInfo;
    if (error->domain == nullptr) {
        CFRelease(error);
        return nullptr;
    }
    return error;
}

void finalizeError(CFTypeRef cf) {
    const auto *error = static_cast<const __CFError *>(cf);
    if (error->domain != nullptr) {
        CFRelease(error->domain);
    }
    CFRelease(error->userInfo);
}

Boolean equalErrors(CFTypeRef cf1, CFTypeRef cf2) {
    const auto *a = static_cast<const __CFError *>(cf1);
    const auto *b = static_cast<const __CFError *>(cf2);
    return a->code == b->code && CFEqual(a->domain, b->domain) && CFEqual(a->userInfo, b->userInfo);
}

CFHashCode hashError(CFTypeRef cf) {
    const auto *error = static_cast<const __CFError *>(cf);
    return mixHash(CFHash(error->domain) ^ static_cast<CFHashCode>(error->code));
}

// "key=value" for each pair, sorted: descriptions of equal errors are equal.
std::string userInfoText(CFErrorRef error, const DescriptionScope &scope) {
    const auto count = static_cast<std::size_t>(CFDictionaryGetCount(error->userInfo));
    std::vector<const void *> keys(count);
    std::vector<const void *> values(count);
    CFDictionaryGetKeysAndValues(error->userInfo, keys.data(), values.data());
    std::vector<std::string> pairs;
    for (std::size_t i = 0; i < count && scope.takeValue(); ++i) {
        pairs.push_back(describeValue(keys[i], CFCopyDescription) + "=" +
                        describeValue(values[i], CFCopyDescription));
    }
    std::sort(pairs.begin(), pairs.end());
    std::string text;
    for (const std::string &pair : pairs) {
        text += (text.empty() ? "" : ", ") + pair;
    }
    return text;
}

CFStringRef describeError(CFTypeRef cf, CFDictionaryRef) {
    auto *error = static_cast<CFErrorRef>(const_cast<void *>(cf));
    const DescriptionScope scope(cf);
    if (!scope.isOpen()) {
        return createString("Error ...");
    }
    const Owner description(copyDescription(error));
    requireMemory(description.get() != nullptr);
    std::string text = "Error Domain=" + utf8Of(error->domain) +
                       " Code=" + std::to_string(error->code) + " \"" + utf8Of(description.get()) +
                       "\"";
    if (CFDictionaryGetCount(error->userInfo) > 0) {
        text += " UserInfo={" + userInfoText(error, scope) + "}";
    }
    return createString(text);
}

} // namespace

constinit const CFRuntimeClass CFInternal::kErrorClass = {
    0, "CFError", nullptr, nullptr, finalizeError, equalErrors, hashError, describeError, nullptr};

CFTypeID CFErrorGetTypeID(void) { return kErrorTypeID; }

CFErrorRef CFErrorCreate(CFAllocatorRef allocator, CFErrorDomain domain, CFIndex code,
                         CFDictionaryRef userInfo) {
    requireType(domain, kStringTypeID, __func__);
    return createError(allocator, domain, code,
                       userInfo == nullptr ? createUserInfo(allocator, nullptr, nullptr, 0)
                                           : CFDictionaryCreateCopy(allocator, userInfo));
}

CFErrorRef CFErrorCreateWithUserInfoKeysAndValues(CFAllocatorRef allocator, CFErrorDomain domain,
                                                  CFIndex code, const void *const *userInfoKeys,
                                                  const void *const *userInfoValues,
                                                  CFIndex numUserInfoValues) {
    requireType(domain, kStringTypeID, __func__);
    return createError(allocator, domain, code,
                       createUserInfo(allocator, userInfoKeys, userInfoValues, numUserInfoValues));
}

CFErrorDomain CFErrorGetDomain(CFErrorRef err) { return checked(err, __func__)->domain; }

CFIndex CFErrorGetCode(CFErrorRef err) { return checked(err, __func__)->code; }

CFDictionaryRef CFErrorCopyUserInfo(CFErrorRef err) {
    return static_cast<CFDictionaryRef>(CFRetain(checked(err, __func__)->userInfo));
}

CFStringRef CFErrorCopyDescription(CFErrorRef err) {
    checked(err, __func__);
    return nullWhenOutOfMemory([&] { return copyDescription(err); });
}

CFStringRef CFErrorCopyFailureReason(CFErrorRef err) {
    CFStringRef reason = copyTextFor(checked(err, __func__), kCFErrorLocalizedFailureReasonKey);
    if (reason != nullptr) {
        return reason;
    }
    return nullWhenOutOfMemory([&] {
        const auto text = systemText(err);
        return text.has_value() ? createString(*text) : nullptr;
    });
}

CFStringRef CFErrorCopyRecoverySuggestion(CFErrorRef err) {
    return copyTextFor(checked(err, __func__), kCFErrorLocalizedRecoverySuggestionKey);
}
