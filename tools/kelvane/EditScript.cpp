#include "EditScript.hpp"

#include "Diagnostics.hpp"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace tool {

namespace {

// Some hundred thousand operations; a mistaken file name ends here.
constexpr std::size_t kMaxScriptSize = 64 << 20;
constexpr std::size_t kReadSize = 65536;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kEscapedInDoubleQuotes = "\\\"$`";

// Takes the words of one operation after the other off a script.
class Lexer {
  public:
    explicit Lexer(std::string_view text)
        : text_(text.starts_with(kByteOrderMark) ? text.substr(kByteOrderMark.size()) : text) {}

    // Empty at the end of the script.
    std::vector<std::string> Next() {
        std::vector<std::string> words;
        while (!atEnd()) {
            if (words.empty()) {
                line_ = currentLine_;
            }
            if (takeLineEnd()) {
                if (!words.empty()) {
                    break;
                }
            } else if (!takeBlank() && !takeComment()) {
                words.push_back(takeWord());
            }
        }
        return words;
    }

    // Where the operation began that Next gave, or failed in.
    std::size_t Line() const noexcept { return line_; }

  private:
    bool atEnd() const noexcept { return position_ == text_.size(); }
    bool startsWith(std::string_view what) const {
        return text_.substr(position_).starts_with(what);
    }

    char take() {
        const char c = text_[position_++];
        if (c == '\0') {
            throw Failure("The script holds a NUL");
        }
        currentLine_ += c == '\n';
        return c;
    }

    bool atLineEnd() const { return startsWith("\n") || startsWith("\r\n"); }

    bool takeLineEnd() {
        const bool found = atLineEnd();
        if (found) {
            while (take() != '\n') {
            }
        }
        return found;
    }

    // Also the end of a line that goes on.
    bool takeBlank() {
        if (startsWith("\\\n")) {
            take();
        } else if (!startsWith(" ") && !startsWith("\t")) {
            return false;
        }
        take();
        return true;
    }

    bool takeComment() {
        if (!startsWith("#")) {
            return false;
        }
        while (!atEnd() && !atLineEnd()) {
            take();
        }
        return true;
    }

    std::string takeWord() {
        std::string word;
        while (!atEnd() && !atLineEnd() && !startsWith(" ") && !startsWith("\t")) {
            const char c = take();
            if (c == '\'') {
                takeSingleQuoted(word);
            } else if (c == '"') {
                takeDoubleQuoted(word);
            } else if (c == '\\') {
                takeEscaped(word);
            } else {
                word += c;
            }
        }
        return word;
    }

    // The character behind a backslash; a line end there vanishes with it.
    void takeEscaped(std::string &word) {
        if (atEnd()) {
            throw Failure("There is nothing behind the last backslash");
        }
        const char c = take();
        if (c != '\n') {
            word += c;
        }
    }

    void takeSingleQuoted(std::string &word) {
        while (!atEnd()) {
            const char c = take();
            if (c == '\'') {
                return;
            }
            word += c;
        }
        throw Failure("The single quote is not closed");
    }

    void takeDoubleQuoted(std::string &word) {
        while (!atEnd()) {
            const char c = take();
            if (c == '"') {
                return;
            }
            const bool escapes =
                c == '\\' && !atEnd() &&
                (text_[position_] == '\n' ||
                 kEscapedInDoubleQuotes.find(text_[position_]) != std::string_view::npos);
            if (escapes) {
                takeEscaped(word);
            } else {
                word += c;
            }
        }
        throw Failure("The double quote is not closed");
    }

    std::string_view text_;
    std::size_t position_ = 0;
    std::size_t currentLine_ = 1;
    std::size_t line_ = 1;
};

// Closes what it opened.
class Input {
  public:
    explicit Input(const std::string &path)
        : owned_(path != "-"),
          fd_(owned_ ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : STDIN_FILENO) {
        if (fd_ < 0) {
            throw Failure("The script '" + path + "' could not be opened", SystemError());
        }
    }
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;
    ~Input() {
        if (owned_) {
            close(fd_);
        }
    }
    int get() const noexcept { return fd_; }

  private:
    bool owned_;
    int fd_;
};

std::string readAll(int fd, const std::string &name) {
    std::string text;
    std::array<char, kReadSize> buffer;
    for (;;) {
        const ssize_t count = read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw Failure("The script '" + name + "' could not be read", SystemError());
        }
        if (count == 0) {
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
        if (text.size() > kMaxScriptSize) {
            throw Failure("The script '" + name + "' is too long");
        }
    }
}

} // namespace

std::vector<Operation> ParseScript(std::string_view text, const std::string &name) {
    std::vector<Operation> operations;
    Lexer lexer(text);
    try {
        for (auto words = lexer.Next(); !words.empty(); words = lexer.Next()) {
            operations.push_back(ParseOperation(words));
            operations.back().origin = name + ":" + std::to_string(lexer.Line());
        }
    } catch (const Failure &failure) {
        throw failure.Within(name + ":" + std::to_string(lexer.Line()));
    }
    return operations;
}

std::vector<Operation> ReadScript(const std::string &path) {
    const std::string name = path == "-" ? "standard input" : path;
    const Input input(path);
    return ParseScript(readAll(input.get(), name), name);
}

} // namespace tool
