/* Makes one file operation of a process fail, as a full or broken disk would.
 *
 * Preloaded into a program, it counts the operations on files below a directory (opening,
 * reading, writing, renaming, syncing, making directories, and closing what was open for
 * writing) and lets the n-th fail. Standard I/O on such files is taken through the same
 * operations. A descriptor whose closing fails is closed all the same, as a real one is.
 * Environment:
 *   FAULT_ROOT    the directory, absolute; operations elsewhere are neither counted nor failed
 *   FAULT_AT      which operation fails, from 1; 0 or unset: none
 *   FAULT_ERRNO   the error number it fails with
 *   FAULT_STICKY  when set, all that write fail from then on, as on a full disk
 *   FAULT_KILL    when set, the process is killed instead; removing counts as an operation then
 *   FAULT_LOG     a file that receives a line for each operation: its number, name and path */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

/* The C library's own headers turn some of these into others. */
#undef open
#undef open64
#undef openat
#undef openat64
#undef fopen
#undef fopen64

enum { kMaximumDescriptors = 65536 };
enum { kUnwatched = 0, kForReading = 1, kForWriting = 2 };
static atomic_uchar watched[kMaximumDescriptors];
static atomic_long counter;
static long fault_at;
static int fault_errno = EIO;
static int sticky;
static int kills;
static int log_descriptor = -1;
static const char *root;
static size_t root_length;

/* The C library's own, since the one of that name here is watched. */
typedef long SystemCall(long number, ...);
static SystemCall *real_syscall(void) {
    static _Atomic(SystemCall *) found;
    if (atomic_load(&found) == NULL) {
        SystemCall *function = NULL;
        *(void **)&function = dlsym(RTLD_NEXT, "syscall");
        atomic_store(&found, function);
    }
    return atomic_load(&found);
}
#define syscall(...) (real_syscall()(__VA_ARGS__))

/* Straight to the kernel where the operation itself is watched. */
static long kernel_write(int fd, const void *bytes, size_t count) {
    return syscall(SYS_write, fd, bytes, count);
}

__attribute__((constructor)) static void start(void) {
    root = getenv("FAULT_ROOT");
    root_length = root == NULL ? 0 : strlen(root);
    const char *const at = getenv("FAULT_AT");
    fault_at = at == NULL ? 0 : atol(at);
    const char *const number = getenv("FAULT_ERRNO");
    fault_errno = number == NULL ? EIO : atoi(number);
    sticky = getenv("FAULT_STICKY") != NULL;
    kills = getenv("FAULT_KILL") != NULL;
    const char *const log = getenv("FAULT_LOG");
    if (log != NULL) {
        log_descriptor = (int)syscall(SYS_openat, AT_FDCWD, log,
                                      O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }
}

static int below_root(const char *path) {
    return root_length > 0 && path != NULL && strncmp(path, root, root_length) == 0 &&
           (path[root_length] == '/' || path[root_length] == '\0');
}

static int is_watched(int fd) {
    return fd >= 0 && fd < kMaximumDescriptors && atomic_load(&watched[fd]) != kUnwatched;
}

static int is_watched_at(int directory, const char *path) {
    return path != NULL && (path[0] == '/' ? below_root(path) : is_watched(directory));
}

static void watch(int fd, int flags) {
    if (fd >= 0 && fd < kMaximumDescriptors) {
        const int writes = (flags & O_ACCMODE) != O_RDONLY;
        atomic_store(&watched[fd], writes ? kForWriting : kForReading);
    }
}

static int is_watched_for_writing(int fd) {
    return is_watched(fd) && atomic_load(&watched[fd]) == kForWriting;
}

static void write_log(long number, const char *name, const char *what) {
    char line[PATH_MAX + 128];
    const int length = snprintf(line, sizeof line, "%ld %s %s\n", number, name, what);
    if (log_descriptor >= 0 && length > 0) {
        kernel_write(log_descriptor, line, (size_t)length);
    }
}

/* Counts one operation; 1, with errno set, when it is to fail. */
static int fails(const char *name, int writes, const char *what) {
    const long number = atomic_fetch_add(&counter, 1) + 1;
    write_log(number, name, what);
    if (fault_at == 0 || number < fault_at || (number > fault_at && !(sticky && writes))) {
        return 0;
    }
    if (kills) {
        syscall(SYS_kill, getpid(), SIGKILL);
    }
    errno = fault_errno;
    return 1;
}

static const char *name_of(int fd, char *buffer, size_t size) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, buffer, size - 1);
    buffer[length < 0 ? 0 : length] = '\0';
    return buffer;
}

static int descriptor_fails(int fd, const char *name, int writes) {
    if (!is_watched(fd)) {
        return 0;
    }
    char path[PATH_MAX] = "";
    return fails(name, writes, log_descriptor < 0 ? "" : name_of(fd, path, sizeof path));
}

/* ---- Opening */

static int open_at(int directory, const char *path, int flags, mode_t mode) {
    const int watching = is_watched_at(directory, path);
    const int creates = (flags & (O_CREAT | O_TRUNC)) != 0;
    if (watching && fails(creates ? "create" : "open", creates, path)) {
        return -1;
    }
    const int fd = (int)syscall(SYS_openat, directory, path, flags, mode);
    if (watching) {
        watch(fd, flags);
    }
    return fd;
}

static mode_t mode_argument(int flags, va_list *arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(*arguments, mode_t) : 0;
}

#define DEFINE_OPEN(NAME)                                                                          \
    int NAME(const char *path, int flags, ...) {                                                   \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        const mode_t mode = mode_argument(flags, &arguments);                                      \
        va_end(arguments);                                                                         \
        return open_at(AT_FDCWD, path, flags, mode);                                               \
    }
#define DEFINE_OPENAT(NAME)                                                                        \
    int NAME(int directory, const char *path, int flags, ...) {                                    \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        const mode_t mode = mode_argument(flags, &arguments);                                      \
        va_end(arguments);                                                                         \
        return open_at(directory, path, flags, mode);                                              \
    }
DEFINE_OPEN(open)
DEFINE_OPEN(open64)
DEFINE_OPENAT(openat)
DEFINE_OPENAT(openat64)

int __open_2(const char *path, int flags);
int __open_2(const char *path, int flags) { return open_at(AT_FDCWD, path, flags, 0); }
int __open64_2(const char *path, int flags);
int __open64_2(const char *path, int flags) { return open_at(AT_FDCWD, path, flags, 0); }

int close(int fd) {
    const int failed = is_watched_for_writing(fd) && descriptor_fails(fd, "close", 1);
    const int number = errno;
    if (fd >= 0 && fd < kMaximumDescriptors) {
        atomic_store(&watched[fd], kUnwatched);
    }
    const int result = (int)syscall(SYS_close, fd);
    if (!failed) {
        return result;
    }
    errno = number;
    return -1;
}

/* ---- Reading */

ssize_t read(int fd, void *buffer, size_t count) {
    return descriptor_fails(fd, "read", 0) ? -1 : syscall(SYS_read, fd, buffer, count);
}
ssize_t __read_chk(int fd, void *buffer, size_t count, size_t size);
ssize_t __read_chk(int fd, void *buffer, size_t count, size_t size) {
    (void)size;
    return read(fd, buffer, count);
}
ssize_t pread64(int fd, void *buffer, size_t count, off64_t offset) {
    return descriptor_fails(fd, "pread", 0) ? -1 : syscall(SYS_pread64, fd, buffer, count, offset);
}
ssize_t pread(int fd, void *buffer, size_t count, off_t offset) {
    return pread64(fd, buffer, count, offset);
}

/* ---- Writing */

ssize_t write(int fd, const void *buffer, size_t count) {
    return descriptor_fails(fd, "write", 1) ? -1 : kernel_write(fd, buffer, count);
}
ssize_t pwrite64(int fd, const void *buffer, size_t count, off64_t offset) {
    return descriptor_fails(fd, "pwrite", 1) ? -1
                                             : syscall(SYS_pwrite64, fd, buffer, count, offset);
}
ssize_t pwrite(int fd, const void *buffer, size_t count, off_t offset) {
    return pwrite64(fd, buffer, count, offset);
}
ssize_t copy_file_range(int source, off64_t *from, int target, off64_t *to, size_t length,
                        unsigned int flags) {
    return descriptor_fails(target, "copy_file_range", 1)
               ? -1
               : syscall(SYS_copy_file_range, source, from, target, to, length, flags);
}
int ftruncate64(int fd, off64_t length) {
    return descriptor_fails(fd, "ftruncate", 1) ? -1 : (int)syscall(SYS_ftruncate, fd, length);
}
int ftruncate(int fd, off_t length) { return ftruncate64(fd, length); }
int fsync(int fd) { return descriptor_fails(fd, "fsync", 1) ? -1 : (int)syscall(SYS_fsync, fd); }
int fdatasync(int fd) {
    return descriptor_fails(fd, "fdatasync", 1) ? -1 : (int)syscall(SYS_fdatasync, fd);
}

/* ---- Names */

int renameat(int from, const char *path, int to, const char *target) {
    if (is_watched_at(to, target) && fails("rename", 1, target)) {
        return -1;
    }
    return (int)syscall(SYS_renameat2, from, path, to, target, 0);
}
int rename(const char *path, const char *target) {
    return renameat(AT_FDCWD, path, AT_FDCWD, target);
}
int mkdirat(int directory, const char *path, mode_t mode) {
    if (is_watched_at(directory, path) && fails("mkdir", 1, path)) {
        return -1;
    }
    return (int)syscall(SYS_mkdirat, directory, path, mode);
}
int mkdir(const char *path, mode_t mode) { return mkdirat(AT_FDCWD, path, mode); }
/* Programs may well ignore that something cannot be removed, which is therefore not made to fail.
 */
int unlinkat(int directory, const char *path, int flags) {
    if (kills && is_watched_at(directory, path)) {
        fails("unlink", 1, path);
    }
    return (int)syscall(SYS_unlinkat, directory, path, flags);
}
int unlink(const char *path) { return unlinkat(AT_FDCWD, path, 0); }

/* ---- Standard I/O: streams whose operations are those above */

static ssize_t stream_read(void *cookie, char *buffer, size_t size) {
    return read(*(int *)cookie, buffer, size);
}
/* Such a function reports failure by 0. */
static ssize_t stream_write(void *cookie, const char *buffer, size_t size) {
    const ssize_t written = write(*(int *)cookie, buffer, size);
    return written < 0 ? 0 : written;
}
static int stream_seek(void *cookie, off64_t *offset, int whence) {
    const long position = syscall(SYS_lseek, *(int *)cookie, *offset, whence);
    *offset = position;
    return position < 0 ? -1 : 0;
}
static int stream_close(void *cookie) {
    const int result = close(*(int *)cookie);
    free(cookie);
    return result;
}

static int flags_of(const char *mode) {
    const int access = strchr(mode, '+') != NULL ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY;
    const int making = mode[0] == 'w' ? O_CREAT | O_TRUNC : mode[0] == 'a' ? O_CREAT | O_APPEND : 0;
    return access | making | O_CLOEXEC;
}

static FILE *watched_stream(const char *path, const char *mode) {
    int *const cookie = malloc(sizeof *cookie);
    if (cookie == NULL) {
        return NULL;
    }
    *cookie = open_at(AT_FDCWD, path, flags_of(mode), 0666);
    const cookie_io_functions_t functions = {stream_read, stream_write, stream_seek, stream_close};
    FILE *const stream = *cookie < 0 ? NULL : fopencookie(cookie, mode, functions);
    if (stream == NULL) {
        free(cookie);
    }
    return stream;
}

typedef FILE *(*open_stream)(const char *, const char *);

static FILE *next_fopen(const char *path, const char *mode) {
    open_stream next = NULL;
    void *const found = dlsym(RTLD_NEXT, "fopen64");
    memcpy(&next, &found, sizeof next);
    return next(path, mode);
}

FILE *fopen64(const char *path, const char *mode) {
    return below_root(path) ? watched_stream(path, mode) : next_fopen(path, mode);
}
FILE *fopen(const char *path, const char *mode) { return fopen64(path, mode); }

/* ---- Calls that the C library has no function for */

#undef syscall
#ifdef SYS_openat2
static long open_beneath(const long *arguments) {
    const int directory = (int)arguments[0];
    const char *const path = (const char *)arguments[1];
    const struct open_how *const how = (const struct open_how *)arguments[2];
    const int watching = is_watched_at(directory, path) && (how->flags & O_PATH) == 0;
    if (watching && fails("open", 0, path)) {
        return -1;
    }
    const long fd =
        real_syscall()(SYS_openat2, arguments[0], arguments[1], arguments[2], arguments[3]);
    if (watching) {
        watch((int)fd, (int)how->flags);
    }
    return fd;
}
#endif

long syscall(long number, ...) {
    long given[6];
    va_list arguments;
    va_start(arguments, number);
    for (int i = 0; i < 6; ++i) {
        given[i] = va_arg(arguments, long);
    }
    va_end(arguments);
#ifdef SYS_openat2
    if (number == SYS_openat2) {
        return open_beneath(given);
    }
#endif
    return real_syscall()(number, given[0], given[1], given[2], given[3], given[4], given[5]);
}
