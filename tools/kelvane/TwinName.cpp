#include "TwinName.hpp"

#include "Diagnostics.hpp"

namespace tool {

namespace {

constexpr std::size_t kLongestName = 255;
// A device has few names that are one elsewhere; a manifest that was made to repeat a name must not
// make each look for a place longer than the one before.
constexpr unsigned kMaximumTwins = 64;

// The extension with its dot; empty for a name that only begins with one.
std::string extensionOf(const std::string &name) {
    const std::size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
}

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

// At most so many bytes of the text, and no part of a character.
std::string shortened(const std::string &text, std::size_t length) {
    if (text.size() <= length) {
        return text;
    }
    while (length > 0 && isContinuation(text[length])) {
        --length;
    }
    return text.substr(0, length);
}

} // namespace

std::string TwinName(const std::string &name, unsigned number) {
    const std::string mark = " (" + std::to_string(number) + ")";
    std::string extension = extensionOf(name);
    if (mark.size() + extension.size() >= kLongestName) {
        extension.clear();
    }
    const std::string stem = name.substr(0, name.size() - extension.size());
    return shortened(stem, kLongestName - mark.size() - extension.size()) + mark + extension;
}

std::string FreeTwinName(const std::string &name,
                         const std::function<bool(const std::string &name)> &isFree) {
    for (unsigned number = 2; number <= kMaximumTwins; ++number) {
        const std::string twin = TwinName(name, number);
        if (isFree(twin)) {
            return twin;
        }
    }
    throw Failure("Too many other entries of the backup have been extracted to that name");
}

} // namespace tool
