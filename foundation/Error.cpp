#include "Kelvane/Error.hpp"

#include "support/cf/CF.hpp"
#include "support/cf/Extensions.hpp"

#include <array>

const CFStringRef kKVErrorDomain = CFSTR("Kelvane.ErrorDomain");

namespace {

// One more than the last code.
constexpr std::size_t kCodeCount = kKVErrorInvalidMBFile + 1;

// Errors whose text an end user can act upon.
bool isFriendly(KVError code) {
    return code == kKVErrorUnknownManifestVersion || code == kKVErrorEncryptionUnsupported ||
           code == kKVErrorPasswordRequired || code == kKVErrorIncorrectPassword;
}

// By code; code 1 has no text of its own and shares the fallback. Constants, which no
// release frees: callers borrow them, and one that releases a text too often must not take it
// from under the errors to come.
const std::array<CFStringRef, kCodeCount> &texts() {
    static const std::array<CFStringRef, kCodeCount> kTexts = {
        CFSTR(""),
        CFSTR("Unknown Error"),
        CFSTR("Invalid argument (This is a bug, please report to developer)"),
        CFSTR("Error in filesystem"),
        CFSTR("Error reading and writing data"),
        CFSTR("No item exists in backup at this path"),
        CFSTR("Requested file not in cache"),
        CFSTR("Error accessing cached file data"),
        CFSTR("Error loading external representation of backup data"),
        CFSTR("Error in archive file manipulation"),
        CFSTR("Invalid backup"),
        CFSTR("Backup manifest database is invalid"),
        CFSTR(
            "Backup metadata references an unknown manifest version (please report to developer)"),
        CFSTR("Database operation failed"),
        CFSTR("Error writing backup data to external representation"),
        CFSTR("Encrypted backups are not supported"),
        CFSTR("File not found"),
        CFSTR("Backup KeyBag is invalid"),
        CFSTR("Cryto operation failed"),
        CFSTR("Backup is encrypted and no password specified"),
        CFSTR("Backup metadata is missing or invalid"),
        CFSTR("Backup is encrypted and the specified password appears to be incorrect"),
        CFSTR("An error occurred preventing the encrypted backup from being unlocked"),
        CFSTR("A password was specified but backup is not encrypted."),
        CFSTR("The backup archive did not contain a valid MBFile"),
    };
    return kTexts;
}

} // namespace

CFStringRef KVErrorGetString(KVError code) {
    const auto index = static_cast<std::size_t>(code);
    return texts()[index < kCodeCount ? index : std::size_t{kKVErrorUnknown}];
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
    return CF::Error::Adopt(CF::Made(CFErrorCreate(kCFAllocatorDefault, kKVErrorDomain,
                                                   static_cast<CFIndex>(code), info.get())));
}

CF::Error MakeFSError(const std::exception &exception, const ZK::filesystem::path &path) {
    return Error(kKVErrorFilesystem, nullptr,
                 CF::String::Format(CFSTR("%s (%s)"), exception.what(), path.c_str()));
}

CF::Error MakeFSError(int errnum, const CF::String &format, const char *argument) {
    CF::Error underlying;
    if (errnum != 0) {
        underlying = CF::Error::Adopt(
            CF::Made(CFErrorCreatePOSIXError(kCFAllocatorDefault, errnum, nullptr)));
    }
    return Error(kKVErrorFilesystem, underlying, format, argument);
}

} // namespace Kelvane
