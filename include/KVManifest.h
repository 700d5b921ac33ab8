/* KVManifest.h: the set of entries of one backup.
 *
 * A manifest lists every file, directory and symbolic link that a backup holds, in
 * the order in which they were read or set, with the running totals and the format
 * version that it was read in. Entries change through KVManifestUpdateEntries and through
 * edits of the container that holds the manifest (KVBackupContainer.h).
 *
 * Lookups build tables on first use, so the first lookup of a kind costs time in
 * proportion to the manifest (by path: also to the domain), and later ones do not.
 * KVManifestUpdateEntries drops the tables. An edit keeps them and costs the same in a
 * large manifest as in a small one. Strings are compared code unit by code unit: case
 * counts, and the composed and decomposed forms of a letter differ.
 *
 * Threads. There is no lock, and lookups fill tables: one manifest is used by one
 * thread at a time.
 *
 * Size. Readers refuse a manifest of more than 10,000,000 entries, or whose entries would
 * keep more than about 2 GiB of memory (entries of devices keep some 450 to 850 bytes): code 10,
 * "The manifest has too many entries" or "The manifest's entries take too much memory".
 *
 * Formats. Manifest.mbdb (version 24) is the binary file that
 * KVManifestCreateManifestDataRepresentation describes; Manifest.db (versions 30 to
 * 33) is the SQLite database of Kelvane/ManifestDB.hpp.
 */
#ifndef KVMANIFEST_H
#define KVMANIFEST_H

#include "KVBase.h"

/* ---- The type ------------------------------------------------------------- */

/* Type identifier; the same on every call. Any thread. */
KV_EXPORT CFTypeID KVManifestGetTypeID(void);

/* A new manifest without entries, its totals zero, its version
 * kKVManifestDataVersionNone. A null allocator is the default one. The caller
 * releases it. Cannot fail. */
KV_EXPORT KVManifestClass *KVManifestCreateEmpty(CFAllocatorRef allocator);

/* ---- Entries and totals --------------------------------------------------- */

/* The entries (KVManifestEntry objects) in the order in which they were read or set.
 * Borrowed until the entries change; never null. An array that was retained stays as it is:
 * the first call after a change makes a new one, in time in proportion to the manifest. */
KV_EXPORT CFArrayRef KVManifestGetEntries(KVManifestClass *manifest);

/* Replaces the entries by those of the array, which is copied (the array, not the
 * entries), recomputes both totals and forgets every lookup table. The array may be
 * the one that KVManifestGetEntries returned; it holds KVManifestEntry objects only.
 * Arrays that earlier lookups returned with a reference of the caller's own stay as
 * they are. A null array is an empty one. */
KV_EXPORT void KVManifestUpdateEntries(KVManifestClass *manifest, CFArrayRef entries);

/* The sum of the sizes of all entries, in bytes; directories and links count too. Sizes come
 * from outside and may be anything: of a sum beyond 64 bits, the nearest number. */
KV_EXPORT int64_t KVManifestGetTotalFileSize(KVManifestClass *manifest);

/* The number of entries that are files (KVManifestEntryIsFile). */
KV_EXPORT int64_t KVManifestGetTotalFileCount(KVManifestClass *manifest);

/* ---- Lookup by file ID ---------------------------------------------------- */

/* The entry with the file ID (40 lower-case hexadecimal characters, or whatever a
 * database gave), borrowed; null when there is none and for a null file ID. Of several
 * entries with one ID the last in manifest order is found. An entry without a file ID
 * is passed over and reported on standard output, each time the table is built. */
KV_EXPORT KVManifestEntryClass *KVManifestGetEntryForFileID(KVManifestClass *manifest,
                                                            CFStringRef fileID);

/* The file IDs (CFString) of all entries that are neither directories nor symbolic
 * links, in manifest order, duplicates kept. Borrowed until the entries change; never
 * null, and made as the array of entries is. Entries without a file ID are passed over and
 * reported as above. */
KV_EXPORT CFArrayRef KVManifestGetFileIDs(KVManifestClass *manifest);

/* ---- Lookup by domain and path -------------------------------------------- */

/* Entries whose domain is empty are found by none of the functions below. A null
 * domain is an unknown one. */

/* A new array with the domains (CFString) that have at least one entry, sorted by
 * UTF-16 code units. The caller releases it. */
KV_EXPORT CFArrayRef KVManifestCopyDomainsList(KVManifestClass *manifest);

/* The domain's entries in manifest order, or null when it has none. The caller
 * releases the array and must not change it: it is the manifest's own table. */
KV_EXPORT CFArrayRef KVManifestCopyEntriesInDomain(KVManifestClass *manifest, CFStringRef domain);

/* The domain's entries at the path and below it, in manifest order. The path is matched
 * by whole components, split at "/": "a/b" finds "a/b" and "a/b/c" but not "a/bc". An
 * empty or null path finds the whole domain; a trailing "/" stands for an empty last
 * component. The caller releases the array and must not change it; never null, empty
 * when nothing matches. Takes time in proportion to the result. */
KV_EXPORT CFArrayRef KVManifestCopyEntriesAtPath(KVManifestClass *manifest, CFStringRef domain,
                                                 CFStringRef path);

/* The first entry of the domain, in manifest order, whose path equals the given one,
 * borrowed; null when there is none and for a null path. */
KV_EXPORT KVManifestEntryClass *
KVManifestGetEntryMatchingPath(KVManifestClass *manifest, CFStringRef domain, CFStringRef path);

/* ---- Dump ------------------------------------------------------------------ */

/* The rows of the Manifest.db at the path as one CSV text, for inspection: a header line,
 * then a line for each row of its table Files, sorted by file ID. Lines are joined with "\n"
 * and the last has none. Each field stands in double quotes, a double quote inside is
 * doubled, and nothing else is escaped (RFC 4180), so that a value with a line break spans
 * lines. What a row's record does not have is an empty field; digests and keys are base64.
 *
 * Lines are compared by UTF-16 code units. Numbers are decimal; an inode number from 2^63 on
 * shows as negative. Extended attributes are CFCopyDescription's text of them, for people,
 * which leaves out what is beyond a megabyte. Lone surrogates, which have no form in UTF-8,
 * stand in the text as they are.
 *
 * The file is read through a private copy under the temporary path, and the lines are sorted
 * in a file beside it; both are gone at the end. Memory is needed for the text itself, once,
 * and some 32 bytes a row (20 more while rows are sorted whose file IDs begin alike). The
 * caller releases the text. Null with code 11 "Failed to parse records from manifest
 * database" over the cause:
 *   code 1   the text is too large for memory
 *   code 2   no temporary path was set
 *   code 3   one of these files fails
 *   code 13  what SQLite reports; a null path has no table Files
 *   code 24  a row without a valid record ("Missing or invalid MBFile structure"),
 *            placeholder rows among them, or with texts that are not UTF-8: one such row
 *            fails the whole dump; or "The text would be far larger than the database":
 *            more than 16 times, which takes records made to fill memory */
KV_EXPORT CFStringRef KVManifestDBCopyCSVRepresentation(CFStringRef databasePath,
                                                        CFErrorRef *error);

#ifdef __cplusplus

/* ---- Copying, reading and writing ----------------------------------------- */

/* A new manifest with fresh copies of the entries, in the same order, each with the
 * given loader, which the copy keeps too; it may be empty. Totals and placeholder rows
 * are copied; the version is not: it is kKVManifestDataVersionNone in the copy. The
 * caller releases it. */
KV_EXPORT KVManifestClass *KVManifestCreateCopy(CFAllocatorRef allocator, KVManifestClass *manifest,
                                                const KVGetFileFunction &getFileFunc);

/* Reads a Manifest.mbdb. version must be 24; every entry gets a copy of the loader.
 * progress receives (bytes read, bytes in all, fraction): once at the start with 0
 * bytes and once after each record. Returns a manifest of version 24 that the caller
 * releases, or null, after saying why on standard output, when the version is another,
 * the data has no header, or any record is malformed; a file without records is
 * malformed too. Null data is too short data. */
KV_EXPORT KVManifestClass *KVManifestCreateFromManifestData(CFAllocatorRef allocator,
                                                            CFDataRef data,
                                                            KVManifestDataVersion version,
                                                            const KVGetFileFunction &getFileFunc,
                                                            const KVProgressFunction &progress);

/* The bytes of a Manifest.mbdb with all entries, sorted by "domain-path" in UTF-16 code
 * units. All integers are big-endian; a byte string is a 16-bit length and the bytes,
 * of which there are at most 65534; texts are UTF-8:
 *
 *   header   6D 62 64 62 05 00
 *   record   domain, path, link target, digest, key record: byte strings
 *            mode u16, inode u64, uid u32, gid u32
 *            status change, modification, birth: u32 each, Unix seconds
 *            size u64, protection class u8, number of properties u8
 *            properties: name and value, byte strings
 *
 * Returns data that the caller releases, or null: code 2 ("Invalid manifest version
 * '%d' for this encoding scheme") for a version other than 24, code 1 ("Failed to
 * serialize entries %@") when an entry has no such form. */
KV_EXPORT CFDataRef KVManifestCreateManifestDataRepresentation(KVManifestClass *manifest,
                                                               KVManifestDataVersion version,
                                                               CFErrorRef *error);

/* Reads the Manifest.db at the path, through a private copy under the temporary path;
 * the file itself is not changed. version must be 30 to 33 and becomes the manifest's
 * version. progress receives (row index from 0, rows in all, fraction) once per row.
 * Rows with the flags value 16 and a file ID only are kept as placeholders, which
 * KVManifestCreateManifestDBRepresentation writes back. Returns a manifest that the
 * caller releases, or null with an error:
 *   code 2   "Invalid manifest version '%d' for this encoding scheme"
 *   code 11  "Database contains %ld invalid entries": one bad row refuses the whole
 *   code 11  "Failed to parse records from manifest database", over the cause: code 3
 *            when the copy could not be made, code 13 for what SQLite reports
 * Throws std::runtime_error when no temporary path was set. */
KV_EXPORT KVManifestClass *KVManifestCreateFromManifestDatabase(
    CFAllocatorRef allocator, CFStringRef databasePath, KVManifestDataVersion version,
    const KVGetFileFunction &getFileFunc, const KVProgressFunction &progress, CFErrorRef *error);

/* The bytes of a Manifest.db with all entries, sorted as above, and the placeholders;
 * of entries with one file ID the last in this order is kept. version must be 30 to 33;
 * the database's user_version is 2 whichever it is. The working file stays under the
 * temporary path. Returns data of at most 104857600 bytes that the caller releases.
 * Throws CF::Error: code 2 for another version, code 1 "Database initialization failed"
 * or "Failed to serialize entries %@", code 13 for what SQLite reports while rows are
 * written, code 3 when the file cannot be read back. Throws std::runtime_error when no
 * temporary path was set. */
KV_EXPORT CFDataRef KVManifestCreateManifestDBRepresentation(KVManifestClass *manifest,
                                                             KVManifestDataVersion version);

#endif

#endif
