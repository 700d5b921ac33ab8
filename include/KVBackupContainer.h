/* KVBackupContainer.h: a backup of an iOS device, opened from a directory or a zip.
 *
 * A container owns the three metadata dictionaries of the backup (Manifest.plist,
 * Info.plist, Status.plist), its manifest and, for an encrypted backup, the keys that
 * the password unlocked. It is a CoreFoundation object, used by one thread at a time.
 *
 * The container of an encrypted backup keeps in memory, as long as it lives, the password,
 * the class keys and the manifest key; an entry keeps its file's key from the time that it
 * was first needed, and so does a KVFile that decrypts or encrypts with it. Each is
 * overwritten when the last object that holds it goes, and nothing else of them stays in the
 * library's memory. The string that the host passes as the password is the host's.
 *
 * Opening reads and checks all metadata and the whole manifest; the files' contents are
 * read when they are asked for. Opened from a directory, the backup's files are used in
 * place and must stay there as long as the container and anything got from it is used.
 */
#ifndef KVBACKUPCONTAINER_H
#define KVBACKUPCONTAINER_H

#include "KVBase.h"
#include "KVError.h"
#include "KVFile.h"
#include "KVManifest.h"
#include "KVManifestEntry.h"

/* How a backup is opened: a set of bits. A bit that is not listed here is an invalid
 * argument (code 2, "Unknown open options 0x%x"). */
typedef uint32_t KVBackupOpenOptions;
enum {
    kKVBackupOpenDefault = 0,
    /* Class keys that are wrapped under a key which never leaves the device cannot be
     * unlocked from a backup. By default one such key fails the whole backup; with this
     * bit it stays locked, everything else opens, and only reading a file of such a class
     * fails, with "Missing key class %u". Most backups made by devices hold such keys. */
    kKVBackupOpenKeepDeviceBoundKeysLocked = 1u << 0,
    /* Follows symbolic links below the backup's directory, for people who keep parts of their
     * backups elsewhere. By default nothing is reached over one, whenever it is read: whoever
     * can write into the backup could otherwise have any file read that the process may read.
     * The directory itself may be a link in any case, and a zip holds none. */
    kKVBackupOpenFollowLinks = 1u << 1,
    /* Opens encrypted backups of iOS 4 to 9 too: those of version 2.4, whose manifest is not
     * encrypted itself, and those whose keybag lacks DPSL and DPIC, as its keys are derived in
     * one pass, or DPWT. By default the first are code 15 and the others code 17, "Missing %s
     * field". iOS 10.0 and 10.1 encrypted in a way of their own, which nobody reads: with this
     * bit such a backup is code 15, before a password is asked for, "Backups that iOS %@
     * encrypted are not supported: iOS 10.0 and 10.1 did it in a way of their own". It is known
     * by that ProductVersion in "Lockdown" and a ManifestKey that is missing, by default code
     * 20, "ManifestKey is missing". */
    kKVBackupOpenOldEncryption = 1u << 2,
    /* Takes the Manifest.db of an encrypted backup also as other programs leave it: decrypted,
     * which it is when it begins as a database does, or encrypted without padding, when its
     * plaintext begins so and its length is a number of that database's pages. By default both
     * are code 18, "Failed to decrypt/encrypt: %s". KVBackupContainerGetNotes tells of them. */
    kKVBackupOpenUnusualManifests = 1u << 3,
    /* Where there is no Manifest.plist, opens the only folder directly below that holds one, as
     * people's archivers make it. Several are code 10, "More than one backup lies in %@: %@,
     * %@". KVBackupContainerCopyFolder tells which it was. A zip then shows what lies in the
     * folder alone; links are no such folders unless they are followed. */
    kKVBackupOpenSearchFolder = 1u << 4
};

/* The type identifier of containers. Any thread. */
KV_EXPORT CFTypeID KVBackupContainerGetTypeID(void);

/* ---- Opening ------------------------------------------------------------- */

/* A new container without entries or metadata, over a working directory of its own
 * under the temporary path. Null allocator means the default. The caller releases it.
 * Fails with code 3 when the working directory cannot be made. */
KV_EXPORT KVBackupContainerClass *KVBackupContainerCreateEmpty(CFAllocatorRef allocator,
                                                               CFErrorRef *error);

/* The same for hosts in C: fails with code 2 when the temporary path is not set, for which
 * KVBackupContainerCreateEmpty throws std::runtime_error. */
KV_EXPORT KVBackupContainerClass *KVBackupContainerOpenEmpty(CFAllocatorRef allocator,
                                                             CFErrorRef *error);

/* Called while a manifest database is read, once per entry, with the number done, the
 * number in total and their quotient. */
typedef void (*KVBackupProgressCallBack)(int64_t done, int64_t total, double fraction,
                                         void *context);

/* Opens the backup in a directory. password is the backup password, null or empty for a
 * plain backup; options are KVBackupOpenOptions; progress may be null, context is handed
 * to it. The caller releases the result. Null on failure, with these codes:
 *   2   an unknown bit in options; the temporary path is not set
 *   8   the binary manifest cannot be read: "An error ocurred while loading manifest file"
 *   10  a metadata file is missing, cannot be loaded or has more than 64 MiB, or the
 *       Status "Version" is missing (code 20 hangs underneath when Status.plist cannot be
 *       read, and underneath code 23 for Manifest.plist); or, beneath it, "Unsafe stored
 *       file name (%@)" with the POSIX error ELOOP underneath, when a link leads to a
 *       metadata file or the manifest and links are not followed
 *   11  the manifest database cannot be read or holds invalid entries
 *   12  the Status "Version" is not one of 2.4, 3.0, 3.1, 3.2, 3.3
 *   15  an encrypted backup of version 2.4 (but for kKVBackupOpenOldEncryption), 3.0 or 3.1,
 *       or of iOS 10.0 or 10.1
 *   17, 18, 20  the keybag or a key is malformed or missing
 *   19  encrypted, and no password was given
 *   22  the keys could not be unlocked; for a wrong password code 21 hangs underneath; the
 *       host stopped the derivation
 *   23  a password was given for a plain backup */
KV_EXPORT KVBackupContainerClass *
KVBackupContainerOpenDirectory(CFAllocatorRef allocator, CFStringRef directory,
                               CFStringRef password, KVBackupOpenOptions options,
                               KVBackupProgressCallBack progress, void *context, CFErrorRef *error);

/* The same for a zip archive whose root is the backup's root. Further failures: code 10
 * "Failed to open zip file (%@)", with code 9 underneath for an archive that holds more
 * records than it counts or whose records share bytes; code 10 with "Could not locate file record
 * in zip" underneath for each missing metadata file, Info.plist included. Contents are unpacked
 * into the temporary path as they are asked for and stay there. */
KV_EXPORT KVBackupContainerClass *
KVBackupContainerOpenZipFile(CFAllocatorRef allocator, CFStringRef zipPath, CFStringRef password,
                             KVBackupOpenOptions options, KVBackupProgressCallBack progress,
                             void *context, CFErrorRef *error);

/* Called while the keys of an encrypted backup are derived from the password: first with
 * done 0, before anything is, then many times a second. total counts iterations: devices write
 * ten million, which take a second or so, and up to a thousand million are accepted, which take
 * minutes. False stops the opening: code 22, "The derivation of keys was stopped". */
typedef Boolean (*KVBackupDerivationCallBack)(uint64_t done, uint64_t total, void *context);

/* What is called while a backup is opened; null callbacks are not. context is handed to each. */
typedef struct KVBackupOpenCallBacks {
    KVBackupProgressCallBack progress;
    KVBackupDerivationCallBack derivation;
    void *context;
} KVBackupOpenCallBacks;

/* Opens what is at the path, a directory as KVBackupContainerOpenDirectory does and anything
 * else as KVBackupContainerOpenZipFile does. callBacks may be null. */
KV_EXPORT KVBackupContainerClass *KVBackupContainerOpen(CFAllocatorRef allocator, CFStringRef path,
                                                        CFStringRef password,
                                                        KVBackupOpenOptions options,
                                                        const KVBackupOpenCallBacks *callBacks,
                                                        CFErrorRef *error);

#ifdef __cplusplus
/* The same with a callable for progress; an empty one means no reports. The forms without
 * options use kKVBackupOpenDefault, those without a password a null one. */
KV_EXPORT_CXX KVBackupContainerClass *
KVBackupContainerCreateFromDirectory(CFAllocatorRef allocator, CFStringRef directory,
                                     KVProgressFunction progress, CFErrorRef *error);
KV_EXPORT_CXX KVBackupContainerClass *
KVBackupContainerCreateFromDirectory(CFAllocatorRef allocator, CFStringRef directory,
                                     CFStringRef password, KVProgressFunction progress,
                                     CFErrorRef *error);
KV_EXPORT_CXX KVBackupContainerClass *
KVBackupContainerCreateFromDirectory(CFAllocatorRef allocator, CFStringRef directory,
                                     CFStringRef password, KVBackupOpenOptions options,
                                     KVProgressFunction progress, CFErrorRef *error);
KV_EXPORT_CXX KVBackupContainerClass *
KVBackupContainerCreateFromZipFile(CFAllocatorRef allocator, CFStringRef zipPath,
                                   KVProgressFunction progress, CFErrorRef *error);
KV_EXPORT_CXX KVBackupContainerClass *
KVBackupContainerCreateFromZipFile(CFAllocatorRef allocator, CFStringRef zipPath,
                                   CFStringRef password, KVProgressFunction progress,
                                   CFErrorRef *error);
KV_EXPORT_CXX KVBackupContainerClass *
KVBackupContainerCreateFromZipFile(CFAllocatorRef allocator, CFStringRef zipPath,
                                   CFStringRef password, KVBackupOpenOptions options,
                                   KVProgressFunction progress, CFErrorRef *error);
#endif

/* A new container with the same source, metadata, keys and copies of all entries; a zip is
 * opened once more, a directory with the same choice about links. Null when that fails. The
 * caller releases it. */
KV_EXPORT KVBackupContainerClass *KVBackupContainerCreateCopy(CFAllocatorRef allocator,
                                                              KVBackupContainerClass *container);

/* ---- Metadata ------------------------------------------------------------ */

/* New mutable copies of the metadata dictionaries; the caller releases them. A file that
 * was missing, empty or no property list gives an empty dictionary: of the last two,
 * KVBackupContainerCopyMetadataError tells. */
KV_EXPORT CFMutableDictionaryRef
KVBackupContainerCopyInfoDict(const KVBackupContainerClass *container);
KV_EXPORT CFMutableDictionaryRef
KVBackupContainerCopyStatusDict(const KVBackupContainerClass *container);
KV_EXPORT CFMutableDictionaryRef
KVBackupContainerCopyManifestDict(const KVBackupContainerClass *container);
/* The stored Manifest.plist dictionary, borrowed until it is replaced. A null container
 * is a programming error and ends the process. */
KV_EXPORT CFDictionaryRef KVBackupContainerGetManifestDict(const KVBackupContainerClass *container);
/* Why the dictionary of a metadata file ("Manifest.plist", "Info.plist", "Status.plist") is
 * empty although the backup holds the file. Null when the file was read or is missing, when
 * its dictionary was set since, and for any other name. The caller releases it. Code 20:
 *   "The file is empty (%@)"
 *   "The file is no property list that can be read (%@)", the parser's error underneath
 *   "The root of the property list is no dictionary (%@)"
 * A copy of the container tells the same. */
KV_EXPORT CFErrorRef KVBackupContainerCopyMetadataError(const KVBackupContainerClass *container,
                                                        CFStringRef fileName);
/* Replaces dictionaries; they are retained. A null argument leaves that one unchanged. One
 * that replaces a file which could not be read is written out in the place of its bytes. */
KV_EXPORT void KVBackupContainerSetDictionaries(KVBackupContainerClass *container,
                                                CFDictionaryRef info, CFDictionaryRef status,
                                                CFDictionaryRef manifest);

/* True exactly when the backup is encrypted; it is unlocked then. */
KV_EXPORT Boolean KVBackupContainerIsEncrypted(const KVBackupContainerClass *container);
/* What is unusual about the backup as it lies there: a set of bits. */
typedef uint32_t KVBackupNotes;
enum {
    /* It is encrypted, its Manifest.db is not: everybody can read the names in it. */
    kKVBackupNoteManifestDecrypted = 1u << 0,
    /* Its Manifest.db is encrypted without padding. */
    kKVBackupNoteManifestWithoutPadding = 1u << 1,
    /* It was cut off: the "SnapshotState" of Status.plist is something else than "finished".
     * Files may be missing. */
    kKVBackupNoteUnfinished = 1u << 2
};
KV_EXPORT KVBackupNotes KVBackupContainerGetNotes(const KVBackupContainerClass *container);
/* The name of the folder in which the backup was found (kKVBackupOpenSearchFolder); null when it
 * lies where it was looked for. The caller releases it. */
KV_EXPORT CFStringRef KVBackupContainerCopyFolder(const KVBackupContainerClass *container);

/* A path that the host may note with the container: borrowed, may be null. The library
 * shows it in the description of a zip container and never looks there for files. */
KV_EXPORT CFStringRef KVBackupContainerGetBaseDirectory(const KVBackupContainerClass *container);
KV_EXPORT void KVBackupContainerSetBaseDirectory(KVBackupContainerClass *container,
                                                 CFStringRef baseDirectory);
/* The Manifest.plist's "SystemDomainsVersion"; the number 0 when it is missing or no number
 * (many devices write a string). The caller releases it. */
KV_EXPORT CFNumberRef
KVBackupContainerCopySystemDomainsVersion(const KVBackupContainerClass *container);
/* Sets it, in a changed copy of the Manifest dictionary that takes the stored one's place:
 * what KVBackupContainerGetManifestDict returned before is no longer valid, and a dictionary
 * that the host had set stays as it is. A null version is ignored. */
KV_EXPORT void KVBackupContainerSetSystemDomainsVersion(KVBackupContainerClass *container,
                                                        CFNumberRef version);

/* ---- Lookup and copy-out --------------------------------------------------- */

/* The manifest, borrowed. */
KV_EXPORT KVManifestClass *KVBackupContainerGetManifest(const KVBackupContainerClass *container);
/* Files of the manifest plus the manifest file and the three property lists. */
KV_EXPORT int64_t KVBackupContainerGetTotalFileCount(const KVBackupContainerClass *container);
/* The entry with the file ID of (domain, relativePath), borrowed, or null. */
KV_EXPORT KVManifestEntryClass *
KVBackupContainerGetEntryForPath(const KVBackupContainerClass *container, CFStringRef domain,
                                 CFStringRef relativePath);
/* The entry whose content is stored under the name ("3d/3d0d7e..." or "3d0d7e..."),
 * borrowed, or null. *isMetadata, when given, becomes true exactly when there is no such
 * entry and the name is that of a manifest or metadata file. */
KV_EXPORT KVManifestEntryClass *
KVBackupContainerGetEntryForLocalFilename(const KVBackupContainerClass *container,
                                          CFStringRef storedName, Boolean *isMetadata);
/* The content of a file in readable form: a file of an encrypted backup comes out
 * decrypted. The caller releases it. Null on failure: code 5 "File not in backup"; code 8
 * "Failed to load file (%@)" with the cause underneath, among them code 10 "Unsafe stored
 * file name (%@)"; code 18 when it does not decrypt; code 22 when its key stays locked.
 *
 * Null WITHOUT an error comes back for a directory or link, and for a file of an encrypted
 * backup whose entry holds no key: look at the error before using it. */
KV_EXPORT KVFileClass *KVBackupContainerCopyFileForPath(const KVBackupContainerClass *container,
                                                        CFStringRef domain,
                                                        CFStringRef relativePath,
                                                        CFErrorRef *error);
/* The same for an entry of the container's manifest. A row of a database may carry any
 * file ID, and by path only those are found whose ID is that of their path: this reaches
 * the others too, and cannot reach another entry that took the ID. Fails as above, but for
 * code 5. */
KV_EXPORT KVFileClass *KVBackupContainerCopyFileForEntry(const KVBackupContainerClass *container,
                                                         const KVManifestEntryClass *entry,
                                                         CFErrorRef *error);
/* The content as it lies in a backup under the stored name: the manifest and metadata are
 * written anew, content of an encrypted backup stays encrypted, content added from outside
 * to one is encrypted on reading. Of a metadata file that could not be read this is an empty
 * dictionary; only the exports that fill a report carry its bytes over. The caller releases
 * it. Null on failure: code 1 "Failed to create data representation of ...", among them of a
 * metadata file that would come to more than 64 MiB, which no backup could be opened with;
 * code 5 "File not present in backup (%@)" or "Found entry referencing a non-file (%@)",
 * code 2 "Found file entry but no file ref is present (%@)". */
KV_EXPORT KVFileClass *
KVBackupContainerCopyFileForLocalFilename(const KVBackupContainerClass *container,
                                          CFStringRef storedName, CFErrorRef *error);
/* The direct children of a directory (the empty path is the domain's root), in the order
 * of the manifest: an array that the caller releases, never null. Empty when the manifest
 * holds no directory entry of that path. */
KV_EXPORT CFArrayRef KVBackupContainerCopyEntriesContainedInDirectoryAtPath(
    const KVBackupContainerClass *container, CFStringRef domain, CFStringRef path);
/* The stored names of all files, then the manifest's, then Manifest.plist, Info.plist and
 * Status.plist: an array of strings that the caller releases. The flag has no effect. */
KV_EXPORT CFArrayRef
KVBackupContainerCopyFilesystemPathsList(const KVBackupContainerClass *container, Boolean flag);

/* ---- The source --------------------------------------------------------------- */

/* One file of those that the opened backup consists of. */
typedef struct KVBackupSourceFile {
    /* The name relative to the backup's root, with "/" between components; borrowed for the
     * call. A name that is not UTF-8 is read as ISO 8859-1. */
    CFStringRef name;
    /* In bytes, as the directory or the zip says. */
    int64_t size;
    /* False for what is no file: a link that is not followed, a FIFO, socket or device; and
     * for a directory 16 levels below the root, which is not looked into. With
     * kKVBackupOpenFollowLinks a link counts as the file that it leads to, and one directly
     * below the root as the directory that it leads to. */
    Boolean isRegularFile;
} KVBackupSourceFile;

/* Receives one file; false ends the listing. */
typedef Boolean (*KVBackupSourceFileCallBack)(const KVBackupSourceFile *file, void *context);

/* Lists what lies in the directory or zip that the backup was opened from, whether the
 * manifest names it or not: metadata and manifest too, directories not, in no particular
 * order. A zip may hold several records of one name, of which the first is read; each is
 * listed. Nothing is kept in memory. context is handed to the callback, which must not be
 * null. True when all was listed or the callback ended it. False on failure:
 *   code 2  "No data source type set for backup container"
 *   code 3  "A directory of the backup could not be read (PATH)", POSIX error underneath
 *   code 9  "Failed to read file metadata", zip error underneath */
KV_EXPORT Boolean KVBackupContainerListSourceFiles(const KVBackupContainerClass *container,
                                                   KVBackupSourceFileCallBack callback,
                                                   void *context, CFErrorRef *error);

/* The manifest as it lies in the directory or zip, Manifest.mbdb or Manifest.db by the
 * backup's version, in readable form: that of an encrypted backup is decrypted on reading,
 * while its local path names the stored bytes. Edits do not show in it. The caller releases
 * it. Null on failure: code 2 "No data source type set for backup container"; what
 * KVFileCreateFromFileAtPath reports, or for a zip code 9 or 10; code 18 when it does not
 * decrypt. */
KV_EXPORT KVFileClass *KVBackupContainerCopySourceManifest(const KVBackupContainerClass *container,
                                                           CFErrorRef *error);

/* ---- Editing ---------------------------------------------------------------- */

/* An edit changes the manifest that the container holds, never the backup that was opened;
 * an export writes the result out. Every edit is done wholly or not at all. Entries that
 * were borrowed from the manifest stay valid as long as they are retained or in it; arrays
 * that were got from it stay as they were. One edit costs the same in a manifest of a
 * million entries as in a small one, once the first has built the lookup tables.
 *
 * Paths are taken as they are: "a//b" is the path with an empty component. Arguments must
 * not be null, but for the file. In an encrypted container every new file gets a key of its
 * own, at the cost of one pass over its content, and its entry records the SHA-1 and the
 * size of the content as it will be stored, encrypted.
 *
 * What would make a backup that cannot be written, or lose an entry, is refused with code 2
 * (where there is no error to give, with null):
 *   "An entry must have a domain"
 *   "Text cannot be encoded as UTF-8": the domain, path or target holds half of a pair
 *   "Text is too long for a binary manifest (%ld bytes)", "Data is too long for a binary
 *     manifest (%ld bytes)", "Too many extended attributes for a binary manifest (%ld)": in a
 *     backup of version 2.4 texts and values end at 65534 bytes, attributes at 255
 *   "Path is too long or too deep (%ld levels)": over 16384 units or 1024 components, where
 *     the directories above it would have to be made
 *   "File ID (%@) belongs to another entry (%@)": the file ID of the path, its domain's root
 *     or a directory above it is that of an entry of another domain or path. Forged
 *     manifests hold such entries; else only a domain with a hyphen can: "A-B" and "C" make
 *     the ID that "A" and "B-C" do. */

/* Adds a copy of an entry, of another container mostly. The given entry is not changed, but
 * for its content being loaded. Returns the copy, borrowed from the manifest. There is no
 * check for an entry of the same domain and path: both are kept, and a lookup by file ID
 * finds the new one. The content is what KVManifestEntryGetFile gives, which for an entry
 * that was read from another encrypted backup is ciphertext that this container has no key
 * for: carry such a file over with KVBackupContainerCopyFileForPath and
 * KVBackupContainerStoreFileForPath. In an encrypted container the copy of a file counts as
 * made by this library (KVManifestEntryIsExternal): its content is encrypted when it is
 * written. In a plain one the copy of an entry that this library made loses the key that it
 * may have, and its digest and size are those of the plain content.
 * Into a backup of version 2.4 go, as properties of the entry, extended attributes that a
 * manifest database held as plain data, which the library does not show otherwise.
 * Null on failure:
 *   code 2  the refusals above; "The entry's extended attributes cannot be put into a binary
 *           manifest": they are no property list of strings and data
 *   code 6  "A file reference could not be loaded for an entry that represents a file",
 *           with the cause underneath
 *   encrypted containers: as KVManifestEntryGenerateFileKey, code 2 among them for an
 *           entry that has a key already */
KV_EXPORT KVManifestEntryClass *KVBackupContainerAddEntry(KVBackupContainerClass *container,
                                                          KVManifestEntryClass *entry,
                                                          CFErrorRef *error);
/* Stores the file's content at the path and makes the domain's root and all directories
 * above the path that are missing. A file or link that is there is replaced, and the new
 * entry takes over its mode, owner, dates, inode and protection class; the mode of a link
 * leaves an entry that is no file, so remove a link first. A directory is removed with all
 * that is below it. The file's content must stay until the backup is written; of one that
 * decrypts or encrypts while it is read, what it delivers is stored, in a copy. False on
 * failure, with the entries unchanged:
 *   code 2  "No file reference": file is null; and the refusals above
 *   code 7  "No valid cache reference available for created file (%s)", cause underneath:
 *           the content is gone, cannot be read or decrypted, or is still appended to
 *   encrypted containers: as KVManifestEntryGenerateFileKey; a key is made for protection
 *           class 4 alone, so replacing a file of class 1 to 3, as nearly all of a device's
 *           are, fails with code 2: KVBackupContainerReplaceFileForPath does that */
KV_EXPORT Boolean KVBackupContainerStoreFileForPath(KVBackupContainerClass *container,
                                                    CFStringRef domain, CFStringRef relativePath,
                                                    KVFileClass *file, CFErrorRef *error);
/* As KVBackupContainerStoreFileForPath, but what it replaces need not be of class 4: the new
 * content of an encrypted backup gets a fresh key wrapped under the class of the file that it
 * replaces. A link is removed first, so that a plain file of class 4 takes its place.
 * Extended attributes are kept too. False on failure, with the entries unchanged:
 *   codes 2 and 7 as above
 *   code 18 "Failed to generate a file key for entry", cause underneath: among others
 *           "Missing key class %u" when the class key stays locked */
KV_EXPORT Boolean KVBackupContainerReplaceFileForPath(KVBackupContainerClass *container,
                                                      CFStringRef domain, CFStringRef relativePath,
                                                      KVFileClass *file, CFErrorRef *error);
/* The directory entry at the path, borrowed: the one that is there, or a new one (mode
 * 040755). The domain's root is made when it is missing, directories between it and the
 * path are not. Null, with nothing changed, when something that is no directory is in the
 * way, or another entry has the file ID of the path. */
KV_EXPORT KVManifestEntryClass *
KVBackupContainerCreateDirectoryAtPath(KVBackupContainerClass *container, CFStringRef domain,
                                       CFStringRef path);
/* Removes the file or link at the path, or the directory with all that is below it; the
 * empty path stands for the whole domain. Of several files of one path the last one goes,
 * and a lookup then finds the one before. Always true, also when nothing was there. */
KV_EXPORT Boolean KVBackupContainerRemovePath(KVBackupContainerClass *container, CFStringRef domain,
                                              CFStringRef path);
/* Makes a symbolic link, or replaces one, and the domain's root when it is missing. The
 * target is kept as it is given. Returns the entry, borrowed, or null, with nothing
 * changed, when something that is no link is in the way, or another entry has the file ID
 * of the path. */
KV_EXPORT KVManifestEntryClass *
KVBackupContainerCreateSymlinkAtPath(KVBackupContainerClass *container, CFStringRef domain,
                                     CFStringRef path, CFStringRef target);

/* ---- Export ------------------------------------------------------------------ */

/* Writes the backup out: stored files under their stored names, the manifest, the three
 * metadata files (as XML). Nothing may exist at the target. The container is not changed
 * and must not be edited meanwhile. A stored name that is held twice is written once. A
 * name that could lead out of the target is never written, and no link below the target is
 * followed. What is made is private to the user: files 0600, directories 0700.
 *
 * A file that cannot be loaded or written is logged and skipped, with no partial file left
 * behind. Progress is reported on the calling thread: 0.0 first; then, from a thousandth of
 * the manifest's total size on, after every file the number of bytes written divided by
 * that size, which passes 1.0 (the metadata count too) and is infinite for a size of 0. */

/* What an export has done beyond its result. An export sets every field and reads none, so
 * that the arrays of an earlier report are to be released before its struct is used again. */
typedef struct KVBackupExportReport {
    /* One CFErrorRef for each stored name that was not written, in their order, after those
     * for files that have no stored name (they are named "DOMAIN-PATH"); or the one that ended
     * the export. The caller releases the array. Never null once filled.
     *   code 8   "File %@ could not be loaded for writing to ..."
     *   code 14  "File %@ could not be written", "File %@ could not be written in zip",
     *            "File already exists at path %@", "A backup of version 2.4 needs an entry: its
     *            manifest could not be read again without any"
     *   code 3   "Failed to create containing directory %@ - %s (%d)"
     *   code 9   "The archive could not be completed (%d)" */
    CFArrayRef errors;
    /* One CFErrorRef for each file that was written and that people should look at all the
     * same; they count neither as skipped nor against the result. The caller releases the
     * array. Never null once filled.
     *   code 20  "File %@ could not be read and was copied as it is": a metadata file, with
     *            what KVBackupContainerCopyMetadataError says underneath; "File %@ could not
     *            be written anew and was copied as it is": one whose dictionary holds what a
     *            property list in XML cannot, with the cause underneath */
    CFArrayRef notes;
    /* True when the manifest and all three metadata files were written: without them the
     * result is no backup. */
    Boolean metadataWritten;
    /* The number of files written, those four among them. */
    int64_t filesWritten;
} KVBackupExportReport;

/* Called with the fraction written. */
typedef void (*KVBackupExportProgressCallBack)(double fraction, void *context);

/* Export to a new directory, or to a new zip, and tell what was skipped: look at the report,
 * for the result is true when the export ran to its end, whatever it had to skip. A metadata
 * file that could not be read, or that cannot be written as XML, is copied byte for byte as long
 * as its dictionary was not set. A manifest database may be of any size, it is not held in memory.
 * Zip64 records are used where a file of 4 GiB or more, or the number of files, needs them.
 * progress may be null, context is handed to it; report may be null. False, with one error in the
 * report, when something exists at the target, no entry is left in a backup of version 2.4, a
 * directory cannot be made, or a zip cannot be completed (it is removed then). */
KV_EXPORT Boolean KVBackupContainerWriteDirectory(KVBackupContainerClass *container,
                                                  CFStringRef directoryPath,
                                                  KVBackupExportProgressCallBack progress,
                                                  void *context, KVBackupExportReport *report);
KV_EXPORT Boolean KVBackupContainerWriteZipFile(KVBackupContainerClass *container,
                                                CFStringRef zipPath,
                                                KVBackupExportProgressCallBack progress,
                                                void *context, KVBackupExportReport *report);

#ifdef __cplusplus
/* The same with a callable for progress; an empty one means no reports. */
KV_EXPORT bool KVBackupContainerExportToDirectoryWithReport(KVBackupContainerClass *container,
                                                            CFStringRef directoryPath,
                                                            std::function<void(double)> progress,
                                                            KVBackupExportReport *report);
KV_EXPORT bool KVBackupContainerExportToZipWithReport(KVBackupContainerClass *container,
                                                      CFStringRef zipPath,
                                                      std::function<void(double)> progress,
                                                      KVBackupExportReport *report);
/* Without a report: what was skipped stands in the log alone. A metadata file that could not be
 * read is written as an empty dictionary. A manifest database of more than 100 MiB is skipped,
 * and a zip is written in plain records, so that a file of 4 GiB or more is skipped as well.
 * True even when the zip could not be created or completed. */
KV_EXPORT bool KVBackupContainerExportToDirectory(KVBackupContainerClass *container,
                                                  CFStringRef directoryPath,
                                                  std::function<void(double)> progress);
KV_EXPORT bool KVBackupContainerExportToZip(KVBackupContainerClass *container, CFStringRef zipPath,
                                            std::function<void(double)> progress);
#endif

#endif
