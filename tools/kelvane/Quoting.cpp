#include "Quoting.hpp"

#include <cstdio>

namespace tool {

namespace {

bool isC0OrDelete(unsigned char c) { return c < 0x20 || c == 0x7F; }

// U+0080 to U+009F are C2 80 to C2 9F in UTF-8; terminals obey some of them.
bool isC1At(std::string_view text, std::size_t i) {
    return i + 1 < text.size() && static_cast<unsigned char>(text[i]) == 0xC2 &&
           static_cast<unsigned char>(text[i + 1]) < 0xA0;
}

bool hasControls(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isC0OrDelete(static_cast<unsigned char>(text[i])) || isC1At(text, i)) {
            return true;
        }
    }
    return false;
}

void appendHex(std::string &result, unsigned char c) {
    char buffer[5];
    std::snprintf(buffer, sizeof buffer, "\\x%02X", c);
    result += buffer;
}

void appendEscaped(std::string &result, char c) {
    switch (c) {
    case '\n':
        result += "\\n";
        break;
    case '\r':
        result += "\\r";
        break;
    case '\t':
        result += "\\t";
        break;
    case '\033':
        result += "\\e";
        break;
    case '\\':
        result += "\\\\";
        break;
    default:
        if (isC0OrDelete(static_cast<unsigned char>(c))) {
            appendHex(result, static_cast<unsigned char>(c));
        } else {
            result += c;
        }
    }
}

std::string escape(std::string_view text) {
    std::string result;
    result.reserve(text.size() + 8);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isC1At(text, i)) {
            appendHex(result, static_cast<unsigned char>(text[i]));
            appendHex(result, static_cast<unsigned char>(text[++i]));
        } else {
            appendEscaped(result, text[i]);
        }
    }
    return result;
}

} // namespace

std::string EscapeControls(std::string_view utf8) {
    return hasControls(utf8) ? escape(utf8) : std::string(utf8);
}

std::string ForListing(std::string_view utf8, bool terminal) {
    if (!terminal || !hasControls(utf8)) {
        return std::string(utf8);
    }
    std::string quoted = "$'";
    for (const char c : escape(utf8)) {
        if (c == '\'') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted + "'";
}

} // namespace tool
