/* Makes a directory look as if it lay on a file system that takes two names for one.
 *
 * Preloaded into a program, it replaces each component of a path below FOLD_ROOT, an absolute path
 * without links, by the name that is there already and equals it but for the case of ASCII letters
 * or for Unicode normalisation (of the letters that the tests use). A new name stays as it is
 * given, as on the file systems that most computers of one maker have. */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* The C library's own headers turn some of these into others. */
#undef open
#undef open64
#undef openat
#undef openat64

enum { kPathSize = 2 * PATH_MAX };

static const char *const kComposed[][2] = {
    {"e\xCC\x81", "\xC3\xA9"},
    {"\xE3\x81\x8B\xE3\x82\x99", "\xE3\x81\x8C"},
};

#define REAL(type, name) (__extension__(type) dlsym(RTLD_NEXT, name))

/* What is the same for two names that mean one file. */
static void fold(const char *name, char *folded, size_t size) {
    size_t length = 0;
    while (*name != '\0' && length + 4 < size) {
        size_t taken = 0;
        for (size_t i = 0; i < sizeof(kComposed) / sizeof(kComposed[0]) && taken == 0; ++i) {
            if (strncmp(name, kComposed[i][0], strlen(kComposed[i][0])) == 0) {
                length += (size_t)snprintf(folded + length, size - length, "%s", kComposed[i][1]);
                taken = strlen(kComposed[i][0]);
            }
        }
        if (taken == 0) {
            folded[length++] = *name >= 'A' && *name <= 'Z' ? (char)(*name - 'A' + 'a') : *name;
            taken = 1;
        }
        name += taken;
    }
    folded[length] = '\0';
}

/* The name in the directory that means the same, or the given one. */
static void name_in(const char *directory, const char *name, char *found, size_t size) {
    char wanted[NAME_MAX + 8];
    char other[NAME_MAX + 8];
    struct stat status;
    char path[kPathSize];
    snprintf(found, size, "%s", name);
    snprintf(path, sizeof(path), "%s/%s", directory, name);
    if (REAL(int (*)(const char *, struct stat *), "lstat")(path, &status) == 0) {
        return;
    }
    DIR *const entries = REAL(DIR * (*)(const char *), "opendir")(directory);
    fold(name, wanted, sizeof(wanted));
    for (const struct dirent *entry; entries != NULL && (entry = readdir(entries)) != NULL;) {
        fold(entry->d_name, other, sizeof(other));
        if (strcmp(wanted, other) == 0) {
            snprintf(found, size, "%s", entry->d_name);
            break;
        }
    }
    if (entries != NULL) {
        closedir(entries);
    }
}

static int start_of(int directory, const char *path, char *start, size_t size) {
    if (path[0] == '/') {
        start[0] = '\0';
        return 1;
    }
    if (directory == AT_FDCWD) {
        return getcwd(start, size) != NULL;
    }
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", directory);
    const ssize_t length =
        REAL(ssize_t(*)(const char *, char *, size_t), "readlink")(link, start, size - 1);
    if (length < 0) {
        return 0;
    }
    start[length] = '\0';
    return 1;
}

/* The path to use: absolute in the buffer for one below the root, else the given one. */
static const char *resolve(int *directory, const char *path, char *buffer) {
    const int saved = errno;
    const char *const root = getenv("FOLD_ROOT");
    char whole[kPathSize];
    char start[kPathSize];
    if (root == NULL || path == NULL || path[0] == '\0' ||
        !start_of(*directory, path, start, sizeof(start)) ||
        snprintf(whole, sizeof(whole), "%s/%s", start, path) >= PATH_MAX) {
        errno = saved;
        return path;
    }
    const char *const begin = path[0] == '/' ? whole + 1 : whole;
    const size_t length = strlen(root);
    if (strncmp(begin, root, length) != 0 || begin[length] != '/') {
        errno = saved;
        return path;
    }
    char *rest = NULL;
    snprintf(buffer, kPathSize, "%s", root);
    for (char *component = strtok_r((char *)begin + length, "/", &rest); component != NULL;
         component = strtok_r(NULL, "/", &rest)) {
        char found[NAME_MAX + 8];
        name_in(buffer, component, found, sizeof(found));
        const size_t used = strlen(buffer);
        snprintf(buffer + used, kPathSize - used, "/%s", found);
    }
    *directory = AT_FDCWD;
    errno = saved;
    return buffer;
}

#define RESOLVED(directory, path)                                                                  \
    char buffer[kPathSize];                                                                        \
    const char *const folded = resolve(&(directory), path, buffer)

static mode_t mode_of(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

#define OPENING(name, parameters, directory_value)                                                 \
    int name parameters {                                                                          \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        const mode_t mode = mode_of(flags, arguments);                                             \
        va_end(arguments);                                                                         \
        int where = directory_value;                                                               \
        RESOLVED(where, path);                                                                     \
        return REAL(int (*)(int, const char *, int, ...), "openat")(where, folded, flags, mode);   \
    }
OPENING(open, (const char *path, int flags, ...), AT_FDCWD)
OPENING(open64, (const char *path, int flags, ...), AT_FDCWD)
OPENING(openat, (int directory, const char *path, int flags, ...), directory)
OPENING(openat64, (int directory, const char *path, int flags, ...), directory)

#define LOOKING(name, type, parameters, directory_value, flags)                                    \
    int name parameters {                                                                          \
        int where = directory_value;                                                               \
        RESOLVED(where, path);                                                                     \
        return REAL(int (*)(int, const char *, type *, int), "fstatat")(where, folded, status,     \
                                                                        flags);                    \
    }
LOOKING(stat, struct stat, (const char *path, struct stat *status), AT_FDCWD, 0)
LOOKING(lstat, struct stat, (const char *path, struct stat *status), AT_FDCWD, AT_SYMLINK_NOFOLLOW)
LOOKING(fstatat, struct stat, (int directory, const char *path, struct stat *status, int options),
        directory, options)
LOOKING(stat64, struct stat64, (const char *path, struct stat64 *status), AT_FDCWD, 0)
LOOKING(lstat64, struct stat64, (const char *path, struct stat64 *status), AT_FDCWD,
        AT_SYMLINK_NOFOLLOW)
LOOKING(fstatat64, struct stat64,
        (int directory, const char *path, struct stat64 *status, int options), directory, options)

int mkdirat(int directory, const char *path, mode_t mode) {
    RESOLVED(directory, path);
    return REAL(int (*)(int, const char *, mode_t), "mkdirat")(directory, folded, mode);
}

int mkdir(const char *path, mode_t mode) { return mkdirat(AT_FDCWD, path, mode); }

int unlinkat(int directory, const char *path, int flags) {
    RESOLVED(directory, path);
    return REAL(int (*)(int, const char *, int), "unlinkat")(directory, folded, flags);
}

int symlinkat(const char *target, int directory, const char *path) {
    RESOLVED(directory, path);
    return REAL(int (*)(const char *, int, const char *), "symlinkat")(target, directory, folded);
}

int utimensat(int directory, const char *path, const struct timespec times[2], int flags) {
    RESOLVED(directory, path);
    return REAL(int (*)(int, const char *, const struct timespec *, int),
                "utimensat")(directory, folded, times, flags);
}

int renameat2(int from, const char *old, int to, const char *path, unsigned flags) {
    char first[kPathSize];
    const char *const source = resolve(&from, old, first);
    RESOLVED(to, path);
    return REAL(int (*)(int, const char *, int, const char *, unsigned),
                "renameat2")(from, source, to, folded, flags);
}

int renameat(int from, const char *old, int to, const char *path) {
    return renameat2(from, old, to, path, 0);
}

int rename(const char *old, const char *path) {
    return renameat2(AT_FDCWD, old, AT_FDCWD, path, 0);
}

DIR *opendir(const char *path) {
    int where = AT_FDCWD;
    RESOLVED(where, path);
    return REAL(DIR * (*)(const char *), "opendir")(folded);
}

char *realpath(const char *restrict path, char *restrict resolved) {
    int where = AT_FDCWD;
    RESOLVED(where, path);
    return REAL(char *(*)(const char *, char *), "realpath")(folded, resolved);
}
