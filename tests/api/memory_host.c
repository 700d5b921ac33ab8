/* A host whose memory another program looks through: see check_memory.py. It opens the backup,
 * reads every file, stores a new one, and closes, and says at each step what it does or has done;
 * then it waits for a line on standard input. What it handles of the password itself it wipes.
 * Usage: memory_host BACKUP PASSWORD_FILE TEMP */
#include <Kelvane.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { kPasswordSize = 256 };

/* ---- Memory of the password's string */

typedef struct {
    size_t size;
    max_align_t bytes[];
} Block;

static void wipe(volatile unsigned char *bytes, size_t size) {
    while (size-- > 0) {
        *bytes++ = 0;
    }
}

static void *allocate(CFIndex size, CFOptionFlags hint, void *info) {
    Block *block = malloc(sizeof *block + (size_t)size);
    (void)hint;
    (void)info;
    if (block == NULL) {
        return NULL;
    }
    block->size = (size_t)size;
    return block->bytes;
}

static void deallocate(void *memory, void *info) {
    Block *block = (Block *)(void *)((char *)memory - offsetof(Block, bytes));
    (void)info;
    wipe((volatile unsigned char *)block->bytes, block->size);
    free(block);
}

static CFStringRef makePassword(const char *path) {
    CFAllocatorContext context;
    memset(&context, 0, sizeof context);
    context.allocate = &allocate;
    context.deallocate = &deallocate;
    CFAllocatorRef wiping = CFAllocatorCreate(kCFAllocatorDefault, &context);
    unsigned char bytes[kPasswordSize];
    const int fd = open(path, O_RDONLY);
    const ssize_t count = fd < 0 ? -1 : read(fd, bytes, sizeof bytes);
    const unsigned char *end = count < 0 ? NULL : memchr(bytes, '\n', (size_t)count);
    CFStringRef password = NULL;
    if (end != NULL) {
        password =
            CFStringCreateWithBytes(wiping, bytes, end - bytes, kCFStringEncodingUTF8, false);
    }
    wipe(bytes, sizeof bytes);
    close(fd);
    CFRelease(wiping);
    return password;
}

/* ---- The steps */

static void report(const char *step) {
    printf("%s\n", step);
    fflush(stdout);
    while (getchar() != '\n') {
        if (feof(stdin)) {
            exit(0);
        }
    }
}

static void fail(CFErrorRef error, const char *what) {
    if (error != NULL) {
        CFShow(error);
    }
    fprintf(stderr, "%s\n", what);
    exit(1);
}

static CFStringRef makeString(const char *text) {
    return CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingUTF8);
}

static KVBackupContainerClass *openBackup(const char *path, const char *passwordFile) {
    CFErrorRef error = NULL;
    CFStringRef password = makePassword(passwordFile);
    CFStringRef directory = makeString(path);
    KVBackupContainerClass *backup = KVBackupContainerOpenDirectory(
        NULL, directory, password, kKVBackupOpenKeepDeviceBoundKeysLocked, NULL, NULL, &error);
    CFRelease(directory);
    CFRelease(password);
    if (backup == NULL) {
        fail(error, "opening");
    }
    return backup;
}

static Boolean countBytes(const uint8_t *bytes, CFIndex length, void *context) {
    long *count = context;
    (void)bytes;
    if (*count == 0 && length > 0) {
        report("reading"); /* in the middle of the first file */
    }
    *count += length;
    return true;
}

static void readEverything(KVBackupContainerClass *backup) {
    CFArrayRef entries = KVManifestGetEntries(KVBackupContainerGetManifest(backup));
    long files = 0;
    long bytes = 0;
    for (CFIndex i = 0; i < CFArrayGetCount(entries); ++i) {
        const KVManifestEntryClass *entry =
            (const KVManifestEntryClass *)CFArrayGetValueAtIndex(entries, i);
        CFErrorRef error = NULL;
        KVFileClass *file = KVManifestEntryIsFile(entry)
                                ? KVBackupContainerCopyFileForEntry(backup, entry, &error)
                                : NULL;
        if (file != NULL) {
            const Boolean first = bytes == 0;
            ++files;
            if (!KVFileReadData(file, 0, &countBytes, &bytes, &error)) {
                fail(error, "reading");
            }
            CFRelease(file);
            if (first && bytes > 0) {
                report("first");
            }
        } else if (error != NULL) {
            CFRelease(error); /* of a class that stays locked */
        }
    }
    if (files == 0 || bytes == 0) {
        fail(NULL, "nothing could be read");
    }
}

/* Prints the new file's key as the backup holds it, in hexadecimal. */
static void storeFile(KVBackupContainerClass *backup) {
    CFErrorRef error = NULL;
    const uint8_t content[] = "A file that was not there before.";
    CFDataRef data = CFDataCreate(kCFAllocatorDefault, content, sizeof content);
    CFStringRef domain = makeString("HomeDomain");
    CFStringRef path = makeString("Library/new.txt");
    KVFileClass *file = KVFileCreateFromData(data, &error);
    if (file == NULL || !KVBackupContainerStoreFileForPath(backup, domain, path, file, &error)) {
        fail(error, "storing");
    }
    KVManifestEntryClass *entry = KVBackupContainerGetEntryForPath(backup, domain, path);
    CFDataRef key = KVManifestEntryGetEncryptionData(entry);
    for (CFIndex i = 0; i < CFDataGetLength(key); ++i) {
        printf("%02x", CFDataGetBytePtr(key)[i]);
    }
    CFRelease(file);
    CFRelease(path);
    CFRelease(domain);
    CFRelease(data);
}

int main(int argc, char **argv) {
    if (argc != 4) {
        return 2;
    }
    CFStringRef temporaryPath = makeString(argv[3]);
    if (!KelvaneSetTemporaryPath(temporaryPath)) {
        fail(NULL, "temporary path");
    }
    CFRelease(temporaryPath);
    report("started");
    KVBackupContainerClass *backup = openBackup(argv[1], argv[2]);
    report("open");
    readEverything(backup);
    report("read");
    storeFile(backup);
    report(" stored");
    CFRelease(backup);
    report("closed");
    return 0;
}
