/* KVError.h: error codes and their texts.
 *
 * Every error of the library is a CFErrorRef of the domain kKVErrorDomain whose
 * user info holds:
 *   kCFErrorLocalizedDescriptionKey    the code's text, always
 *   kCFErrorLocalizedFailureReasonKey  what exactly happened, when there is more to say
 *   kCFErrorUnderlyingErrorKey         the CFErrorRef that caused it, when there is one
 *   kCFErrorIsFriendlyKey              kCFBooleanTrue for codes 12, 15, 19 and 21, whose
 *                                      texts can be shown to an end user as they are
 */
#ifndef KVERROR_H
#define KVERROR_H

#include "KVBase.h"

/* User-info key, absent from the platform's headers. */
#ifndef kCFErrorIsFriendlyKey
#define kCFErrorIsFriendlyKey CFSTR("kCFErrorIsFriendlyKey")
#endif

typedef enum KVError
#ifdef __cplusplus
    : uint32_t
#endif
{ kKVErrorNone = 0,    /* "" */
  kKVErrorUnknown = 1, /* "Unknown Error" */
  kKVErrorInvalidArgument = 2,
  /* "Invalid argument (This is a bug, please report to developer)" */
  kKVErrorFilesystem = 3,               /* "Error in filesystem" */
  kKVErrorIO = 4,                       /* "Error reading and writing data" */
  kKVErrorNoSuchItem = 5,               /* "No item exists in backup at this path" */
  kKVErrorFileNotInCache = 6,           /* "Requested file not in cache" */
  kKVErrorCachedFileAccess = 7,         /* "Error accessing cached file data" */
  kKVErrorLoadRepresentation = 8,       /* "Error loading external representation of backup data" */
  kKVErrorArchive = 9,                  /* "Error in archive file manipulation" */
  kKVErrorInvalidBackup = 10,           /* "Invalid backup" */
  kKVErrorInvalidManifestDatabase = 11, /* "Backup manifest database is invalid" */
  kKVErrorUnknownManifestVersion = 12,
  /* "Backup metadata references an unknown manifest version (please report to developer)" */
  kKVErrorDatabase = 13,              /* "Database operation failed" */
  kKVErrorWriteRepresentation = 14,   /* "Error writing backup data to external representation" */
  kKVErrorEncryptionUnsupported = 15, /* "Encrypted backups are not supported" */
  kKVErrorFileNotFound = 16,          /* "File not found" */
  kKVErrorInvalidKeyBag = 17,         /* "Backup KeyBag is invalid" */
  kKVErrorCrypto = 18,                /* "Cryto operation failed" */
  kKVErrorPasswordRequired = 19,      /* "Backup is encrypted and no password specified" */
  kKVErrorInvalidMetadata = 20,       /* "Backup metadata is missing or invalid" */
  kKVErrorIncorrectPassword = 21,
  /* "Backup is encrypted and the specified password appears to be incorrect" */
  kKVErrorUnlockFailed = 22,
  /* "An error occurred preventing the encrypted backup from being unlocked" */
  kKVErrorNotEncrypted = 23, /* "A password was specified but backup is not encrypted." */
  kKVErrorInvalidMBFile = 24 /* "The backup archive did not contain a valid MBFile" */
} KVError;

/* The domain of every error of the library: "Kelvane.ErrorDomain". */
KV_EXPORT const CFStringRef kKVErrorDomain;

/* The text of a code: a constant string, borrowed, which no release frees. "Unknown Error" for code
 * 1 and for every code above 24, the empty string for 0. Any thread. */
KV_EXPORT CFStringRef KVErrorGetString(KVError code);

#endif
