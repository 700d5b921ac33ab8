// Small operations that the platform's CoreFoundation lacks.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

// A user-info key: kCFBooleanTrue says that the description is fit for end users.
#define kCFErrorIsFriendlyKey CFSTR("kCFErrorIsFriendlyKey")

extern "C" {

// A new error in kCFErrorDomainPOSIX with the code; userInfo may be null.
CFErrorRef CFErrorCreatePOSIXError(CFAllocatorRef allocator, CFIndex code,
                                   CFDictionaryRef userInfo);
// True when the error is not null and has that domain and code.
Boolean CFErrorDomainAndCodeMatch(CFErrorRef error, CFStringRef domain, CFIndex code);
// Sets every pair of source in destination; a null source does nothing.
void CFDictionarySetValues(CFMutableDictionaryRef destination, CFDictionaryRef source);
// The text as a new NUL-terminated C string that the caller frees with free(); null
// for null, when the text has no form in the encoding, and when it holds a NUL itself.
char *CFStringCopyCString(CFStringRef string, CFStringEncoding encoding);
// The bytes of the text in UTF-8, without a terminator; null for null. Lone surrogates,
// which have no UTF-8 form, become U+FFFD.
CFDataRef CFDataCreateFromUTF8String(CFAllocatorRef allocator, CFStringRef string);
// The text whose UTF-8 bytes the data holds; null for null and for bytes that are not UTF-8.
CFStringRef CFDataCopyUTF8String(CFDataRef data);
// RFC 4648 base64 with padding and no line breaks; null for null.
CFStringRef CFDataCopyBase64Representation(CFDataRef data);
}
