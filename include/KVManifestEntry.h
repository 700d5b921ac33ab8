/* KVManifestEntry.h: one record of a backup's manifest.
 *
 * An entry stands for one file, directory or symbolic link of the device, named by a
 * domain and a path relative to it. It is a CoreFoundation object; callers see it as
 * immutable. The manifest owns its entries.
 *
 * Strings, data, dictionaries and arrays of an entry are never null: what is absent
 * is empty. Times are CoreFoundation absolute times (seconds since 2001-01-01 UTC).
 *
 * Threads: entries carry no lock. Even the Get functions may complete an entry (they
 * make derived texts and resolve the content on first use), so one entry is used from
 * one thread at a time; different entries are independent.
 */
#ifndef KVMANIFESTENTRY_H
#define KVMANIFESTENTRY_H

#include "KVBase.h"

/* ---- Type ---------------------------------------------------------------- */

/* The type identifier of entries, the same on every call. Any thread. */
KV_EXPORT CFTypeID KVManifestEntryGetTypeID(void);

/* ---- What an entry names ------------------------------------------------- */

/* The backup domain, such as "HomeDomain". Borrowed. */
KV_EXPORT CFStringRef KVManifestEntryGetDomain(const KVManifestEntryClass *entry);
/* The path inside the domain, without a leading slash; empty for a domain's root. Borrowed. */
KV_EXPORT CFStringRef KVManifestEntryGetPath(const KVManifestEntryClass *entry);
/* Where a symbolic link points; empty for everything else. Borrowed. */
KV_EXPORT CFStringRef KVManifestEntryGetTarget(const KVManifestEntryClass *entry);
/* The last component of the path: all of it when it holds no slash. Borrowed. */
KV_EXPORT CFStringRef KVManifestEntryGetDeviceFilename(const KVManifestEntryClass *entry);
/* Domain, a hyphen and the path. Borrowed. */
KV_EXPORT CFStringRef KVManifestEntryGetDomainPathPair(const KVManifestEntryClass *entry);
/* The identifier under which the backup stores the content: of entries that this
 * library makes or reads from Manifest.mbdb, the one that KVManifestEntryCopyFileIDForPath
 * gives; of rows of Manifest.db, whatever the row says, so it may be any text. Borrowed. */
KV_EXPORT CFStringRef KVManifestEntryGetFileID(const KVManifestEntryClass *entry);
/* The file ID of a domain and a path: SHA-1 of the UTF-8 text "DOMAIN-PATH" in 40
 * lower-case hexadecimal digits. The caller releases it. Null arguments read as
 * empty. Any thread. */
KV_EXPORT CFStringRef KVManifestEntryCopyFileIDForPath(CFStringRef domain,
                                                       CFStringRef relativePath);

/* ---- Attributes ---------------------------------------------------------- */

/* Digest of the stored content; empty when the manifest gives none. Borrowed. */
KV_EXPORT CFDataRef KVManifestEntryGetDataHash(const KVManifestEntryClass *entry);
/* The wrapped key of the file in an encrypted backup (44 bytes); empty when there is
 * none. Borrowed. */
KV_EXPORT CFDataRef KVManifestEntryGetEncryptionData(const KVManifestEntryClass *entry);
/* Size of the content in bytes, as the manifest says it. */
KV_EXPORT int64_t KVManifestEntryGetFileSize(const KVManifestEntryClass *entry);
/* POSIX st_mode: type and permission bits. */
KV_EXPORT uint16_t KVManifestEntryGetFileMode(const KVManifestEntryClass *entry);
/* 1 file, 2 directory, 4 symbolic link; 0 for entries read from Manifest.mbdb, which
 * has no such field. Use the three tests below to tell what an entry is. */
KV_EXPORT uint8_t KVManifestEntryGetFileType(const KVManifestEntryClass *entry);
/* Data-protection class, one of five. */
KV_EXPORT EntryProtectionClass KVManifestEntryGetProtectionClass(const KVManifestEntryClass *entry);
/* Extended attributes: name (CFString) to value (CFData). Borrowed. A record may hold names and
 * values of other types, and devices write the attributes as one piece of data; neither is
 * shown here, and both are written back as they were read. */
KV_EXPORT CFDictionaryRef KVManifestEntryGetProperties(const KVManifestEntryClass *entry);
/* True for entries that this library made, false for entries read from a manifest. */
KV_EXPORT bool KVManifestEntryIsExternal(const KVManifestEntryClass *entry);

/* What the mode says: mode & 0xE000 is 0x8000 for a file, 0x4000 for a directory and
 * 0xA000 for a symbolic link. A mode may be none of the three. */
KV_EXPORT bool KVManifestEntryIsFile(const KVManifestEntryClass *entry);
KV_EXPORT bool KVManifestEntryIsDirectory(const KVManifestEntryClass *entry);
KV_EXPORT bool KVManifestEntryIsSymlink(const KVManifestEntryClass *entry);

/* Mode, owner and the three times. Every pointer may be null; the dates are new
 * objects that the caller releases. */
KV_EXPORT void KVManifestEntryCopyFilesystemAttributes(const KVManifestEntryClass *entry,
                                                       uint16_t *mode, uint32_t *uid, uint32_t *gid,
                                                       CFDateRef *birth, CFDateRef *lastModified,
                                                       CFDateRef *lastStatusChange);

/* ---- Making entries ------------------------------------------------------ */

/* A new entry for the content of file, with mode 0100644, owner 501:501, the current
 * time and protection class None; the caller releases it. Null on failure.
 *
 * encryptionData: a wrapped key, or null for none.
 * Of a file with a crypt step a copy is stored of what it delivers.
 * Error 7, "No valid cache reference available for created file (HASH)": the file
 * store holds no content with the file's hash at its path, or the file is still appended
 * to; the cause lies underneath. */
KV_EXPORT KVManifestEntryClass *
KVManifestEntryCreateForFile(CFAllocatorRef allocator, KVFileClass *file, CFStringRef domain,
                             CFStringRef relativePath, CFDataRef encryptionData, CFErrorRef *error);
/* A new directory entry with mode 040755, owner 501:501, the current time and
 * protection class NotSet; the caller releases it. Never null. */
KV_EXPORT KVManifestEntryClass *KVManifestEntryCreateForDirectory(CFAllocatorRef allocator,
                                                                  CFStringRef domain,
                                                                  CFStringRef relativePath);
/* The same for a symbolic link, with mode 0120755. */
KV_EXPORT KVManifestEntryClass *KVManifestEntryCreateForSymlink(CFAllocatorRef allocator,
                                                                CFStringRef domain,
                                                                CFStringRef relativePath,
                                                                CFStringRef target);
/* Copies mode, owner, times, file type, inode and protection class from source to
 * destination, which the container still has to itself. */
KV_EXPORT void _KVManifestEntryCloneAttributes(KVManifestEntryClass *destination,
                                               const KVManifestEntryClass *source);

/* ---- Content ------------------------------------------------------------- */

/* The content as it is stored (still encrypted in an encrypted backup). Borrowed;
 * loaded on first use through the function that the entry was made with and kept.
 * A loaded file takes the entry's modification time.
 *
 * Null without an error: the entry is no file. Null with an error: whatever the
 * loading function reports, or code 2, "Tried to get a File ref for entry, but
 * getFileFunc is not set!". A loading function that failed is called again next time. */
KV_EXPORT KVFileClass *KVManifestEntryGetFile(const KVManifestEntryClass *entry, CFErrorRef *error);

/* ---- Records of manifests ------------------------------------------------ */

/* The entry as a row of Manifest.db keeps it: a keyed archive of an MBFile object as
 * a binary property list. The caller releases it. Null when it cannot be written (above
 * 64 MiB, which few records that are read come near), which is logged. Times before 2001 come out
 * 2^32 seconds too late; the format's writers have always done so and its readers know it. */
KV_EXPORT CFDataRef
KVManifestEntryCreateMBFileDataRepresentation(const KVManifestEntryClass *entry);
/* The entry as a record of Manifest.mbdb. The caller releases it. Null when a field
 * does not fit the record (65535 bytes or more), or attributes are no names with data. */
KV_EXPORT CFDataRef
KVManifestEntryCreateManifestDataRepresentation(const KVManifestEntryClass *entry);

#ifdef __cplusplus

#include <array>
#include <optional>
#include <string>

namespace MB {
class ManifestEncryption;
}

/* A new entry with every member of the given one, its resolved content included, but
 * with another loading function (may be empty). The caller releases it. */
KV_EXPORT KVManifestEntryClass *KVManifestEntryCreateCopy(CFAllocatorRef allocator,
                                                          const KVManifestEntryClass *entry,
                                                          const KVGetFileFunction &getFileFunc);
/* An entry from a row of Manifest.db; the caller releases it. Identifier, domain and
 * path are taken as given; flags becomes the file type. Null, with a line in the log,
 * when the data is no keyed archive of an MBFile or its protection class is above 4. */
KV_EXPORT KVManifestEntryClass *
KVManifestEntryCreateFromMBFileData(CFAllocatorRef allocator, CFStringRef fileID,
                                    CFStringRef domain, CFStringRef relativePath, int flags,
                                    CFDataRef mbfileData, const KVGetFileFunction &getFileFunc);
/* An entry from the record of Manifest.mbdb that starts at the offset; the caller
 * releases it. Null when there is no valid record. *nextOffset becomes the offset
 * behind the record, and 0 at the end of the data or on failure. */
KV_EXPORT KVManifestEntryClass *
KVManifestEntryCreateFromManifestData(CFAllocatorRef allocator, CFDataRef data, CFIndex offset,
                                      CFIndex *nextOffset, const KVGetFileFunction &getFileFunc);

/* The key of the entry's content, unwrapped on first success and remembered. Empty with
 * *error left alone (so start it at null): the entry has no key. Empty with error 22,
 * "Failed to unlock file key for entry", the cause underneath: it cannot be unwrapped. */
KV_EXPORT_CXX std::optional<std::array<uint8_t, 32>>
KVManifestEntryGetUnlockedFileKey(const KVManifestEntryClass *entry,
                                  const MB::ManifestEncryption &encryption, CFErrorRef *error);
/* Gives a file entry without a key a fresh one: encryption data, digest and size
 * become those of the encrypted content. The entry must be a file with its content
 * resolved, protection class None and no key: otherwise false with code 2. False with
 * code 18, "Failed to generate a file key for entry", and the cause underneath when
 * encrypting fails; the entry may then hold the new key already. */
KV_EXPORT_CXX bool KVManifestEntryGenerateFileKey(const KVManifestEntryClass *entry,
                                                  const MB::ManifestEncryption &encryption,
                                                  CFErrorRef *error);

namespace Kelvane {
/* "NotSet", "Complete", "WriteOnly", "CompleteUntilUnlocked" or "None". Any other
 * value is a programming error and ends the process. */
KV_EXPORT_CXX std::string to_string(EntryProtectionClass protectionClass);
} // namespace Kelvane
/* Found by argument-dependent lookup, for the enumeration is a global type. */
using Kelvane::to_string;

#endif

#endif
