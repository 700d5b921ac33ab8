/* KVFile.h: references to file contents that lie on the local disk.
 *
 * A KVFile is a path to a file that holds some bytes, with the size, SHA-1 and
 * modification date of the content. Contents made from memory or by appending are
 * placed in the library's store below the temporary path (see KVTemporaryPath.h); files
 * that lie on disk are referenced where they are and must not change while the
 * reference lives. The library never deletes the files.
 *
 * A KVFile is immutable once made, but for three things: a file being appended to, the
 * crypt setting, and the modification date. It may then be read by several threads at a
 * time; those three operations must not run beside others on the same object.
 *
 * Two KVFiles are equal (CFEqual) when their contents have the same SHA-1; one that is
 * still appendable equals only itself. CFHash goes by identity all the same, so do not
 * use KVFiles as keys of hashed collections.
 *
 * Errors are those of KVError.h; "reason" is the failure reason of the error. A failure
 * of the file system is code 3 with the reason "TEXT (PATH)".
 */
#ifndef KVFILE_H
#define KVFILE_H

#include "KVBase.h"

#include <stdbool.h>

/* The size in bytes of the pieces in which contents are read: 32768. */
KV_EXPORT const unsigned long kKVFileDefaultDataChunkSize;

/* The type identifier of KVFile objects. Any thread. */
KV_EXPORT CFTypeID KVFileGetTypeID(void);

/* A new object with every field empty: no path, no hash, no date, size 0, not
 * appendable. For code that fills the fields itself. */
KV_EXPORT KVFileClass *_KVFileAllocInit(void);

/* ---- Making references ---------------------------------------------------- */

/* Writes the data's bytes to a new file in the store and returns a reference to it. The
 * file is private to the user (mode 0600). Null on failure:
 *   code 2, "NULL sourceData": data is null;
 *   code 2: the temporary path is not set;
 *   code 3: the file cannot be written; no partial file stays;
 *   code 1, "File written but reference could not be created", with the cause beneath. */
KV_EXPORT KVFileClass *KVFileCreateFromData(CFDataRef data, CFErrorRef *error);

/* References the regular file at an absolute path where it lies; the file is hashed on
 * the way, so this costs one pass over it. Symbolic links are followed.
 * copyIntoStore: says what to do about a file that cannot be referenced in place; it
 *   changes nothing for regular files, which always can.
 * Null on failure:
 *   code 16, "File does not exist at path 'PATH'": nothing there, or null path;
 *   code 1, "Failed to hash file - TEXT": it cannot be opened or read, another process
 *     holds a lock for writing on it, or it is no regular file (a directory, FIFO, socket
 *     or device is refused without blocking);
 *   code 1, "Failed to create internal file reference" or "File written but reference
 *     could not be created", with the cause beneath;
 *   code 3: a failure of the file system, or "File hash failed: TEXT". */
KV_EXPORT KVFileClass *KVFileCreateFromFileAtPath(CFStringRef path, bool copyIntoStore,
                                                  CFErrorRef *error);

/* A new reference to the same content, with the same crypt setting. Null, without an
 * error, when the file is appendable. */
KV_EXPORT KVFileClass *KVFileCreateCopy(const KVFileClass *file);

/* ---- Properties ------------------------------------------------------------ */

/* Size of the content in bytes, as reading delivers it: for an encrypted file with
 * decryption enabled, of the plaintext. While appendable, the bytes appended so far. */
KV_EXPORT uint64_t KVFileGetSize(const KVFileClass *file);
/* Modification date of the content; borrowed. Null while appendable. */
KV_EXPORT CFDateRef KVFileGetModifiedDate(const KVFileClass *file);
/* Replaces the modification date of the object, not of the file on disk; retains it. */
KV_EXPORT void _KVFileSetModifiedDate(KVFileClass *file, CFDateRef date);
/* Absolute path of the file that holds the bytes (ciphertext, when decryption is
 * enabled); borrowed. Reading a file of a backup's directory through the functions below
 * follows no link that lies in the backup, see kKVBackupOpenFollowLinks; whoever opens the
 * path himself has to see to that himself. */
KV_EXPORT CFStringRef KVFileGetLocalPath(const KVFileClass *file);

/* ---- Appending ------------------------------------------------------------- */

/* A new empty file to append to; when all is there, finalise it. One thread at a time
 * uses it. Null on failure:
 *   code 2: the temporary path is not set;
 *   code 3: the file cannot be created;
 *   code 1, "Failed to create digest context" or "Failed to init digest context". */
KV_EXPORT KVFileClass *KVFileCreateAppendable(CFErrorRef *error);
/* True until the file is finalised, with or without success. */
KV_EXPORT Boolean KVFileIsAppendable(const KVFileClass *file);
/* Appends length bytes; all are written and hashed before it returns. False on failure:
 *   code 2, "Bad buffer argument": bytes is null or length below 1;
 *   code 2, "File reference not appendable";
 *   code 3: the bytes cannot be written; the file can then no longer be finalised with
 *     success if some of them were;
 *   code 1, "Failed to update digest". */
KV_EXPORT Boolean KVFileAppendBytes(KVFileClass *file, const uint8_t *bytes, long length,
                                    CFErrorRef *error);
/* The same with the bytes of a data object; an empty or null one is a bad buffer. */
KV_EXPORT Boolean KVFileAppendData(KVFileClass *file, CFDataRef data, CFErrorRef *error);
/* Makes an ordinary file of it: places it in the store and sets hash, size and date.
 * Afterwards, even on failure, it is no longer appendable. False on failure:
 *   code 2, "File reference not appendable";
 *   code 1, "Failed to finalize digest";
 *   code 3, "Internal inconsistency (PATH)", POSIX error 21 beneath: its place in the
 *     store is taken by something that is no regular file;
 *   code 3, "Calculated appended size does not match size on disk! (N != N) (PATH)";
 *   code 3: another failure of the file system; some find out only when the file is closed
 *     that what was appended has no place.
 * After a failure no file is left of it. */
KV_EXPORT Boolean KVFileFinalizeAppendable(KVFileClass *file, CFErrorRef *error);

/* ---- Reading --------------------------------------------------------------- */

/* Receives one piece of content; bytes are borrowed for the call. length may be 0.
 * Returns false to stop reading. */
typedef Boolean (*KVFileDataConsumer)(const uint8_t *bytes, CFIndex length, void *context);

/* Reads the content, through the crypt setting, in pieces of at most chunkSize bytes (a
 * decrypted piece may be up to 16 bytes longer); 0 means kKVFileDefaultDataChunkSize.
 * Memory use is bounded by two pieces, whatever the size of the file.
 * Returns true when all was delivered or the consumer stopped it. False on failure, with
 * pieces already delivered possibly wrong, so that the caller must discard them:
 *   code 2: file or consumer is null;
 *   code 3: the file cannot be opened or read ("Failed to read local file (PATH)");
 *   code 10, "Unsafe stored file name (%@)", POSIX error ELOOP underneath: the file belongs
 *     to a backup's directory, and a link came into its way since it was loaded;
 *   code 18, "Cryptor creation failed: TEXT", "Cryptor failed: TEXT", "Cryptor finalize
 *     failed: TEXT": among them, content of the wrong length or key.
 * Any number of threads may read one file at a time. */
KV_EXPORT Boolean KVFileReadData(const KVFileClass *file, unsigned long chunkSize,
                                 KVFileDataConsumer consumer, void *context, CFErrorRef *error);

#ifdef __cplusplus
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

/* ---- Typed interface -------------------------------------------------------- */

/* KVFileCreateFromData with bytes of the caller's, which are not kept. */
KV_EXPORT_CXX KVFileClass *KVFileCreateFromData(const std::vector<std::uint8_t> &bytes,
                                                CFErrorRef *error);

/* References the file at the absolute path; size and date come from the file system, the
 * hash from the caller. The new object is not registered with the file manager: when
 * alsoReference is not 0, which gives it a reference hash too, the caller must do so
 * (Kelvane::FileManager::RegisterReferenceForFile). Null on failure, code 3. */
KV_EXPORT_CXX KVFileClass *_KVFileCreateFromAbsolutePath(CFStringRef path,
                                                         const std::vector<std::uint8_t> &hash,
                                                         unsigned char alsoReference,
                                                         CFErrorRef *error);

/* SHA-1 of the content as reading delivers it (20 bytes); empty when it is not known. */
KV_EXPORT_CXX std::vector<std::uint8_t> KVFileGetHash(const KVFileClass *file);
/* SHA-1 of the bytes on disk, under which the file manager counts the file; empty when
 * it is not counted. */
KV_EXPORT_CXX std::vector<std::uint8_t> KVFileGetReferenceHash(const KVFileClass *file);

/* From now on reading decrypts (encrypts) the stored bytes with AES-256-CBC, an initial
 * value of zeros and PKCS #7 padding; an empty file stays empty. Hash and size become
 * those of the result, which costs one pass over the file. Only the first call on an
 * object counts: any further one is ignored. The object changes although the parameter
 * is const. Throws code 18, "Failed to rehash crypted file data: TEXT" or a text of
 * KVFileGetData, for content that cannot be decrypted with the key; the setting then
 * stays, so that the object never delivers ciphertext in the place of plaintext. */
KV_EXPORT_CXX void KVFileEnableDecryption(const KVFileClass *file,
                                          const std::array<std::uint8_t, 32> &key);
KV_EXPORT_CXX void KVFileEnableEncryption(const KVFileClass *file,
                                          const std::array<std::uint8_t, 32> &key);

/* The whole content of a small file: of at most 32768 bytes on disk and at most the file
 * manager's memory limit in size. No value for a larger one and for one that cannot be
 * opened or read: use KVFileGetData then. Throws code 18, "Cryptor failed: TEXT". */
KV_EXPORT_CXX std::optional<std::vector<std::uint8_t>>
KVFileGetDataQuickly(const KVFileClass *file);

/* KVFileReadData for C++: throws its errors. The consumer returns false to stop; after
 * the last piece of a crypted file it is called once more with what the cryptor still
 * held, even when that is nothing, and the result of that call is not looked at. The
 * vector is reused from call to call. Throws std::bad_function_call for an empty
 * consumer; what the consumer throws passes through. */
KV_EXPORT_CXX void KVFileGetData(const KVFileClass *file, unsigned long chunkSize,
                                 std::function<bool(const std::vector<std::uint8_t> &)> consumer);
#endif

#endif
