/* A host in plain C that sees only the public headers: proves that they are C, and that a C
 * program can open a backup and read a file of it. Usage: c_interface_test BACKUP PASSWORD
 * DOMAIN PATH TEMP; writes the file's plaintext to standard output. With BACKUP alone it sets no
 * temporary path, and succeeds when that is an error and not its end. */
#include <Kelvane.h>

#include <stdio.h>
#include <string.h>

static CFStringRef makeString(const char *text) {
    return CFStringCreateWithCString(kCFAllocatorDefault, text, kCFStringEncodingUTF8);
}

static int fail(CFErrorRef error, const char *what) {
    char text[1024] = "no error";
    if (error != NULL) {
        CFStringRef description = CFCopyDescription(error);
        CFStringGetCString(description, text, sizeof text, kCFStringEncodingUTF8);
        CFRelease(description);
        CFRelease(error);
    }
    fprintf(stderr, "%s: %s\n", what, text);
    return 1;
}

static Boolean print(const uint8_t *bytes, CFIndex length, void *context) {
    (void)context;
    return fwrite(bytes, 1, (size_t)length, stdout) == (size_t)length;
}

static void countProgress(int64_t done, int64_t total, double fraction, void *context) {
    (void)done;
    (void)total;
    (void)fraction;
    ++*(int *)context;
}

static int readFile(KVBackupContainerClass *backup, const char *domain, const char *path) {
    CFErrorRef error = NULL;
    CFStringRef domainText = makeString(domain);
    CFStringRef pathText = makeString(path);
    KVFileClass *file = KVBackupContainerCopyFileForPath(backup, domainText, pathText, &error);
    CFRelease(pathText);
    CFRelease(domainText);
    if (file == NULL) {
        return fail(error, "copying out");
    }
    const Boolean done = KVFileReadData(file, 0, &print, NULL, &error);
    CFRelease(file);
    return done ? 0 : fail(error, "reading");
}

/* True for the error of a host that has set no temporary path, which is released. */
static int isMissingPath(CFErrorRef error) {
    int missing;
    CFStringRef reason;
    if (error == NULL) {
        return 0;
    }
    reason = CFErrorCopyFailureReason(error);
    missing = CFErrorGetCode(error) == kKVErrorInvalidArgument && reason != NULL &&
              CFStringHasPrefix(reason, CFSTR("Temporary storage path not set"));
    if (reason != NULL) {
        CFRelease(reason);
    }
    CFRelease(error);
    return missing;
}

static int forgetTemporaryPath(const char *path) {
    CFErrorRef error = NULL;
    CFStringRef directory = makeString(path);
    KVBackupContainerClass *backup = KVBackupContainerOpenDirectory(
        NULL, directory, NULL, kKVBackupOpenDefault, NULL, NULL, &error);
    CFRelease(directory);
    if (backup != NULL || !isMissingPath(error)) {
        return fail(NULL, "opening without a temporary path");
    }
    error = NULL;
    if (KVBackupContainerOpenEmpty(NULL, &error) != NULL || !isMissingPath(error)) {
        return fail(NULL, "an empty container without a temporary path");
    }
    return KVBackupContainerOpenEmpty(NULL, NULL) == NULL ? 0 : 1;
}

int main(int argc, char **argv) {
    CFErrorRef error = NULL;
    int reports = 0;
    int status;
    if (argc == 2) {
        return forgetTemporaryPath(argv[1]);
    }
    if (argc != 6) {
        return 2;
    }
    CFStringRef temporaryPath = makeString(argv[5]);
    if (!KelvaneSetTemporaryPath(temporaryPath)) {
        return fail(NULL, "temporary path");
    }
    CFStringRef directory = makeString(argv[1]);
    CFStringRef password = makeString(argv[2]);
    KVBackupContainerClass *backup = KVBackupContainerOpenDirectory(
        NULL, directory, password, kKVBackupOpenKeepDeviceBoundKeysLocked, &countProgress, &reports,
        &error);
    CFRelease(password);
    CFRelease(directory);
    CFRelease(temporaryPath);
    if (backup == NULL) {
        return fail(error, "opening");
    }
    status = readFile(backup, argv[3], argv[4]);
    if (reports == 0) {
        status = fail(NULL, "no progress was reported");
    }
    CFRelease(backup);
    return status;
}
