/* KVBase.h: export macros and the types that all public headers share.
 *
 * Rules that hold for the whole interface:
 *
 * Ownership. Create and Copy return a reference that the caller releases with
 * CFRelease; Get returns a borrowed one, valid as long as the object that it came
 * from and until that object is changed.
 *
 * Errors. A function with a CFErrorRef * parameter says by its result alone whether
 * it failed. On failure it stores an error that the caller releases, if the pointer
 * is not null; on success it leaves the pointer's target untouched. Errors have the
 * domain kKVErrorDomain and a code from KVError; the causes beneath them hang on
 * kCFErrorUnderlyingErrorKey. A host in C++ may see std::bad_alloc, and std::runtime_error
 * from functions that need the temporary path before it was set; the functions listed below
 * let nothing pass, so that a host in C is not ended: each failure of theirs is an error, code
 * 2 without a temporary path ("Temporary storage path not set: call KelvaneSetTemporaryPath
 * first"), code 1 with the text of what went wrong otherwise ("There is not enough memory").
 *   KVBackupContainerOpen, OpenDirectory, OpenZipFile and OpenEmpty;
 * KVBackupContainerWriteDirectory and WriteZipFile; KVBackupContainerListSourceFiles,
 * CopySourceManifest, CopyFileForEntry and ReplaceFileForPath; KVFileReadData.
 *
 * Null. Unless a function says otherwise, object arguments must not be null.
 *
 * Threads. A function runs on its caller's thread. One object is used from one
 * thread at a time; different objects may be used from different threads.
 *
 * Before anything else the host sets a directory for temporary files with
 * KelvaneSetTemporaryPath.
 */
#ifndef KVBASE_H
#define KVBASE_H

#include <CoreFoundation/CoreFoundation.h>
#include <stdint.h>

#define KV_VISIBLE __attribute__((visibility("default")))
#ifdef __cplusplus
#define KV_EXPORT extern "C" KV_VISIBLE
#define KV_EXPORT_CXX extern KV_VISIBLE
#else
#define KV_EXPORT extern KV_VISIBLE
#endif

/* Opaque objects; each is a CoreFoundation object. */
typedef struct KVFileClass KVFileClass;
typedef struct KVManifestEntryClass KVManifestEntryClass;
typedef struct KVManifestClass KVManifestClass;
typedef struct KVBackupContainerClass KVBackupContainerClass;

/* Which manifest format a backup uses; decides the layout of stored files too. */
typedef uint32_t KVManifestDataVersion;
enum {
    kKVManifestDataVersionNone = 0, /* an empty manifest, or a copy of one */
    kKVManifestDataVersion24 = 24,  /* Manifest.mbdb, flat layout */
    kKVManifestDataVersion30 = 30,  /* Manifest.db from here on, two-character directories */
    kKVManifestDataVersion31 = 31,
    kKVManifestDataVersion32 = 32,
    kKVManifestDataVersion33 = 33
};

/* Data-protection class of an entry; selects the keybag's class key. */
typedef enum EntryProtectionClass
#ifdef __cplusplus
    : uint32_t
#endif
{ kEntryProtectionClassNotSet = 0,
  kEntryProtectionClassComplete = 1,
  kEntryProtectionClassWriteOnly = 2,
  kEntryProtectionClassCompleteUntilUnlocked = 3,
  kEntryProtectionClassNone = 4 } EntryProtectionClass;

#ifdef __cplusplus
#include <functional>

/* Loads the stored content of a file ID: returns a KVFile that the caller owns, or
 * null with the error stored when the pointer is not null. */
using KVGetFileFunction = std::function<KVFileClass *(CFStringRef fileID, CFErrorRef *error)>;
/* Called as work goes on with (items done, items in total, done / total). Empty: no reports. */
using KVProgressFunction = std::function<void(int64_t done, int64_t total, double fraction)>;
#endif

#endif
