#include "Output.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>
#include <utility>

namespace tool {

namespace {

constexpr const char *kFailureText = "Standard output could not be written";
constexpr int kStandardStreams = 3;

// The tool's own stream to what was standard output.
std::FILE *output = nullptr;

// Opened the wrong way round: using a stream that was closed must fail as it would have.
void replaceClosedStreams() {
    for (int fd = 0; fd < kStandardStreams; ++fd) {
        if (fcntl(fd, F_GETFD) < 0 &&
            open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) {
            std::abort();
        }
    }
}

// Null when standard output was closed.
std::FILE *openOutput() {
    if (output == nullptr) {
        errno = EBADF;
    }
    return output;
}

[[noreturn]] void throwFailure() {
    if (errno == EPIPE) {
        throw OutputClosed(kFailureText, SystemError());
    }
    throw Failure(kFailureText, SystemError());
}

// False with errno.
bool writeAll(int fd, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

std::string collectedPath;

} // namespace

void StartOutput() {
    replaceClosedStreams();
    const int own = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, kStandardStreams);
    output = own < 0 ? nullptr : fdopen(own, "w");
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0) {
        std::abort();
    }
    close(nowhere);
}

void CollectLibraryOutput(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0) {
        throw Failure("The temporary directory cannot be written to", SystemError());
    }
    close(fd);
    collectedPath = path;
}

void ShowLibraryOutput() {
    if (collectedPath.empty()) {
        return;
    }
    std::fflush(stdout);
    std::ifstream collected(collectedPath);
    for (std::string line; std::getline(collected, line);) {
        PrintMessage("log: " + line);
    }
}

void Print(std::string_view text) {
    if (openOutput() == nullptr ||
        std::fwrite(text.data(), 1, text.size(), output) != text.size()) {
        throwFailure();
    }
}

void PrintLine(std::string_view text) {
    Print(text);
    Print("\n");
}

void FinishOutput() {
    // Some file systems report a full disk when a file is closed and not before.
    if (output != nullptr && std::fclose(std::exchange(output, nullptr)) != 0) {
        throwFailure();
    }
}

void WriteOutput(std::span<const std::uint8_t> bytes) {
    if (openOutput() == nullptr || !writeAll(fileno(output), bytes)) {
        throwFailure();
    }
}

bool OutputIsTerminal() {
    static const bool terminal = output != nullptr && isatty(fileno(output)) == 1;
    return terminal;
}

void WriteFileBytes(int fd, std::span<const std::uint8_t> bytes) {
    if (!writeAll(fd, bytes)) {
        throw Failure("The file could not be written", SystemError());
    }
}

} // namespace tool
