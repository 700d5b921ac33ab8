#include "Removal.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#ifdef __linux__
#include <sys/syscall.h>
#endif

namespace tool {

namespace {

// What the tool makes is three levels deep. Every level takes a descriptor and some stack.
constexpr int kMaxDepth = 16;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool isDots(const char *name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

#ifdef __linux__

// Calls visit with each name in the directory, from the first. The C library's way allocates.
template <class Visit>
void forEachName(int directory, Visit visit) {
    constexpr std::size_t kBufferSize = 4096;
    alignas(dirent64) char buffer[kBufferSize];
    lseek(directory, 0, SEEK_SET);
    for (;;) {
        const long count = syscall(SYS_getdents64, directory, buffer, sizeof buffer);
        if (count <= 0) {
            return;
        }
        for (long at = 0; at < count;) {
            const char *record = buffer + at;
            std::uint16_t length = 0;
            std::memcpy(&length, record + offsetof(dirent64, d_reclen), sizeof length);
            visit(record + offsetof(dirent64, d_name));
            at += length;
        }
    }
}

#else

template <class Visit>
void forEachName(int directory, Visit visit) {
    const int own = openat(directory, ".", kDirectoryFlags);
    DIR *stream = own < 0 ? nullptr : fdopendir(own);
    if (stream == nullptr) {
        return;
    }
    while (const dirent *entry = readdir(stream)) {
        visit(entry->d_name);
    }
    closedir(stream);
}

#endif

// What lies there may be plaintext: a failure that passes must not keep it.
int openDirectory(int parent, const char *name) {
    constexpr int kTries = 3;
    int directory = -1;
    for (int i = 0; i < kTries && directory < 0; ++i) {
        directory = openat(parent, name, kDirectoryFlags);
    }
    return directory;
}

bool removeContents(int directory, const char *last, int depth);

// True when nothing of that name is left.
bool removeEntry(int parent, const char *name, const char *last, int depth) {
    if (unlinkat(parent, name, 0) == 0 || errno == ENOENT) {
        return true;
    }
    // What unlink says of a directory differs from system to system.
    const int directory = depth < kMaxDepth ? openDirectory(parent, name) : -1;
    if (directory < 0) {
        return errno == ENOENT;
    }
    const bool emptied = removeContents(directory, last, depth + 1) &&
                         (last == nullptr || unlinkat(directory, last, 0) == 0 || errno == ENOENT);
    close(directory);
    return emptied && (unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT);
}

// Several times over: a directory that changes while it is read may keep names back.
bool removeContents(int directory, const char *last, int depth) {
    for (;;) {
        bool left = false;
        bool removed = false;
        forEachName(directory, [&](const char *name) {
            if (!isDots(name) && (last == nullptr || std::strcmp(name, last) != 0)) {
                (removeEntry(directory, name, nullptr, depth) ? removed : left) = true;
            }
        });
        if (left || !removed) {
            return !left;
        }
    }
}

} // namespace

bool RemoveTree(const char *path, const char *last) noexcept {
    return removeEntry(AT_FDCWD, path, last, 0);
}

bool RemoveContents(int directory, const char *last) noexcept {
    return removeContents(directory, last, 1);
}

void ReportLeft(const char *path) noexcept {
    constexpr std::string_view kBefore = "kelvane: '";
    constexpr std::string_view kAfter = "' could not be removed\n";
    // Room for the longest path that a system call takes.
    std::array<char, kBefore.size() + PATH_MAX + kAfter.size()> line;
    char *end = std::copy(kBefore.begin(), kBefore.end(), line.begin());
    for (int i = 0; i < PATH_MAX && path[i] != '\0'; ++i) {
        const auto byte = static_cast<unsigned char>(path[i]);
        *end++ = byte < 0x20 || byte == 0x7F ? '?' : path[i]; // a message is no terminal command
    }
    end = std::copy(kAfter.begin(), kAfter.end(), end);
    // Nothing could be done about a failure.
    [[maybe_unused]] const auto written =
        write(STDERR_FILENO, line.data(), static_cast<std::size_t>(end - line.data()));
}

} // namespace tool
