/* CFString.h: Unicode text, immutable and mutable.
 *
 * A string is a sequence of UTF-16 code units: lengths, indexes and ranges count
 * units, and a character beyond U+FFFF takes two of them (a surrogate pair). Any
 * sequence is a valid string, lone surrogates included. Inside, text that is all
 * ASCII takes one byte a unit, other text two; two strings of the same units are
 * equal and hash equal however they are stored. Access by index is constant time.
 *
 * Arguments. A null string, an object that is no string, and an index or range
 * outside the string are programming errors and abort, unless a function says
 * otherwise. A null allocator means the default one. Functions named Create return
 * null when memory is out. Immutable strings may be shared between threads.
 */
#ifndef COREFOUNDATION_CFSTRING_H
#define COREFOUNDATION_CFSTRING_H

#include <CoreFoundation/CFBase.h>
#include <stdarg.h>

typedef const struct __CFArray *CFArrayRef;
typedef const struct __CFData *CFDataRef;
typedef const struct __CFDictionary *CFDictionaryRef;
/* No locale is implemented: every locale argument is ignored and may be null. */
typedef const struct __CFLocale *CFLocaleRef;

/* ---- Encodings ----------------------------------------------------------- */

typedef UInt32 CFStringEncoding;

/* Not an encoding: what a function returns for "none". */
#define kCFStringEncodingInvalidId (0xffffffffU)

enum {
    kCFStringEncodingMacRoman = 0,
    kCFStringEncodingISOLatin1 = 0x0201,
    /* Seven bits; a byte above 0x7F is refused. */
    kCFStringEncodingASCII = 0x0600,
    /* Strict: overlong forms, surrogates, values above U+10FFFF and truncated
     * sequences are refused. */
    kCFStringEncodingUTF8 = 0x08000100,
    /* Host byte order, unless a byte order mark of an external representation says
     * otherwise. */
    kCFStringEncodingUnicode = 0x0100,
    kCFStringEncodingUTF16 = 0x0100,
    kCFStringEncodingUTF16BE = 0x10000100,
    kCFStringEncodingUTF16LE = 0x14000100,
    /* Host byte order, as for UTF-16. Surrogates and values above U+10FFFF are refused. */
    kCFStringEncodingUTF32 = 0x0c000100,
    kCFStringEncodingUTF32BE = 0x18000100,
    kCFStringEncodingUTF32LE = 0x1c000100
};

/* True for the encodings listed above. */
CF_EXPORT Boolean CFStringIsEncodingAvailable(CFStringEncoding encoding);
/* The encoding of C strings in this process: always UTF-8. */
CF_EXPORT CFStringEncoding CFStringGetSystemEncoding(void);
/* Bytes that any text of length UTF-16 units fits into, without a terminator;
 * kCFNotFound for an unknown encoding, a negative length or a size beyond CFIndex. */
CF_EXPORT CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);

/* ---- Constant strings ------------------------------------------------------ */

/* The one immortal string of this literal's text (UTF-8): the same object for the
 * same text anywhere in the process, never freed, not to be released. The first use
 * of each place takes a lock, later ones cost a load. In C++ it may initialise
 * variables of any scope; in C it needs a function around it, since it is no
 * constant expression. */
#ifdef __cplusplus
#define CFSTR(literal)                                                                             \
    ([]() -> CFStringRef {                                                                         \
        static const CFStringRef cfConstantString_ = __CFStringMakeConstantString("" literal "");  \
        return cfConstantString_;                                                                  \
    }())
#else
#define CFSTR(literal)                                                                             \
    (__extension__({                                                                               \
        static CFStringRef cfConstantCache_;                                                       \
        CFStringRef cfConstantString_ = __atomic_load_n(&cfConstantCache_, __ATOMIC_ACQUIRE);      \
        if (!cfConstantString_) {                                                                  \
            cfConstantString_ = __CFStringMakeConstantString("" literal "");                       \
            __atomic_store_n(&cfConstantCache_, cfConstantString_, __ATOMIC_RELEASE);              \
        }                                                                                          \
        cfConstantString_;                                                                         \
    }))
#endif
/* What CFSTR calls: the interned immortal string of the text. Ill-formed UTF-8 becomes
 * U+FFFD. Any thread may call it. Borrowed; null aborts. Throws std::bad_alloc when memory is
 * out, and CFSTR then tries again the next time; CFSTR("") never does. */
CF_EXPORT CFStringRef __CFStringMakeConstantString(const char *utf8);

/* ---- Creating -------------------------------------------------------------- */

/* The type identifier of strings, mutable ones included. */
CF_EXPORT CFTypeID CFStringGetTypeID(void);

/* A new string of the NUL-terminated bytes. Null for a null pointer, bytes that are
 * ill-formed in the encoding, and the encodings of wider units (UTF-16, UTF-32). */
CF_EXPORT CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char *cStr,
                                                CFStringEncoding encoding);
/* A new string of numBytes bytes, which may include NULs. Null when they are
 * ill-formed in the encoding or numBytes is negative. With isExternalRepresentation a
 * leading byte order mark of a Unicode encoding is dropped and, for UTF-16 and UTF-32
 * without a stated order, obeyed. ASCII text costs one allocation and one copy. */
CF_EXPORT CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8 *bytes,
                                              CFIndex numBytes, CFStringEncoding encoding,
                                              Boolean isExternalRepresentation);
/* As CFStringCreateWithBytes, but takes over the bytes: the string uses them in place
 * where it can (ASCII text) and has contentsDeallocator free them when it no longer
 * needs them, which may be at once. A null contentsDeallocator means the default
 * allocator; with kCFAllocatorNull the bytes stay the caller's and must outlive the
 * string. On failure (null) the bytes are not freed. */
CF_EXPORT CFStringRef CFStringCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8 *bytes,
                                                    CFIndex numBytes, CFStringEncoding encoding,
                                                    Boolean isExternalRepresentation,
                                                    CFAllocatorRef contentsDeallocator);
/* As CFStringCreateWithCString, with the ownership of CFStringCreateWithBytesNoCopy. */
CF_EXPORT CFStringRef CFStringCreateWithCStringNoCopy(CFAllocatorRef allocator, const char *cStr,
                                                      CFStringEncoding encoding,
                                                      CFAllocatorRef contentsDeallocator);
/* A new string of numChars UTF-16 units in host order, copied. Null when numChars is
 * negative, or chars is null and numChars is not 0. */
CF_EXPORT CFStringRef CFStringCreateWithCharacters(CFAllocatorRef allocator, const UniChar *chars,
                                                   CFIndex numChars);
/* As CFStringCreateWithCharacters, using the units in place, with the ownership of
 * CFStringCreateWithBytesNoCopy. */
CF_EXPORT CFStringRef CFStringCreateWithCharactersNoCopy(CFAllocatorRef allocator,
                                                         const UniChar *chars, CFIndex numChars,
                                                         CFAllocatorRef contentsDeallocator);
/* An immutable string of the same text: a further reference to an immutable string that
 * owns its contents, else a new one. */
CF_EXPORT CFStringRef CFStringCreateCopy(CFAllocatorRef allocator, CFStringRef theString);
/* A new immutable string of the units in the range. */
CF_EXPORT CFStringRef CFStringCreateWithSubstring(CFAllocatorRef allocator, CFStringRef str,
                                                  CFRange range);
/* A new empty mutable string. maxLength (0 for none) is a hint for its first buffer. */
CF_EXPORT CFMutableStringRef CFStringCreateMutable(CFAllocatorRef allocator, CFIndex maxLength);
/* A new mutable string of the same text. */
CF_EXPORT CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef allocator, CFIndex maxLength,
                                                       CFStringRef theString);
/* The strings of an array with the separator between them, as a new string; "" for an
 * empty array. A null separator means "". */
CF_EXPORT CFStringRef CFStringCreateByCombiningStrings(CFAllocatorRef allocator,
                                                       CFArrayRef theArray,
                                                       CFStringRef separatorString);
/* The pieces of the string between occurrences of the separator, as a new array of new
 * strings; a separator at an end or beside another one gives an empty piece, and a
 * separator that does not occur or is empty gives one piece, the whole string. */
CF_EXPORT CFArrayRef CFStringCreateArrayBySeparatingStrings(CFAllocatorRef allocator,
                                                            CFStringRef theString,
                                                            CFStringRef separatorString);

/* ---- Formatting -------------------------------------------------------------- */

/* A new string made from a printf-like format and its arguments.
 *
 *   %@           a CoreFoundation object or null ("(null)"): a string's own text, else
 *                the type's formatting description, its debug description, "<Type 0x...>"
 *   %s           NUL-terminated UTF-8 bytes, null gives "(null)"; ill-formed sequences
 *                become U+FFFD. A precision limits the bytes read; a character that it
 *                would cut is left out.
 *   %S           NUL-terminated UTF-16 units, null gives "(null)"
 *   %c %C        one byte as ISO Latin 1; one UTF-16 unit
 *   %d %i %u %o %x %X   with hh h l ll q j z t; %D %U %O mean %ld %lu %lo
 *   %f %F %e %E %g %G %a %A   double, with L long double; the decimal separator is "."
 *   %p           an address as 0x and hexadecimal digits, null as "0x0"
 *   %%           a per cent sign
 *
 * Flags (- + space # 0), width and precision (also *) mean what they mean to printf;
 * for %@ and %S both count UTF-16 units. A width, and a number of digits, beyond 1048576
 * counts as that. Arguments may be given by position (%2$@, %*1$d)
 * up to position 256. %n and other unknown conversions are copied as they stand and take
 * no argument. formatOptions is handed to the objects' description callbacks and may be null.
 */
CF_EXPORT CFStringRef CFStringCreateWithFormat(CFAllocatorRef allocator,
                                               CFDictionaryRef formatOptions, CFStringRef format,
                                               ...) CF_FORMAT_FUNCTION(3, 4);
/* As CFStringCreateWithFormat; arguments is indeterminate afterwards. */
CF_EXPORT CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef allocator,
                                                           CFDictionaryRef formatOptions,
                                                           CFStringRef format, va_list arguments)
    CF_FORMAT_FUNCTION(3, 0);
/* Appends what CFStringCreateWithFormat would return. */
CF_EXPORT void CFStringAppendFormat(CFMutableStringRef theString, CFDictionaryRef formatOptions,
                                    CFStringRef format, ...) CF_FORMAT_FUNCTION(3, 4);
/* As CFStringAppendFormat; arguments is indeterminate afterwards. */
CF_EXPORT void CFStringAppendFormatAndArguments(CFMutableStringRef theString,
                                                CFDictionaryRef formatOptions, CFStringRef format,
                                                va_list arguments) CF_FORMAT_FUNCTION(3, 0);

/* ---- Reading ------------------------------------------------------------------ */

/* Number of UTF-16 units; constant time. */
CF_EXPORT CFIndex CFStringGetLength(CFStringRef theString);
/* The unit at an index; constant time. */
CF_EXPORT UniChar CFStringGetCharacterAtIndex(CFStringRef theString, CFIndex idx);
/* Copies the units of the range to buffer, which must hold range.length of them. */
CF_EXPORT void CFStringGetCharacters(CFStringRef theString, CFRange range, UniChar *buffer);
/* Encodes the range and returns how many of its units were converted.
 *
 * Conversion stops early when the next character does not fit into maxBufLen or, with a
 * lossByte of 0, has no form in the encoding; characters are never cut. With a lossByte
 * such a character becomes that byte. A lone surrogate has no form in UTF-8 and UTF-32:
 * with any lossByte it becomes U+FFFD there; UTF-16 keeps it. usedBufLen (may be null)
 * receives the bytes written. With a null buffer nothing is written, maxBufLen is ignored,
 * and usedBufLen tells the size needed.
 * isExternalRepresentation puts a byte order mark in front of UTF-16 and UTF-32 whose
 * order is not stated by the encoding. An unknown encoding converts nothing. */
CF_EXPORT CFIndex CFStringGetBytes(CFStringRef theString, CFRange range, CFStringEncoding encoding,
                                   UInt8 lossByte, Boolean isExternalRepresentation, UInt8 *buffer,
                                   CFIndex maxBufLen, CFIndex *usedBufLen);
/* Writes the whole text and a NUL to buffer and returns true; false, with an empty string
 * in the buffer if it has room, when text and NUL exceed bufferSize bytes, when the text has
 * no form in the encoding, and when it holds a NUL itself, which a reader of the result
 * would take for its end. */
CF_EXPORT Boolean CFStringGetCString(CFStringRef theString, char *buffer, CFIndex bufferSize,
                                     CFStringEncoding encoding);
/* The text as NUL-terminated bytes without copying, or null when that is not at hand
 * (text that is not ASCII, bytes of a no-copy string without terminator, a NUL within,
 * an encoding of wider units). Borrowed; valid until the string is changed or released. */
CF_EXPORT const char *CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding);
/* The units without copying, or null when the text is not stored as UTF-16. Borrowed, as
 * CFStringGetCStringPtr. */
CF_EXPORT const UniChar *CFStringGetCharactersPtr(CFStringRef theString);
/* Writes the text as a path of the file system, UTF-8 in the normalisation it has, with a
 * NUL. Fails as CFStringGetCString does. */
CF_EXPORT Boolean CFStringGetFileSystemRepresentation(CFStringRef string, char *buffer,
                                                      CFIndex maxBufLen);
/* Bytes, terminator included, that the file system representation fits into. */
CF_EXPORT CFIndex CFStringGetMaximumSizeOfFileSystemRepresentation(CFStringRef string);
/* The decimal integer at the start of the text, after white space and a sign; 0 when
 * there is none, the nearest limit of the type when it is out of range. */
CF_EXPORT SInt32 CFStringGetIntValue(CFStringRef str);
/* The decimal number at the start of the text, after white space and a sign; 0 when there
 * is none. The decimal separator is "."; infinities and NaN are not read. */
CF_EXPORT double CFStringGetDoubleValue(CFStringRef str);
/* The bytes of the text with a byte order mark where CFStringGetBytes would put one, as new
 * data. Null when a character has no form in the encoding and lossByte is 0, and for an
 * unknown encoding. */
CF_EXPORT CFDataRef CFStringCreateExternalRepresentation(CFAllocatorRef alloc,
                                                         CFStringRef theString,
                                                         CFStringEncoding encoding, UInt8 lossByte);
/* The text of data, as CFStringCreateWithBytes with isExternalRepresentation reads it. */
CF_EXPORT CFStringRef CFStringCreateFromExternalRepresentation(CFAllocatorRef alloc, CFDataRef data,
                                                               CFStringEncoding encoding);

/* ---- Comparing and searching ---------------------------------------------------- */

typedef CFOptionFlags CFStringCompareFlags;

enum {
    /* Letters that differ only in case are equal (simple Unicode case folding). */
    kCFCompareCaseInsensitive = 1,
    /* Search from the end of the range. */
    kCFCompareBackwards = 4,
    /* Match only at the start of the range, with kCFCompareBackwards only at its end. */
    kCFCompareAnchored = 8,
    /* Accepted and ignored: text is compared as it is, without normalisation. */
    kCFCompareNonliteral = 16,
    /* Accepted and ignored: there is no locale. */
    kCFCompareLocalized = 32,
    /* Runs of ASCII digits compare by value: "2" before "10". Not for searches. */
    kCFCompareNumerically = 64,
    /* Texts that the other options make equal are ordered by their units. */
    kCFCompareForcedOrdering = 512
};

/* Orders two strings. Without options by their UTF-16 code units, so that U+1F600, whose
 * first unit is 0xD83D, comes before U+FF41; a prefix comes before the longer text. */
CF_EXPORT CFComparisonResult CFStringCompare(CFStringRef theString1, CFStringRef theString2,
                                             CFStringCompareFlags compareOptions);
/* As CFStringCompare, with only the range of the first string. */
CF_EXPORT CFComparisonResult CFStringCompareWithOptions(CFStringRef theString1,
                                                        CFStringRef theString2,
                                                        CFRange rangeToCompare,
                                                        CFStringCompareFlags compareOptions);
/* The first (kCFCompareBackwards: last) occurrence in the whole string; the location is
 * kCFNotFound and the length 0 when there is none. An empty stringToFind never occurs. */
CF_EXPORT CFRange CFStringFind(CFStringRef theString, CFStringRef stringToFind,
                               CFStringCompareFlags compareOptions);
/* As CFStringFind, within a range. Returns whether it occurs; result (may be null) is
 * written only then. */
CF_EXPORT Boolean CFStringFindWithOptions(CFStringRef theString, CFStringRef stringToFind,
                                          CFRange rangeToSearch, CFStringCompareFlags searchOptions,
                                          CFRange *result);
/* Whether the string starts with the prefix, unit by unit; false for an empty prefix. */
CF_EXPORT Boolean CFStringHasPrefix(CFStringRef theString, CFStringRef prefix);
/* Whether the string ends with the suffix, unit by unit; false for an empty suffix. */
CF_EXPORT Boolean CFStringHasSuffix(CFStringRef theString, CFStringRef suffix);

/* ---- Changing mutable strings -----------------------------------------------------
 * An immutable string given for theString is a programming error and aborts. An appended or
 * inserted string may be the changed one itself. */

CF_EXPORT void CFStringAppend(CFMutableStringRef theString, CFStringRef appendedString);
/* Appends UTF-16 units; null chars with numChars 0 appends nothing. */
CF_EXPORT void CFStringAppendCharacters(CFMutableStringRef theString, const UniChar *chars,
                                        CFIndex numChars);
/* Appends NUL-terminated bytes in an encoding; nothing when they are ill-formed in it. */
CF_EXPORT void CFStringAppendCString(CFMutableStringRef theString, const char *cStr,
                                     CFStringEncoding encoding);
/* Inserts before the unit at idx; idx may be the length. */
CF_EXPORT void CFStringInsert(CFMutableStringRef str, CFIndex idx, CFStringRef insertedStr);
CF_EXPORT void CFStringDelete(CFMutableStringRef theString, CFRange range);
CF_EXPORT void CFStringReplace(CFMutableStringRef theString, CFRange range,
                               CFStringRef replacement);
/* Makes the text that of replacement. */
CF_EXPORT void CFStringReplaceAll(CFMutableStringRef theString, CFStringRef replacement);
/* Replaces the occurrences of a text that lie within the range, from its start (with
 * kCFCompareBackwards from its end), none overlapping another; returns how many. */
CF_EXPORT CFIndex CFStringFindAndReplace(CFMutableStringRef theString, CFStringRef stringToFind,
                                         CFStringRef replacementString, CFRange rangeToSearch,
                                         CFStringCompareFlags compareOptions);
/* Maps every character to lower case, independent of place and locale. */
CF_EXPORT void CFStringLowercase(CFMutableStringRef theString, CFLocaleRef locale);
/* Maps every character to upper case; one may become several (U+00DF becomes "SS"). */
CF_EXPORT void CFStringUppercase(CFMutableStringRef theString, CFLocaleRef locale);
/* Removes white space and line ends (Unicode White_Space) from both ends. */
CF_EXPORT void CFStringTrimWhitespace(CFMutableStringRef theString);

/* ---- Debugging ---------------------------------------------------------------------- */

/* Writes an object's description (a string's own text; "(null)") and a line end to standard
 * error. */
CF_EXPORT void CFShow(CFTypeRef obj);

#endif
