#include "corefoundation/Description.hpp"

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Checks.hpp"

#include <CoreFoundation/CFString.h>

#include <array>
#include <cstdio>

namespace CFInternal {

namespace {

// Deeper nesting than a reader follows; each level indents all that it holds anew.
constexpr std::size_t kMaximumDepth = 16;
// Some hundred kilobytes of text.
constexpr std::size_t kMaximumValues = 5000;
// Of members together, each level anew, beyond which no further ones are shown: thousands may
// share one long text.
constexpr std::size_t kMaximumSize = 1024 * 1024;

struct Progress {
    std::array<CFTypeRef, kMaximumDepth> containers;
    std::size_t depth;
    std::size_t values;
    std::size_t size;
};
thread_local Progress progress{};

std::string counted(std::string text) {
    progress.size += text.size();
    return text;
}

bool isBeingDescribed(CFTypeRef container) {
    for (std::size_t i = 0; i < progress.depth; ++i) {
        if (progress.containers[i] == container) {
            return true;
        }
    }
    return false;
}

bool needsNoQuotes(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' ||
           c == '$' || c == '/' || c == ':' || c == '.';
}

bool isPlainWord(const std::string &text) {
    for (const char c : text) {
        if (!needsNoQuotes(c)) {
            return false;
        }
    }
    return !text.empty();
}

void appendEscaped(std::string &text, char c) {
    if (c == '"' || c == '\\') {
        text += '\\';
        text += c;
    } else if (c == '\n') {
        text += "\\n";
    } else if (c == '\t') {
        text += "\\t";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
        std::array<char, 8> escape{};
        std::snprintf(escape.data(), escape.size(), "\\U%04x", static_cast<unsigned>(c));
        text += escape.data();
    } else {
        text += c;
    }
}

std::string quoted(const std::string &text) {
    if (isPlainWord(text)) {
        return text;
    }
    std::string result = "\"";
    for (const char c : text) {
        appendEscaped(result, c);
    }
    return result + '"';
}

std::string addressText(const void *value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "<%p>", value);
    return text.data();
}

std::string indented(const std::string &text) {
    std::string result;
    std::size_t start = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos;
         end = text.find('\n', start)) {
        result.append(text, start, end + 1 - start).append("    ");
        start = end + 1;
    }
    return result.append(text, start, std::string::npos);
}

} // namespace

CFStringRef createString(std::string_view utf8) {
    return CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8 *>(utf8.data()),
                                   static_cast<CFIndex>(utf8.size()), kCFStringEncodingUTF8, FALSE);
}

std::string utf8Of(CFStringRef string) {
    const CFRange all = CFRangeMake(0, CFStringGetLength(string));
    CFIndex size = 0;
    CFStringGetBytes(string, all, kCFStringEncodingUTF8, '?', FALSE, nullptr, 0, &size);
    std::string text(static_cast<std::size_t>(size), '\0');
    CFStringGetBytes(string, all, kCFStringEncodingUTF8, '?', FALSE,
                     reinterpret_cast<UInt8 *>(text.data()), size, &size);
    return text;
}

void appendHex(std::string &text, const UInt8 *bytes, CFIndex length, std::string_view digits) {
    for (CFIndex i = 0; i < length; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xF];
    }
}

DescriptionScope::DescriptionScope(CFTypeRef container) noexcept
    : open_(progress.depth < kMaximumDepth && !isBeingDescribed(container)) {
    if (open_) {
        if (progress.depth == 0) {
            progress.values = 0;
            progress.size = 0;
        }
        progress.containers[progress.depth++] = container;
    }
}

DescriptionScope::~DescriptionScope() {
    if (open_) {
        --progress.depth;
    }
}

bool DescriptionScope::takeValue() const noexcept {
    return open_ && ++progress.values <= kMaximumValues && progress.size <= kMaximumSize;
}

std::string describeValue(const void *value, CopyDescriptionFunction copyDescription) {
    if (copyDescription == nullptr) {
        return addressText(value);
    }
    if (copyDescription == CFCopyDescription && typeIDOf(value) == kStringTypeID) {
        return counted(quoted(utf8Of(static_cast<CFStringRef>(value))));
    }
    const Owner description(copyDescription(value));
    return description.get() == nullptr ? addressText(value)
                                        : counted(indented(utf8Of(description.get())));
}

} // namespace CFInternal
