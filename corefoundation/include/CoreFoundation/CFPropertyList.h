/* CFPropertyList.h: object graphs to and from property-list documents.
 *
 * A property list is a string, data, number, Boolean, date, array or dictionary
 * whose members are property lists and whose dictionary keys are strings. A
 * keyed-archiver UID (CFKeyedArchiverUID.h) is carried too: as a value of its own
 * in the binary format, as a dictionary {CF$UID: n} in XML.
 *
 * Formats. Binary is "bplist00": objects, a table of their offsets and a 32-byte
 * trailer; everything big-endian. XML is XML 1.0 with the public identifier
 * "-//Apple//DTD PLIST 1.0//EN", but for what XML forbids and property lists hold all the
 * same (below). The old text format (quoted strings in braces) is neither read nor written.
 *
 * XML that is read. Files that programs have written, cut or edited by hand must not be lost
 * for small things, so the reader takes what the platform's takes, and a little more: control
 * characters, as they are and as references; white space before the declaration; anything
 * behind the root, which is ignored, such as zeros; bytes that are no UTF-8 in a text, each
 * sequence of which becomes U+FFFD (the platform refuses the file); halves of surrogate pairs;
 * dates with a fraction of a second, a leap second, or a year of any number of digits (the
 * platform refuses fractions); integers of up to 128 bits (the platform takes 64). Attributes are
 * passed over. Entities are XML's own five; a document type must not declare any. Encodings are
 * UTF-8, UTF-16 and UTF-32 with a byte order mark or without, ISO-8859-1 and Mac OS Roman.
 *
 * XML that is written. Whatever a binary list holds can be written and reads back as the same
 * here, control characters as they are, as the platform writes them. Lost is only what XML has
 * no place for: fractions of a second are cut off, and a dictionary {CF$UID: n} comes back as
 * the UID that it stands for. Refused with an error that says so are null objects, dates
 * more than 146 billion years away, and what would break the limits below. Other readers of
 * XML may refuse control characters, halves of surrogate pairs, and dates and integers beyond
 * their own limits.
 *
 * Errors. An error pointer may be null. It is written only on failure, with an
 * error of domain kCFErrorDomainCocoa and one of the codes below that the caller
 * releases; its failure reason says what is wrong and where: the byte offset in a
 * binary document, the line in an XML document, the type in an object graph.
 *
 * Limits, so that no document can exhaust the process: containers nest at most 512
 * deep in either format, a list has at most 2^22 (4,194,304) values, dictionary keys
 * included, and an XML document, read or written, is at most 128 MiB long. A binary document
 * may name one object many times; it is made once and shared, but counts wherever it stands:
 * written as XML, a megabyte of it might otherwise make gigabytes.
 *
 * Threads. All functions may be called from any thread; the objects handed in must
 * not be changed meanwhile.
 */
#ifndef COREFOUNDATION_CFPROPERTYLIST_H
#define COREFOUNDATION_CFPROPERTYLIST_H

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFData.h>
#include <CoreFoundation/CFError.h>

CF_EXTERN_C_BEGIN

/* What of the result may be changed by the caller. */
typedef CFOptionFlags CFPropertyListMutabilityOptions;
enum {
    /* Nothing. */
    kCFPropertyListImmutable = 0,
    /* Arrays and dictionaries. */
    kCFPropertyListMutableContainers = 1 << 0,
    /* Arrays, dictionaries, strings and data. Implies mutable containers. */
    kCFPropertyListMutableContainersAndLeaves = 1 << 1
};

typedef CFIndex CFPropertyListFormat;
enum {
    /* The old text format: refused wherever a format is asked for. */
    kCFPropertyListOpenStepFormat = 1,
    kCFPropertyListXMLFormat_v1_0 = 100,
    kCFPropertyListBinaryFormat_v1_0 = 200
};

/* Codes in kCFErrorDomainCocoa. */
enum {
    /* The document is malformed, or breaks one of the limits above. */
    kCFPropertyListReadCorruptError = 3840,
    /* A binary document of another version than 0 ("bplist00" to "bplist09"). */
    kCFPropertyListReadUnknownVersionError = 3841,
    /* There is nothing to read: no data, or data of no bytes. */
    kCFPropertyListReadStreamError = 3842,
    /* The object graph or the format asked for cannot be written. */
    kCFPropertyListWriteStreamError = 3851
};

/* Parses a document.
 *
 * allocator  makes the objects; null is the default.
 * data       the document: binary when it begins with "bplist", else XML (UTF-8,
 *            or UTF-16 with a byte order mark). Null or empty is an error of code
 *            3842. The bytes are copied where needed, so data may go afterwards.
 * options    CFPropertyListMutabilityOptions. Immutable objects that a binary
 *            document names twice are the same object; mutable ones as well, so a
 *            change is seen in both places.
 * format     receives the format found when it is not null and parsing succeeds.
 * error      see Errors: codes 3840, 3841, 3842.
 *
 * Returns a new reference to the root object, null on failure. Of a dictionary key
 * that is given twice, the first value holds. In XML a dictionary of the single
 * key CF$UID with an integer from 0 to 2^32-1 becomes a UID. A null object inside a
 * binary document, which some programs write, becomes kCFNull; it cannot be written.
 */
CF_EXPORT CFPropertyListRef CFPropertyListCreateWithData(CFAllocatorRef allocator, CFDataRef data,
                                                         CFOptionFlags options,
                                                         CFPropertyListFormat *format,
                                                         CFErrorRef *error);

/* Writes a document.
 *
 * format     kCFPropertyListXMLFormat_v1_0 or kCFPropertyListBinaryFormat_v1_0.
 * options    0; reserved.
 * error      see Errors: code 3851, for a null root, an object of another type
 *            than those above, a key that is no string, containers that nest too
 *            deep or hold themselves, and in XML for documents beyond 128 MiB and
 *            dates too far away.
 *
 * Returns a new data object, null on failure. Keys come out sorted by their UTF-16
 * code units in XML, so equal graphs give equal documents. In binary, equal
 * strings, numbers, dates and data are stored once.
 */
CF_EXPORT CFDataRef CFPropertyListCreateData(CFAllocatorRef allocator,
                                             CFPropertyListRef propertyList,
                                             CFPropertyListFormat format, CFOptionFlags options,
                                             CFErrorRef *error);

/* A copy of the whole graph with the mutability asked for, or null when the graph is
 * null or no property list (CFPropertyListIsValid in the binary format). The caller
 * releases it. Immutable leaves may be shared with the original, and what is immutable in the
 * copy is shared there as often as in the original. What is mutable is not: null also when
 * mutable texts and data would take more than 256 MiB together. */
CF_EXPORT CFPropertyListRef CFPropertyListCreateDeepCopy(CFAllocatorRef allocator,
                                                         CFPropertyListRef propertyList,
                                                         CFOptionFlags mutabilityOption);

/* True when the graph holds nothing but property-list types, keys are strings, no
 * container holds itself or nests too deep, and the format is XML or binary. Null
 * is not valid. Sizes and dates are not checked for what XML can carry. */
CF_EXPORT Boolean CFPropertyListIsValid(CFPropertyListRef plist, CFPropertyListFormat format);

CF_EXTERN_C_END

#endif
