/* Lets allocations of a process fail, as they do where memory is scarce.
 *
 * Preloaded into a program, it counts the allocations from the beginning of main on, those of all
 * libraries and of operator new, and lets the n-th fail. Environment: MEMORY_FAULT_AT      which
 * allocation fails, from 1; 0 or unset: none MEMORY_FAULT_STICKY  when set, all later ones fail too
 *   MEMORY_FAULT_EXCEPT  an exported function whose own allocations are neither counted nor failed
 *   MEMORY_FAULT_COUNT   a file that receives the number of allocations at the end */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

/* The C library's own, under the names that nobody replaces. */
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void *__libc_memalign(size_t alignment, size_t size);

static atomic_long counter;
static atomic_int counting;
static long fault_at;
static int sticky;
static uintptr_t exempt_start;
static uintptr_t exempt_size;

/* Where the exempt function lies: looking it up for each allocation would take longer than all
 * else. */
static void find_exempt(const char *name) {
    void *const function = name == NULL ? NULL : dlsym(RTLD_DEFAULT, name);
    Dl_info info;
    void *symbol = NULL;
    if (function != NULL && dladdr1(function, &info, &symbol, RTLD_DL_SYMENT) != 0 &&
        symbol != NULL) {
        exempt_start = (uintptr_t)function;
        exempt_size = ((const ElfW(Sym) *)symbol)->st_size;
    }
}

static int is_exempt(const void *caller) { return (uintptr_t)caller - exempt_start < exempt_size; }

static int fails(const void *caller) {
    if (!atomic_load(&counting) || is_exempt(caller)) {
        return 0;
    }
    const long number = atomic_fetch_add(&counter, 1) + 1;
    if (fault_at == 0 || number < fault_at || (number > fault_at && !sticky)) {
        return 0;
    }
    errno = ENOMEM;
    return 1;
}

#define CALLER __builtin_return_address(0)

void *malloc(size_t size) { return fails(CALLER) ? NULL : __libc_malloc(size); }
void *calloc(size_t count, size_t size) {
    return fails(CALLER) ? NULL : __libc_calloc(count, size);
}
void *realloc(void *memory, size_t size) {
    return fails(CALLER) ? NULL : __libc_realloc(memory, size);
}
void *memalign(size_t alignment, size_t size);
void *memalign(size_t alignment, size_t size) {
    return fails(CALLER) ? NULL : __libc_memalign(alignment, size);
}
void *aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void **result, size_t alignment, size_t size) {
    void *const memory = memalign(alignment, size);
    if (memory == NULL) {
        return ENOMEM;
    }
    *result = memory;
    return 0;
}

typedef int (*main_function)(int, char **, char **);
static main_function real_main;

/* What runs before main runs in every program, and there is nobody yet to report to. */
static int counted_main(int argc, char **argv, char **environment) {
    const char *const at = getenv("MEMORY_FAULT_AT");
    fault_at = at == NULL ? 0 : atol(at);
    sticky = getenv("MEMORY_FAULT_STICKY") != NULL;
    find_exempt(getenv("MEMORY_FAULT_EXCEPT"));
    atomic_store(&counting, 1);
    return real_main(argc, argv, environment);
}

__attribute__((destructor)) static void finish(void) {
    atomic_store(&counting, 0);
    const char *const path = getenv("MEMORY_FAULT_COUNT");
    if (path == NULL) {
        return;
    }
    char text[32];
    const int length = snprintf(text, sizeof text, "%ld", atomic_load(&counter));
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || write(fd, text, (size_t)length) != length) {
        abort();
    }
    close(fd);
}

typedef int (*start_function)(main_function, int, char **, void (*)(void), void (*)(void),
                              void (*)(void), void *);

int __libc_start_main(main_function main, int argc, char **argv, void (*init)(void),
                      void (*fini)(void), void (*rtld_fini)(void), void *stack_end);
int __libc_start_main(main_function main, int argc, char **argv, void (*init)(void),
                      void (*fini)(void), void (*rtld_fini)(void), void *stack_end) {
    start_function next = NULL;
    void *const found = dlsym(RTLD_NEXT, "__libc_start_main");
    memcpy(&next, &found, sizeof next);
    real_main = main;
    return next(counted_main, argc, argv, init, fini, rtld_fini, stack_end);
}
