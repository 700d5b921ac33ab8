/* CFError.h: errors as objects: a domain, a code in it, and a dictionary of texts.
 *
 * A function that can fail takes a CFErrorRef * that may be null. When it fails, and
 * only then, it stores an error there that the caller releases.
 *
 * Errors are immutable and may be used by any number of threads, if what their
 * dictionaries hold may be.
 *
 * Faults. A null error or domain is a programming error and aborts.
 */
#ifndef COREFOUNDATION_CFERROR_H
#define COREFOUNDATION_CFERROR_H

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDictionary.h>

typedef CFStringRef CFErrorDomain;
typedef struct __CFError *CFErrorRef;

/* Codes are errno values; texts come from the system ("NSPOSIXErrorDomain"). */
CF_EXPORT const CFErrorDomain kCFErrorDomainPOSIX;
/* Codes are OSStatus values ("NSOSStatusErrorDomain"). */
CF_EXPORT const CFErrorDomain kCFErrorDomainOSStatus;
/* Codes are kernel return values ("NSMachErrorDomain"). */
CF_EXPORT const CFErrorDomain kCFErrorDomainMach;
/* Codes of the frameworks themselves ("NSCocoaErrorDomain"). */
CF_EXPORT const CFErrorDomain kCFErrorDomainCocoa;

/* Keys of the user-info dictionary; the values are strings unless it says otherwise. */
/* A whole description for end users ("NSLocalizedDescription"). */
CF_EXPORT const CFStringRef kCFErrorLocalizedDescriptionKey;
/* What failed, a whole sentence ("NSLocalizedFailure"). */
CF_EXPORT const CFStringRef kCFErrorLocalizedFailureKey;
/* Why it failed, a whole sentence ("NSLocalizedFailureReason"). */
CF_EXPORT const CFStringRef kCFErrorLocalizedFailureReasonKey;
/* What the user can do about it ("NSLocalizedRecoverySuggestion"). */
CF_EXPORT const CFStringRef kCFErrorLocalizedRecoverySuggestionKey;
/* A text for developers, used when there is none for users ("NSDescription"). */
CF_EXPORT const CFStringRef kCFErrorDescriptionKey;
/* The error beneath this one, a CFErrorRef ("NSUnderlyingError"). */
CF_EXPORT const CFStringRef kCFErrorUnderlyingErrorKey;
/* The URL that the error is about ("NSURL"). */
CF_EXPORT const CFStringRef kCFErrorURLKey;
/* The path of the file that the error is about ("NSFilePath"). */
CF_EXPORT const CFStringRef kCFErrorFilePathKey;

CF_EXPORT CFTypeID CFErrorGetTypeID(void);
/* A new error; the caller releases it. The dictionary is copied; null means none. */
CF_EXPORT CFErrorRef CFErrorCreate(CFAllocatorRef allocator, CFErrorDomain domain, CFIndex code,
                                   CFDictionaryRef userInfo);
/* The same with the dictionary given as arrays of numUserInfoValues objects; they may be
 * null when the number is 0. */
CF_EXPORT CFErrorRef CFErrorCreateWithUserInfoKeysAndValues(CFAllocatorRef allocator,
                                                            CFErrorDomain domain, CFIndex code,
                                                            const void *const *userInfoKeys,
                                                            const void *const *userInfoValues,
                                                            CFIndex numUserInfoValues);
/* The domain; borrowed. */
CF_EXPORT CFErrorDomain CFErrorGetDomain(CFErrorRef err);
CF_EXPORT CFIndex CFErrorGetCode(CFErrorRef err);
/* The dictionary, never null; the caller releases it. */
CF_EXPORT CFDictionaryRef CFErrorCopyUserInfo(CFErrorRef err);
/* A text for end users, never null; the caller releases it. The first of these that the
 * dictionary allows:
 * - the localized description;
 * - the localized failure, with the failure reason after it when there is one;
 * - "The operation couldn’t be completed. REASON" with the failure reason;
 * - "The operation couldn’t be completed. (DOMAIN error CODE - TEXT)" with the developers'
 *   text, or for a POSIX error the system's text for the code;
 * - "The operation couldn’t be completed. (DOMAIN error CODE.)". */
CF_EXPORT CFStringRef CFErrorCopyDescription(CFErrorRef err);
/* Why it failed, or null; the caller releases it. For a POSIX error without a reason of
 * its own, the system's text for the code. */
CF_EXPORT CFStringRef CFErrorCopyFailureReason(CFErrorRef err);
/* What the user can do, or null; the caller releases it. */
CF_EXPORT CFStringRef CFErrorCopyRecoverySuggestion(CFErrorRef err);

#endif
