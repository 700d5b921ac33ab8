#include "Password.hpp"

#include "Diagnostics.hpp"
#include "ExitStatus.hpp"
#include "Interruption.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace tool {

namespace {

// Far above what a keyboard produces; a mistaken file name ends here.
constexpr std::size_t kMaxPasswordLength = 64 * 1024;

class Descriptor {
  public:
    explicit Descriptor(int fd, bool owned = true) : fd_(fd), owned_(owned) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() {
        if (owned_ && fd_ >= 0) {
            close(fd_);
        }
    }
    int get() const noexcept { return fd_; }

  private:
    int fd_;
    bool owned_;
};

// Turns echo off while it lives; a signal turns it on again too.
class Silence {
  public:
    explicit Silence(int fd) : fd_(fd) {
        const Interruption::Hold hold;
        if (fd_ >= 0 && tcgetattr(fd_, &before_) == 0) {
            termios silent = before_;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            silent.c_lflag |= ECHONL;
            active_ = tcsetattr(fd_, TCSAFLUSH, &silent) == 0;
        }
        if (active_) {
            Interruption::SetCleanup(Interruption::kTerminal, [this] { restore(); });
        }
    }
    Silence(const Silence &) = delete;
    Silence &operator=(const Silence &) = delete;
    ~Silence() {
        const Interruption::Hold hold;
        if (active_) {
            Interruption::SetCleanup(Interruption::kTerminal, nullptr);
            restore();
        }
    }
    bool active() const noexcept { return active_; }

  private:
    void restore() const { tcsetattr(fd_, TCSAFLUSH, &before_); }

    int fd_;
    termios before_{};
    bool active_ = false;
};

// One byte at a time, so that nothing beyond the line is taken from standard input.
void readLine(int fd, Secret &line) {
    for (;;) {
        char c = 0;
        const ssize_t count = read(fd, &c, 1);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw Failure("The password could not be read", SystemError());
        }
        if (count == 0 || c == '\n') {
            return;
        }
        if (line.get().size() >= kMaxPasswordLength) {
            throw Failure("The password is too long").WithStatus(kPassword);
        }
        line.append(c);
    }
}

} // namespace

void ReadPasswordFile(const std::string &path, Secret &password) {
    password.clear();
    const bool standardInput = path == "-";
    const Descriptor file(standardInput ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC),
                          !standardInput);
    if (file.get() < 0) {
        throw Failure("The password file '" + path + "' could not be opened", SystemError());
    }
    Secret line;
    readLine(file.get(), line);
    const std::string &text = line.get();
    const std::size_t length = !text.empty() && text.back() == '\r' ? text.size() - 1 : text.size();
    for (std::size_t i = 0; i < length; ++i) {
        password.append(text[i]);
    }
}

void AskPassword(Secret &password, const CF::Error &required) {
    password.clear();
    const Descriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    const Silence silence(terminal.get());
    if (!silence.active()) {
        PrintMessage("there is no terminal to ask for the password; see --password-file");
        throw Failure(required).WithStatus(kPassword);
    }
    constexpr char kPrompt[] = "Backup password: ";
    if (write(terminal.get(), kPrompt, sizeof kPrompt - 1) < 0) {
        throw Failure("The terminal could not be written to", SystemError());
    }
    readLine(terminal.get(), password);
}

CF::String ToString(const Secret &password) {
    const std::string &text = password.get();
    auto string = CF::String::Adopt(
        CFStringCreateWithBytes(WipingAllocator(), reinterpret_cast<const UInt8 *>(text.data()),
                                static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false));
    if (!string) {
        throw Failure("The password is not UTF-8 text").WithStatus(kPassword);
    }
    return string;
}

} // namespace tool
