#include "Output.hpp"

#include "Diagnostics.hpp"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace tool {

namespace {

constexpr const char *kFailureText = "Standard output could not be written";

} // namespace

void Print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        throw Failure(kFailureText, SystemError());
    }
}

void PrintLine(std::string_view text) {
    Print(text);
    Print("\n");
}

void FlushOutput() {
    if (std::fflush(stdout) != 0) {
        throw Failure(kFailureText, SystemError());
    }
}

void WriteAll(int fd, std::span<const std::uint8_t> bytes, std::string_view what) {
    while (!bytes.empty()) {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            throw Failure(std::string(what) + " could not be written", SystemError());
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

bool OutputIsTerminal() { return isatty(STDOUT_FILENO) == 1; }

} // namespace tool
