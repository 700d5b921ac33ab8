#include "Quoting.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace tool {

namespace {

struct Range {
    std::uint32_t first;
    std::uint32_t last;
};

// What a terminal may obey, or what shows text in another order or on another line than it has.
// In order.
constexpr std::array<Range, 9> kUnsafe = {{
    {0x00, 0x1F},       // C0
    {0x7F, 0x9F},       // DEL and C1
    {0x61C, 0x61C},     // Arabic letter mark
    {0x200E, 0x200F},   // marks of direction
    {0x2028, 0x202E},   // separators of lines and paragraphs; embeddings and overrides of direction
    {0x2066, 0x2069},   // isolates of direction
    {0xFEFF, 0xFEFF},   // byte order mark
    {0xFFF9, 0xFFFB},   // interlinear annotations
    {0xE0000, 0xE007F}, // tags
}};

bool isUnsafe(std::uint32_t character) {
    const auto *const range =
        std::find_if(kUnsafe.begin(), kUnsafe.end(),
                     [&](const Range &candidate) { return character <= candidate.last; });
    return range != kUnsafe.end() && character >= range->first;
}

struct Character {
    std::size_t length; // in bytes
    bool safe;
};

// The character that begins there. A byte that is no UTF-8 is one of its own, and not safe: a
// terminal of another encoding may obey it.
Character characterAt(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) {
        return {1, !isUnsafe(lead)};
    }
    const std::size_t length = lead < 0xC2   ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length == 0 || length > text.size() - at) {
        return {1, false};
    }
    std::uint32_t character = lead & (0xFFU >> (length + 1));
    for (std::size_t i = at + 1; i < at + length; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0) != 0x80) {
            return {1, false};
        }
        character = character << 6 | (next & 0x3FU);
    }
    return {length, !isUnsafe(character)};
}

bool isSafe(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const Character character = characterAt(text, i);
        if (!character.safe) {
            return false;
        }
        i += character.length;
    }
    return true;
}

void appendHex(std::string &result, std::string_view bytes) {
    for (const char byte : bytes) {
        std::array<char, 5> buffer{};
        std::snprintf(buffer.data(), buffer.size(), "\\x%02X", static_cast<unsigned char>(byte));
        result += buffer.data();
    }
}

void appendEscaped(std::string &result, std::string_view bytes) {
    switch (bytes.front()) {
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
    default:
        appendHex(result, bytes);
    }
}

std::string escape(std::string_view text) {
    std::string result;
    result.reserve(text.size() + 8);
    for (std::size_t i = 0; i < text.size();) {
        const Character character = characterAt(text, i);
        const std::string_view bytes = text.substr(i, character.length);
        if (!character.safe) {
            appendEscaped(result, bytes);
        } else {
            result += bytes == "\\" ? "\\\\" : bytes;
        }
        i += character.length;
    }
    return result;
}

} // namespace

std::string EscapeControls(std::string_view utf8) {
    return isSafe(utf8) ? std::string(utf8) : escape(utf8);
}

std::string ForListing(std::string_view utf8, bool terminal) {
    if (!terminal || isSafe(utf8)) {
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

std::string CSVForTerminal::Convert(std::string_view utf8) {
    std::string result;
    result.reserve(utf8.size());
    for (std::size_t i = 0; i < utf8.size();) {
        const Character character = characterAt(utf8, i);
        const std::string_view bytes = utf8.substr(i, character.length);
        inField_ ^= bytes == "\"";
        const bool endsRow = bytes == "\n" && !inField_;
        if (character.safe || endsRow) {
            result += bytes;
        } else {
            appendEscaped(result, bytes);
        }
        i += character.length;
    }
    return result;
}

} // namespace tool
