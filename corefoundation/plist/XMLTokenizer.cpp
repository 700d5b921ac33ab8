#include "corefoundation/plist/XMLTokenizer.hpp"

#include "corefoundation/TextEncoding.hpp"
#include "corefoundation/plist/XMLEncoding.hpp"
#include "corefoundation/plist/XMLValues.hpp"

#include <algorithm>
#include <charconv>
#include <optional>

namespace CFInternal::PropertyList {

namespace {

// How much of a name an error repeats.
constexpr std::size_t kMaxQuotedName = 40;

std::string Quoted(std::string_view name) { return std::string(name.substr(0, kMaxQuotedName)); }

[[noreturn]] void ThrowMalformed(const std::string &what) {
    ThrowCorrupt("The XML is malformed: " + what);
}

bool EndsName(char c) {
    return IsXMLSpace(c) || c == '/' || c == '>' || c == '<' || c == '=' || c == '"' || c == '\'';
}

// The character of &#DECIMAL; or &#xHEXADECIMAL;, given what stands between "&#" and ";". XML
// forbids some, half of a surrogate pair among them, which texts hold all the same.
std::optional<std::uint32_t> CharacterOf(std::string_view number) {
    const bool isHexadecimal = number.starts_with('x') || number.starts_with('X');
    if (isHexadecimal) {
        number.remove_prefix(1);
    }
    std::uint32_t value = 0;
    const char *end = number.data() + number.size();
    const auto [stop, fault] = std::from_chars(number.data(), end, value, isHexadecimal ? 16 : 10);
    const bool valid = fault == std::errc() && stop == end && value <= kMaxScalar;
    return valid ? std::optional(value) : std::nullopt;
}

std::optional<std::uint32_t> EntityNamed(std::string_view name) {
    constexpr std::pair<std::string_view, char> kEntities[] = {
        {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"apos", '\''}, {"quot", '"'}};
    const auto *found =
        std::ranges::find(kEntities, name, &std::pair<std::string_view, char>::first);
    return found == std::end(kEntities) ? std::nullopt
                                        : std::optional(std::uint32_t(found->second));
}

} // namespace

void XMLTokenizer::Run() {
    try {
        ReadAll();
    } catch (const Failure &failure) {
        throw Failure{failure.code, AtLine(failure.reason)};
    }
}

// What follows the root is left unread: files are found with zeros, or the rest of a longer
// document, behind it.
void XMLTokenizer::ReadAll() {
    while (!rootIsRead_) {
        token_ = at_;
        if (IsAtEnd()) {
            ThrowMalformed(open_.empty()
                               ? "there is no value"
                               : "the document ends inside of <" + Quoted(open_.back()) + ">");
        }
        if (Take("<")) {
            ReadMarkup();
        } else {
            ReadText();
        }
    }
}

void XMLTokenizer::ReadMarkup() {
    if (Take("?")) {
        (void)TakeUntil("?>", "an instruction");
    } else if (Take("!")) {
        ReadDeclaration();
    } else if (Take("/")) {
        ReadEndTag();
    } else {
        ReadStartTag();
    }
}

void XMLTokenizer::ReadDeclaration() {
    if (Take("--")) {
        (void)TakeUntil("-->", "a comment");
    } else if (Take("[CDATA[")) {
        if (open_.empty()) {
            ThrowMalformed("there is a text outside of all tags");
        }
        PassLines(TakeUntil("]]>", "a text"));
    } else if (open_.empty() && !hasDocumentType_ && Take("DOCTYPE")) {
        ReadDocumentType();
    } else {
        ThrowMalformed("a declaration stands where none can");
    }
}

// A public identifier that says what everybody knows. An internal subset declares entities, or
// attributes, which have no use here.
void XMLTokenizer::ReadDocumentType() {
    hasDocumentType_ = true;
    while (!Take(">")) {
        if (IsAtEnd()) {
            ThrowMalformed("the document ends inside of the document type");
        }
        const char c = text_[at_++];
        if (c == '[') {
            ThrowCorrupt("A document type with declarations of its own is not allowed");
        }
        if (c == '"' || c == '\'') {
            (void)TakeUntil({&c, 1}, "the document type");
        }
    }
}

// Attributes are passed over: none means anything.
void XMLTokenizer::ReadStartTag() {
    const std::string_view name = TakeName();
    bool isEmpty = false;
    while (!Take(">")) {
        if (IsAtEnd() || text_[at_] == '<') {
            ThrowMalformed("<" + Quoted(name) + "> does not end");
        }
        const char c = text_[at_++];
        isEmpty = c == '/';
        if (c == '"' || c == '\'') {
            (void)TakeUntil({&c, 1}, "a tag");
        }
    }
    Start(name);
    if (isEmpty) {
        End();
    }
}

void XMLTokenizer::ReadEndTag() {
    const std::string_view name = TakeName();
    if (!TrimXMLSpace(TakeUntil(">", "a tag")).empty()) {
        ThrowMalformed("</" + Quoted(name) + "> holds more than its name");
    }
    if (open_.empty() || open_.back() != name) {
        ThrowMalformed("</" + Quoted(name) + "> has no <" + Quoted(name) + "> to end");
    }
    End();
}

void XMLTokenizer::Start(std::string_view name) {
    document_.Start(name);
    open_.push_back(name);
}

void XMLTokenizer::End() {
    document_.End();
    open_.pop_back();
    rootIsRead_ = open_.empty();
}

// Up to the next tag.
void XMLTokenizer::ReadText() {
    const std::size_t end = std::min(text_.find('<', at_), text_.size());
    std::string_view run = text_.substr(at_, end - at_);
    if (open_.empty()) {
        at_ = end;
        if (!TrimXMLSpace(run).empty()) {
            ThrowCorrupt("Text outside of a value");
        }
        return;
    }
    while (at_ < end) {
        run = text_.substr(at_, end - at_);
        const std::size_t plain = std::min(run.find('&'), run.size());
        at_ += plain;
        PassLines(run.substr(0, plain));
        if (at_ < end) {
            token_ = at_;
            run.remove_prefix(plain + 1);
            const std::size_t length = run.find(';');
            if (length == std::string_view::npos) {
                ThrowMalformed("a reference does not end");
            }
            at_ += length + 2;
            ReadReference(run.substr(0, length));
        }
    }
}

void XMLTokenizer::ReadReference(std::string_view reference) {
    const bool isCharacter = reference.starts_with('#');
    const auto scalar = isCharacter ? CharacterOf(reference.substr(1)) : EntityNamed(reference);
    if (!scalar) {
        ThrowCorrupt(isCharacter ? "Reference to an unknown character"
                                 : "Reference to an unknown entity");
    }
    character_.clear();
    AppendUTF8(character_, *scalar);
    document_.Text(character_);
}

void XMLTokenizer::PassLines(std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\r'), text.size());
        if (end > 0) {
            document_.Text(text.substr(0, end));
        }
        text.remove_prefix(end);
        if (!text.empty()) {
            document_.Text("\n");
            text.remove_prefix(text.starts_with("\r\n") ? 2 : 1);
        }
    }
}

std::string_view XMLTokenizer::TakeName() {
    const std::string_view rest = text_.substr(at_);
    const auto length =
        static_cast<std::size_t>(std::ranges::find_if(rest, EndsName) - rest.begin());
    if (length == 0) {
        ThrowMalformed("a tag has no name");
    }
    at_ += length;
    return rest.substr(0, length);
}

std::string_view XMLTokenizer::TakeUntil(std::string_view mark, const char *inside) {
    const std::size_t end = text_.find(mark, at_);
    if (end == std::string_view::npos) {
        ThrowMalformed(std::string("the document ends inside of ") + inside);
    }
    const std::string_view taken = text_.substr(at_, end - at_);
    at_ = end + mark.size();
    return taken;
}

bool XMLTokenizer::Take(std::string_view expected) {
    const bool found = text_.substr(at_).starts_with(expected);
    at_ += found ? expected.size() : 0;
    return found;
}

std::string XMLTokenizer::AtLine(const std::string &reason) const {
    // White space before a text is no part of it.
    std::size_t start = token_;
    while (start < at_ && start < text_.size() && IsXMLSpace(text_[start])) {
        ++start;
    }
    std::size_t line = 1;
    for (std::size_t i = 0; i < start; ++i) {
        const bool endsInPair = text_[i] == '\r' && i + 1 < text_.size() && text_[i + 1] == '\n';
        line += text_[i] == '\n' || (text_[i] == '\r' && !endsInPair) ? 1 : 0;
    }
    return reason + " (line " + std::to_string(line) + ")";
}

} // namespace CFInternal::PropertyList
