/* KVBackupWriting.h: writing a whole backup out, in the form that devices give it.
 *
 * KVBackupContainer.h has older functions for the same, whose form other programs that read
 * backups take in parts only: references between the objects of a row as dictionaries, keys as
 * bare data. KVBackupContainerWrite writes what a device writes:
 *
 * - Of an entry that nobody changed since the backup was opened, the row of Manifest.db or the
 *   record of Manifest.mbdb stays as it was, byte for byte and in its place; further tables,
 *   columns and indexes of the database stay too. A row that is new, or whose entry was changed,
 *   has the objects, references and keys of a device's row, keeps every field that the change does
 *   not concern, counts the size of the plaintext, and has the SHA-1 of the stored bytes as its
 *   digest. A manifest without a source, of a container that was made empty, has all rows so.
 * - The three metadata files keep their bytes until the host sets their dictionaries, and their
 *   format, binary or XML, after that. An Info.plist that was not there is not made up, but for a
 *   zip, which could not be opened again without.
 * - Stored files are carried over as they lie in the source. One that is empty, and new in an
 *   encrypted backup, is stored as one block of padding.
 *
 * Written without a change, a backup that a device made comes out as it went in, file by file.
 */
#ifndef KVBACKUPWRITING_H
#define KVBACKUPWRITING_H

#include "KVBackupContainer.h"

/* In which form manifest and metadata are written. */
typedef uint32_t KVBackupForm;
enum {
    kKVBackupFormDevice = 0,
    /* That of KVBackupContainerWriteDirectory and KVBackupContainerWriteZipFile. */
    kKVBackupFormLegacy = 1
};

/* What is made at the path. */
typedef uint32_t KVBackupTarget;
enum { kKVBackupTargetDirectory = 0, kKVBackupTargetZip = 1 };

/* What is written: a set of bits. */
typedef uint32_t KVBackupWriteFlags;
enum {
    kKVBackupWriteDefault = 0,
    /* Takes along the files of the source that no entry names, as "Snapshot/..." or what people
     * put there. Files whose entries were removed by an edit are none of them, and neither is
     * what SQLite keeps beside a database. */
    kKVBackupWriteKeepUnlisted = 1u << 0,
    /* Writes an encrypted backup as a plain one: every file as plaintext, rows without keys,
     * digests those of the plaintext where there were any, "IsEncrypted" false and no
     * "ManifestKey"; the keybag stays, for devices demand it. A file that cannot be decrypted,
     * since its class key stays locked or its content is damaged, is left out together with its
     * entry, and reported. A plain backup is written as it is. Not in the legacy form. */
    kKVBackupWriteDecrypted = 1u << 1
};

/* How a backup is written. Set size to sizeof(KVBackupWriteOptions), and the rest to zero but for
 * what is wanted: later versions may add fields at the end. */
typedef struct KVBackupWriteOptions {
    size_t size;
    KVBackupTarget target;
    KVBackupForm form;
    KVBackupWriteFlags flags;
    /* May be null; context is handed to it. As for KVBackupContainerWriteDirectory. */
    KVBackupExportProgressCallBack progress;
    void *context;
} KVBackupWriteOptions;

/* What was done. The host sets size to sizeof(KVBackupWriteReport); every other field that lies
 * within it is set, whatever it held, so that the arrays of an earlier report are to be released
 * before. */
typedef struct KVBackupWriteReport {
    size_t size;
    /* As those of KVBackupExportReport. The caller releases both arrays; never null. Besides, as
     * an error, code 22 "The file has no key (%@)" where an encrypted backup is decrypted, and as
     * a note, code 11 "File %@ has another shape than devices give it and was written anew, with
     * its entries alone": a database whose rows cannot be told apart as a device's can. */
    CFArrayRef errors;
    CFArrayRef notes;
    Boolean metadataWritten;
    int64_t filesWritten;
    /* The bytes of their content, before a zip compresses them. */
    int64_t bytesWritten;
    /* Files of the source that no entry names, whether they were taken along or not. */
    int64_t unlistedFiles;
} KVBackupWriteReport;

/* Writes the backup to the path, where nothing may exist. The container is not changed and must
 * not be edited meanwhile; stored files are read from its source, which must be there unchanged.
 * What is made is private to the user: files 0600, directories 0700. A file that cannot be written
 * is skipped and reported, as KVBackupContainerWriteDirectory does.
 *
 * options may be null: a directory, in device form. report may be null. True when the writing ran
 * to its end, whatever it had to skip; false, with one error in the report, as for
 * KVBackupContainerWriteDirectory, and with code 2:
 *   "Unknown write options": a size, target, form or bit that this version does not know, or
 *   kKVBackupWriteDecrypted in the legacy form
 * Besides the errors of a report there are:
 *   code 11  "The manifest database is not the one that was read": the source was changed since */
KV_EXPORT Boolean KVBackupContainerWrite(KVBackupContainerClass *container, CFStringRef path,
                                         const KVBackupWriteOptions *options,
                                         KVBackupWriteReport *report);

/* ---- In place ------------------------------------------------------------------ */

/* What a saving was. The host sets size to sizeof(KVBackupSaveReport). */
typedef struct KVBackupSaveReport {
    size_t size;
    int64_t filesWritten; /* manifest and metadata among them */
    int64_t filesRemoved;
    int64_t bytesWritten; /* of new files, the manifest's copy among them */
    /* The change was decided, but could not be brought to its end: KVBackupRecover does that. */
    Boolean needsRecovery;
} KVBackupSaveReport;

/* Saves in the directory from which the backup was opened what was changed since: new content, the
 * manifest in device form, metadata that was set. It takes time and room in proportion to the
 * change and one copy of the manifest. Files get the mode and owner of the backup's manifest.
 *
 * The backup is afterwards the old one or the new one, whole, also when the process is killed or
 * the disk fails at any moment. New files are written to a folder of the backup's directory,
 * ".kelvane-journal", and take their places when all of them are on the disk; a change that did not
 * come to its end lies there, and KVBackupRecover completes it or takes it back.
 *
 * One process at a time writes to a backup: a lock on its directory sees to it. Afterwards the
 * container still says what it said, but can be saved no more: what it would take for unchanged
 * is not there any longer. Open the backup again.
 *
 * report may be null. False on failure, with the backup as it was unless report says otherwise.
 *
 *   code 2   "Only a backup that was opened from a directory can be changed in place": it is a zip,
 *            or a container that was made empty, or links are followed
 *   code 2   "The backup was saved already; open it again"
 *
 *   code 3   "The backup could not be changed in place (%s: %s)", with the POSIX error underneath:
 *            EACCES, EPERM or EROFS where the directory or a folder in it cannot be written to,
 *            EWOULDBLOCK while another process writes to the backup, ENOSPC and others
 *
 *   code 8   "File %@ could not be loaded for writing to directory", cause underneath
 *
 *   code 10  "The backup was changed since it was opened (%s)": the name of the file that was
 *   code 10  "Unsafe stored file name (%@)": an entry's new content would have to bear it
 *
 *   code 14  "The backup holds a change that was not completed"
 *   code 14  "%s holds changes to the manifest that were not read": a log or journal of SQLite's
 *   code 14  "A directory has the name of a stored file (%s)"
 *   code 14  "A backup of version 2.4 needs an entry: ..." */
KV_EXPORT Boolean KVBackupContainerSaveInPlace(KVBackupContainerClass *container,
                                               KVBackupSaveReport *report, CFErrorRef *error);

/* What became of a change that was not brought to its end. */
typedef uint32_t KVBackupRecovery;
enum {
    kKVBackupRecoveryNone = 0,      /* there was none */
    kKVBackupRecoveryTakenBack = 1, /* it was not decided; the backup is the old one */
    kKVBackupRecoveryCompleted = 2  /* it was decided; the backup is the new one */
};

/* Whether a backup's directory holds a change that was not brought to its end. False for anything
 * that is no directory. */
KV_EXPORT Boolean KVBackupNeedsRecovery(CFStringRef directory);

/* Completes such a change or takes it back. outcome may be null. False on failure:
 *   code 2   no path
 *   code 3   "The backup could not be changed in place (%s: %s)", POSIX error underneath
 *   code 10  "The plan of the change is damaged": nothing was touched */
KV_EXPORT Boolean KVBackupRecover(CFStringRef directory, KVBackupRecovery *outcome,
                                  CFErrorRef *error);

#endif
