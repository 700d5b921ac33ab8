#include "corefoundation/CFNumberInternal.hpp"
#include "corefoundation/plist/Graph.hpp"
#include "corefoundation/plist/XMLValues.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDate.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFKeyedArchiverUID.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <algorithm>
#include <cstdio>

namespace CFInternal::PropertyList {

namespace {

constexpr std::string_view kProlog = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                     "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                                     "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                                     "<plist version=\"1.0\">\n";
constexpr std::string_view kEpilog = "</plist>\n";

// Lines of base64 end at this column; a tab takes up eight.
constexpr std::size_t kLineLength = 76;
constexpr std::size_t kTabWidth = 8;
// However deep the indentation is, a line makes some progress.
constexpr std::size_t kMinBase64Length = 16;

bool IsHighSurrogate(unsigned unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(unsigned unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// XML 1.0, production Char.
bool IsXMLCharacter(unsigned c) {
    return c >= 0x20 ? c < 0xD800 || (c > 0xDFFF && c != 0xFFFE && c != 0xFFFF)
                     : c == '\t' || c == '\n' || c == '\r';
}

void AppendUTF8(std::string &out, unsigned c) {
    const auto trail = [&](unsigned shift) {
        out += static_cast<char>(0x80 | (c >> shift & 0x3F));
    };
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | c >> 6);
        trail(0);
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | c >> 12);
        trail(6);
        trail(0);
    } else {
        out += static_cast<char>(0xF0 | c >> 18);
        trail(12);
        trail(6);
        trail(0);
    }
}

std::string CodePoint(unsigned c) {
    char text[16];
    (void)std::snprintf(text, sizeof text, "U+%04X", c);
    return text;
}

void AppendEscaped(std::string &out, unsigned c) {
    switch (c) {
    case '&':
        out += "&amp;";
        break;
    case '<':
        out += "&lt;";
        break;
    case '>':
        out += "&gt;";
        break;
    case '\r': // As itself it would be read as a line feed.
        out += "&#13;";
        break;
    default:
        AppendUTF8(out, c);
        break;
    }
}

class XMLWriter {
  public:
    std::string Write(CFTypeRef root) {
        out_ = kProlog;
        AppendValue(root, 0);
        out_ += kEpilog;
        return std::move(out_);
    }

  private:
    void AppendValue(CFTypeRef value, std::size_t indent) {
        Indent(indent);
        switch (typeIDOf(value)) {
        case kStringTypeID:
            AppendText("string", static_cast<CFStringRef>(value));
            break;
        case kDataTypeID:
            AppendData(static_cast<CFDataRef>(value), indent);
            break;
        case kBooleanTypeID:
            out_ +=
                CFBooleanGetValue(static_cast<CFBooleanRef>(value)) ? "<true/>\n" : "<false/>\n";
            break;
        case kNumberTypeID:
            AppendNumber(static_cast<CFNumberRef>(value));
            break;
        case kDateTypeID:
            AppendDate(static_cast<CFDateRef>(value));
            break;
        case kArrayTypeID:
            AppendArray(static_cast<CFArrayRef>(value), indent);
            break;
        case kDictionaryTypeID:
            AppendDictionary(static_cast<CFDictionaryRef>(value), indent);
            break;
        default:
            AppendUid(static_cast<CFKeyedArchiverUIDRef>(value), indent);
            break;
        }
        RequireRoom(0);
    }

    void AppendText(std::string_view tag, CFStringRef string) {
        const CFIndex length = CFStringGetLength(string);
        RequireRoom(static_cast<std::size_t>(length));
        units_.resize(static_cast<std::size_t>(length));
        CFStringGetCharacters(string, CFRangeMake(0, length), units_.data());
        Open(tag);
        for (std::size_t i = 0; i < units_.size(); ++i) {
            unsigned c = units_[i];
            if (IsHighSurrogate(c) && i + 1 < units_.size() && IsLowSurrogate(units_[i + 1])) {
                c = 0x10000 + ((c - 0xD800) << 10) + (units_[++i] - 0xDC00u);
            }
            if (!IsXMLCharacter(c)) {
                ThrowUnwritable("XML cannot carry the character " + CodePoint(c));
            }
            AppendEscaped(out_, c);
        }
        Close(tag);
    }

    void AppendData(CFDataRef data, std::size_t indent) {
        const auto length = static_cast<std::size_t>(CFDataGetLength(data));
        RequireRoom(length);
        out_ += "<data>\n";
        const std::size_t indentation = kTabWidth * indent;
        const std::size_t lineLength =
            std::max(kMinBase64Length, indentation < kLineLength ? kLineLength - indentation : 0);
        const std::size_t bytesInLine = lineLength / 4 * 3;
        const Bytes bytes = length == 0 ? Bytes() : Bytes(CFDataGetBytePtr(data), length);
        for (std::size_t i = 0; i < length; i += bytesInLine) {
            Indent(indent);
            AppendBase64(out_, bytes.subspan(i, std::min(bytesInLine, length - i)));
            out_ += '\n';
        }
        Indent(indent);
        out_ += "</data>\n";
    }

    void AppendNumber(CFNumberRef number) {
        WideInteger integer{};
        if (!_CFNumberGetInt128(number, &integer.high, &integer.low)) {
            double value = 0;
            (void)CFNumberGetValue(number, kCFNumberFloat64Type, &value);
            Open("real");
            AppendRealText(out_, value);
            Close("real");
            return;
        }
        Open("integer");
        if (!AppendIntegerText(out_, integer)) {
            ThrowUnwritable("An integer in XML must lie between -2^63 and 2^64-1");
        }
        Close("integer");
    }

    void AppendDate(CFDateRef date) {
        Open("date");
        if (!AppendDateText(out_, CFDateGetAbsoluteTime(date))) {
            ThrowUnwritable("A date in XML must lie in the years 1 to 9999");
        }
        Close("date");
    }

    void AppendArray(CFArrayRef array, std::size_t indent) {
        const CFIndex count = CFArrayGetCount(array);
        if (count == 0) {
            out_ += "<array/>\n";
            return;
        }
        out_ += "<array>\n";
        for (CFIndex i = 0; i < count; ++i) {
            AppendValue(CFArrayGetValueAtIndex(array, i), indent + 1);
        }
        Indent(indent);
        out_ += "</array>\n";
    }

    void AppendDictionary(CFDictionaryRef dictionary, std::size_t indent) {
        const auto pairs = SortedPairs(dictionary);
        if (pairs.empty()) {
            out_ += "<dict/>\n";
            return;
        }
        out_ += "<dict>\n";
        for (const auto &[key, value] : pairs) {
            Indent(indent + 1);
            AppendText("key", key);
            AppendValue(value, indent + 1);
        }
        Indent(indent);
        out_ += "</dict>\n";
    }

    void AppendUid(CFKeyedArchiverUIDRef uid, std::size_t indent) {
        out_ += "<dict>\n";
        Indent(indent + 1);
        out_ += "<key>CF$UID</key>\n";
        Indent(indent + 1);
        out_ += "<integer>" + std::to_string(_CFKeyedArchiverUIDGetValue(uid)) + "</integer>\n";
        Indent(indent);
        out_ += "</dict>\n";
    }

    void Indent(std::size_t indent) { out_.append(indent, '\t'); }
    void Open(std::string_view tag) { (out_ += '<').append(tag) += '>'; }
    void Close(std::string_view tag) { (out_ += "</").append(tag) += ">\n"; }

    void RequireRoom(std::size_t more) const {
        if (more > kMaxXMLSize || out_.size() > kMaxXMLSize - more) {
            ThrowUnwritable("The XML document is longer than " + std::to_string(kMaxXMLSize) +
                            " bytes");
        }
    }

    std::string out_;
    std::vector<UniChar> units_;
};

} // namespace

Owned<CFDataRef> WriteXML(CFAllocatorRef allocator, CFTypeRef root) {
    const std::string document = XMLWriter().Write(root);
    return Own(CFDataCreate(allocator, reinterpret_cast<const UInt8 *>(document.data()),
                            static_cast<CFIndex>(document.size())));
}

} // namespace CFInternal::PropertyList
