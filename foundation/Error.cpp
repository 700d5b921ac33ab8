#include "Kelvane/Error.hpp"

#include "support/cf/CF.hpp"
#include "support/cf/Extensions.hpp"

#include <array>

const CFStringRef kKVErrorDomain = CFSTR("Kelvane.ErrorDomain");

namespace {

// Texts by code; code 1 has none of its own and shares the fallback.
constexpr std::array<const char *, 25> kTexts = {
    "",
    "Unknown Error",
    "Invalid argument (This is a bug, please report to developer)",
    "Error in filesystem",
    "Error reading and writing data",
    "No item exists in backup at this path",
    "Requested file not in cache",
    "Error accessing cached file data",
    "Error loading external representation of backup data",
    "Error in archive file manipulation",
    "Invalid backup",
    "Backup manifest database is invalid",
    "Backup metadata references an unknown manifest version (please report to developer)",
    "Database operation failed",
    "Error writing backup data to external representation",
    "Encrypted backups are not supported",
    "File not found",
    "Backup KeyBag is invalid",
    "Cryto operation failed",
    "Backup is encrypted and no password specified",
    "Backup metadata is missing or invalid",
    "Backup is encrypted and the specified password appears to be incorrect",
    "An error occurred preventing the encrypted backup from being unlocked",
    "A password was specified but backup is not encrypted.",
    "The backup archive did not contain a valid MBFile",
};

// Errors whose text an end user can act upon.
bool isFriendly(KVError code) {
    return code == kKVErrorUnknownManifestVersion || code == kKVErrorEncryptionUnsupported ||
           code == kKVErrorPasswordRequired || code == kKVErrorIncorrectPassword;
}

std::array<CFStringRef, kTexts.size()> makeStrings() {
    std::array<CFStringRef, kTexts.size()> strings{};
    for (std::size_t i = 0; i < kTexts.size(); ++i) {
        strings[i] =
            CFStringCreateWithCString(kCFAllocatorDefault, kTexts[i], kCFStringEncodingUTF8);
    }
    return strings;
}

} // namespace

CFStringRef KVErrorGetString(KVError code) {
    // Never released: callers borrow these for the life of the process.
    static const std::array<CFStringRef, kTexts.size()> strings = makeStrings();
    const auto index = static_cast<std::size_t>(code);
    return index < strings.size() ? strings[index] : strings[kKVErrorUnknown];
}

namespace Kelvane {

CF::Error Error(KVError code, const CF::Error &underlying, const CF::String &reason) {
    const auto info = CF::Dictionary::Mutable();
    info.Set(kCFErrorLocalizedDescriptionKey, KVErrorGetString(code));
    if (reason.GetLength() > 0) {
        info.Set(kCFErrorLocalizedFailureReasonKey, reason.get());
    }
    if (underlying) {
        info.Set(kCFErrorUnderlyingErrorKey, underlying.get());
    }
    if (isFriendly(code)) {
        info.Set(kCFErrorIsFriendlyKey, kCFBooleanTrue);
    }
    return CF::Error::Adopt(
        CFErrorCreate(kCFAllocatorDefault, kKVErrorDomain, static_cast<CFIndex>(code), info.get()));
}

CF::Error MakeFSError(const std::exception &exception, const ZK::filesystem::path &path) {
    return Error(kKVErrorFilesystem, nullptr,
                 CF::String::Format(CFSTR("%s (%s)"), exception.what(), path.c_str()));
}

CF::Error MakeFSError(int errnum, const CF::String &format, const char *argument) {
    CF::Error underlying;
    if (errnum != 0) {
        underlying =
            CF::Error::Adopt(CFErrorCreatePOSIXError(kCFAllocatorDefault, errnum, nullptr));
    }
    return Error(kKVErrorFilesystem, underlying, format, argument);
}

} // namespace Kelvane
