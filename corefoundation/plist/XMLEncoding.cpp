#include "corefoundation/plist/XMLEncoding.hpp"

#include "corefoundation/TextEncoding.hpp"
#include "corefoundation/plist/XMLValues.hpp"

#include <algorithm>
#include <optional>

namespace CFInternal::PropertyList {

namespace {

constexpr std::string_view kUTF8Mark = "\xEF\xBB\xBF";
// What is looked at of a declaration, which has some 40 characters.
constexpr std::size_t kMaxDeclaration = 512;
// How much of an unknown name an error repeats.
constexpr std::size_t kMaxQuotedName = 40;

std::string_view AsText(Bytes bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

// Of the name in upper case. Names of wide encodings in a document of bytes are mistaken: the
// declaration could not have been read.
std::optional<Form> FormNamed(std::string_view name) {
    constexpr std::pair<std::string_view, Form> kNames[] = {
        {"UTF-8", Form::UTF8},    {"UTF8", Form::UTF8},          {"US-ASCII", Form::UTF8},
        {"ASCII", Form::UTF8},    {"UTF-16", Form::UTF8},        {"UTF-16LE", Form::UTF8},
        {"UTF-16BE", Form::UTF8}, {"ISO-8859-1", Form::Latin1},  {"ISO_8859-1", Form::Latin1},
        {"LATIN1", Form::Latin1}, {"MACINTOSH", Form::MacRoman}, {"X-MAC-ROMAN", Form::MacRoman},
    };
    const auto *found = std::ranges::find(kNames, name, &std::pair<std::string_view, Form>::first);
    return found == std::end(kNames) ? std::nullopt : std::optional(found->second);
}

// Two or four zero bytes around the first character, which is of ASCII, tell wide encodings
// that have no byte order mark.
std::optional<Encoding> WideEncodingOf(Bytes bytes) {
    const auto zeroAt = [&](std::size_t i) { return i < bytes.size() && bytes[i] == 0; };
    const std::string_view text = AsText(bytes);
    using namespace std::string_view_literals;
    if (text.starts_with("\xFF\xFE\0\0"sv) || text.starts_with("\0\0\xFE\xFF"sv)) {
        return Encoding{Form::UTF32, text.front() == '\0', false};
    }
    if (text.starts_with("\xFF\xFE"sv) || text.starts_with("\xFE\xFF"sv)) {
        return Encoding{Form::UTF16, text.front() == '\xFE', false};
    }
    if (zeroAt(0) == zeroAt(1)) {
        const bool wide = zeroAt(0) && zeroAt(2) && bytes.size() > 3 && bytes[3] != 0;
        return wide ? std::optional(Encoding{Form::UTF32, true, false}) : std::nullopt;
    }
    const bool four = zeroAt(1) && zeroAt(2) && zeroAt(3);
    return Encoding{four ? Form::UTF32 : Form::UTF16, zeroAt(0), false};
}

std::string FromUTF16(Bytes bytes, bool bigEndian) {
    std::string text;
    text.reserve(bytes.size() + bytes.size() / 2);
    const auto unitAt = [&](std::size_t i) {
        return static_cast<std::uint32_t>(bytes[bigEndian ? i : i + 1] << 8 |
                                          bytes[bigEndian ? i + 1 : i]);
    };
    // A last byte that is alone stands for nothing.
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        std::uint32_t scalar = unitAt(i);
        if (isHighSurrogate(scalar) && i + 3 < bytes.size() && isLowSurrogate(unitAt(i + 2))) {
            scalar = scalarFromPair(scalar, unitAt(i + 2));
            i += 2;
        }
        AppendUTF8(text, scalar);
    }
    return text;
}

std::string FromUTF32(Bytes bytes, bool bigEndian) {
    std::string text;
    for (std::size_t i = 0; i + 3 < bytes.size(); i += 4) {
        std::uint32_t scalar = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            scalar = scalar << 8 | bytes[bigEndian ? i + k : i + 3 - k];
        }
        AppendUTF8(text, scalar > kMaxScalar ? kReplacementCharacter : scalar);
    }
    return text;
}

std::string FromBytes(std::string_view bytes, Form form) {
    std::string text;
    text.reserve(bytes.size() + bytes.size() / 4);
    for (const char c : bytes) {
        const auto byte = static_cast<std::uint8_t>(c);
        AppendUTF8(text, form == Form::MacRoman && byte >= 0x80 ? macRomanToUnit(byte) : byte);
    }
    return text;
}

// The value of encoding="..." in the declaration; empty when there is none.
std::string_view DeclaredEncoding(std::string_view declaration) {
    constexpr std::string_view kAttribute = "encoding";
    const std::size_t start = declaration.find(kAttribute);
    if (start == std::string_view::npos) {
        return {};
    }
    std::string_view value = TrimXMLSpace(declaration.substr(start + kAttribute.size()));
    if (!value.starts_with('=')) {
        return {};
    }
    value = TrimXMLSpace(value.substr(1));
    if (!value.starts_with('"') && !value.starts_with('\'')) {
        return {};
    }
    const std::size_t end = value.find(value.front(), 1);
    return end == std::string_view::npos ? std::string_view() : value.substr(1, end - 1);
}

std::string InUpperCase(std::string_view name) {
    std::string upper(name);
    std::ranges::transform(upper, upper.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return upper;
}

} // namespace

void AppendUTF8(std::string &out, std::uint32_t scalar) {
    const auto trail = [&](unsigned shift) {
        out += static_cast<char>(0x80 | (scalar >> shift & 0x3F));
    };
    if (scalar < 0x80) {
        out += static_cast<char>(scalar);
    } else if (scalar < 0x800) {
        out += static_cast<char>(0xC0 | scalar >> 6);
        trail(0);
    } else if (scalar < 0x10000) {
        out += static_cast<char>(0xE0 | scalar >> 12);
        trail(6);
        trail(0);
    } else {
        out += static_cast<char>(0xF0 | scalar >> 18);
        trail(12);
        trail(6);
        trail(0);
    }
}

XMLText::XMLText(Bytes document) : view_(AsText(document)) {
    if (view_.starts_with(kUTF8Mark)) {
        view_.remove_prefix(kUTF8Mark.size());
        return;
    }
    if (const auto wide = WideEncodingOf(document)) {
        converted_ = wide->form == Form::UTF16 ? FromUTF16(document, wide->bigEndian)
                                               : FromUTF32(document, wide->bigEndian);
        view_ = converted_;
        if (view_.starts_with(kUTF8Mark)) {
            view_.remove_prefix(kUTF8Mark.size());
        }
        return;
    }
    FindInDeclaration();
}

void XMLText::FindInDeclaration() {
    const std::string_view start = TrimXMLSpace(view_.substr(0, kMaxDeclaration));
    const std::size_t end = start.find("?>");
    if (!start.starts_with("<?xml") || end == std::string_view::npos) {
        return;
    }
    const std::string_view name = DeclaredEncoding(start.substr(0, end));
    if (name.empty()) {
        return;
    }
    const auto form = FormNamed(InUpperCase(name));
    if (!form) {
        ThrowCorrupt("The encoding \"" + std::string(name.substr(0, kMaxQuotedName)) +
                     "\" is not supported (line 1)");
    }
    if (*form != Form::UTF8) {
        converted_ = FromBytes(view_, *form);
        view_ = converted_;
    }
}

} // namespace CFInternal::PropertyList
