#include "corefoundation/CFNumberInternal.hpp"
#include "corefoundation/TextView.hpp"
#include "corefoundation/plist/Graph.hpp"
#include "corefoundation/plist/XMLEncoding.hpp"
#include "corefoundation/plist/XMLValues.hpp"

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDate.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFKeyedArchiverUID.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFString.h>
#include <algorithm>
#include <array>
#include <cstring>

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

// Texts are passed on in pieces of this size, however long they are.
constexpr CFIndex kPieceLength = 1024;

// Counts what is written to it and, once there is memory for that, keeps it.
class Output {
  public:
    Output() = default;
    explicit Output(char *memory) : memory_(memory) {}

    // Throws a Failure beyond the size of a document.
    void Append(std::string_view text) {
        if (text.size() > kMaxXMLSize - size_) {
            ThrowUnwritable("The XML document is longer than " + std::to_string(kMaxXMLSize) +
                            " bytes");
        }
        if (memory_ != nullptr) {
            std::memcpy(memory_ + size_, text.data(), text.size());
        }
        size_ += text.size();
    }
    std::size_t Size() const { return size_; }

  private:
    char *memory_ = nullptr;
    std::size_t size_ = 0;
};

// XML forbids control characters, and no document of UTF-8 holds half of a surrogate pair; but
// binary property lists hold both, and what they hold must be writable. The platform writes
// such characters as they are and reads them back. Of them only zero, which ends a text for
// many a reader, and halves of pairs are written as references.
void AppendEscaped(std::string &out, std::uint32_t scalar) {
    switch (scalar) {
    case '&':
        out += "&amp;";
        break;
    case '<':
        out += "&lt;";
        break;
    case '>':
        out += "&gt;";
        break;
    case '\0':
    case '\r': // As itself it would be read as a line feed.
        out += scalar == 0 ? "&#0;" : "&#13;";
        break;
    default:
        if (isSurrogate(scalar)) {
            out += "&#" + std::to_string(scalar) + ";";
        } else {
            AppendUTF8(out, scalar);
        }
        break;
    }
}

class XMLWriter {
  public:
    explicit XMLWriter(Output &out) : out_(out) {}

    void Write(CFTypeRef root) {
        out_.Append(kProlog);
        AppendValue(root, 0);
        out_.Append(kEpilog);
    }

  private:
    void AppendValue(CFTypeRef value, std::size_t indent) {
        Count(1);
        Indent(indent);
        switch (typeIDOf(value)) {
        case kStringTypeID:
            AppendText("string", static_cast<CFStringRef>(value));
            break;
        case kDataTypeID:
            AppendData(static_cast<CFDataRef>(value), indent);
            break;
        case kBooleanTypeID:
            out_.Append(CFBooleanGetValue(static_cast<CFBooleanRef>(value)) ? "<true/>\n"
                                                                            : "<false/>\n");
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
    }

    void AppendText(std::string_view tag, CFStringRef string) {
        const CFIndex length = CFStringGetLength(string);
        Open(tag);
        for (CFIndex done = 0; done < length;) {
            done += AppendPiece(string, done, std::min(kPieceLength, length - done));
        }
        Close(tag);
    }

    // Gives the number of units that it has written: a pair is not taken apart.
    CFIndex AppendPiece(CFStringRef string, CFIndex start, CFIndex length) {
        std::array<UniChar, kPieceLength> units;
        CFStringGetCharacters(string, CFRangeMake(start, length), units.data());
        const bool isLast = start + length == CFStringGetLength(string);
        if (!isLast && isHighSurrogate(units[static_cast<std::size_t>(length) - 1])) {
            --length;
        }
        scratch_.clear();
        for (std::size_t i = 0; i < static_cast<std::size_t>(length); ++i) {
            std::uint32_t scalar = units[i];
            if (isHighSurrogate(scalar) && i + 1 < static_cast<std::size_t>(length) &&
                isLowSurrogate(units[i + 1])) {
                scalar = scalarFromPair(scalar, units[++i]);
            }
            AppendEscaped(scratch_, scalar);
        }
        out_.Append(scratch_);
        return length;
    }

    void AppendData(CFDataRef data, std::size_t indent) {
        const auto length = static_cast<std::size_t>(CFDataGetLength(data));
        out_.Append("<data>\n");
        const std::size_t indentation = kTabWidth * indent;
        const std::size_t lineLength =
            std::max(kMinBase64Length, indentation < kLineLength ? kLineLength - indentation : 0);
        const std::size_t bytesInLine = lineLength / 4 * 3;
        const Bytes bytes = length == 0 ? Bytes() : Bytes(CFDataGetBytePtr(data), length);
        for (std::size_t i = 0; i < length; i += bytesInLine) {
            Indent(indent);
            scratch_.clear();
            AppendBase64(scratch_, bytes.subspan(i, std::min(bytesInLine, length - i)));
            scratch_ += '\n';
            out_.Append(scratch_);
        }
        Indent(indent);
        out_.Append("</data>\n");
    }

    void AppendNumber(CFNumberRef number) {
        WideInteger integer{};
        const bool isInteger = _CFNumberGetInt128(number, &integer.high, &integer.low) != 0;
        scratch_.clear();
        if (isInteger) {
            AppendIntegerText(scratch_, integer);
        } else {
            double value = 0;
            (void)CFNumberGetValue(number, kCFNumberFloat64Type, &value);
            AppendRealText(scratch_, value);
        }
        const std::string_view tag = isInteger ? "integer" : "real";
        Open(tag);
        out_.Append(scratch_);
        Close(tag);
    }

    void AppendDate(CFDateRef date) {
        scratch_.clear();
        if (!AppendDateText(scratch_, CFDateGetAbsoluteTime(date))) {
            ThrowUnwritable("A date lies too far from today to be written in XML");
        }
        Open("date");
        out_.Append(scratch_);
        Close("date");
    }

    void AppendArray(CFArrayRef array, std::size_t indent) {
        const CFIndex count = CFArrayGetCount(array);
        if (count == 0) {
            out_.Append("<array/>\n");
            return;
        }
        out_.Append("<array>\n");
        for (CFIndex i = 0; i < count; ++i) {
            AppendValue(CFArrayGetValueAtIndex(array, i), indent + 1);
        }
        Indent(indent);
        out_.Append("</array>\n");
    }

    void AppendDictionary(CFDictionaryRef dictionary, std::size_t indent) {
        const auto pairs = SortedPairs(dictionary);
        if (pairs.empty()) {
            out_.Append("<dict/>\n");
            return;
        }
        out_.Append("<dict>\n");
        for (const auto &[key, value] : pairs) {
            Count(1);
            Indent(indent + 1);
            AppendText("key", key);
            AppendValue(value, indent + 1);
        }
        Indent(indent);
        out_.Append("</dict>\n");
    }

    void AppendUid(CFKeyedArchiverUIDRef uid, std::size_t indent) {
        Count(2); // The key and its value.
        out_.Append("<dict>\n");
        Indent(indent + 1);
        out_.Append("<key>CF$UID</key>\n");
        Indent(indent + 1);
        out_.Append("<integer>" + std::to_string(_CFKeyedArchiverUIDGetValue(uid)) +
                    "</integer>\n");
        Indent(indent);
        out_.Append("</dict>\n");
    }

    void Indent(std::size_t indent) {
        static constexpr auto kTabs = [] {
            std::array<char, kMaxDepth + 2> tabs{};
            tabs.fill('\t');
            return tabs;
        }();
        out_.Append({kTabs.data(), indent});
    }
    void Open(std::string_view tag) {
        out_.Append("<");
        out_.Append(tag);
        out_.Append(">");
    }
    void Close(std::string_view tag) {
        out_.Append("</");
        out_.Append(tag);
        out_.Append(">\n");
    }

    // A UID is three values in XML, so that a list within the limit may get beyond it.
    void Count(std::uint32_t values) {
        values_ += values;
        if (values_ > kMaxValues) {
            ThrowUnwritable("The property list has more than " + std::to_string(kMaxValues) +
                            " values in XML");
        }
    }

    Output &out_;
    std::string scratch_;
    std::uint32_t values_ = 0;
};

// The memory of a document, until a data object has it.
class Memory {
  public:
    Memory(CFAllocatorRef allocator, std::size_t size)
        : allocator_(allocator),
          bytes_(Made(CFAllocatorAllocate(allocator, static_cast<CFIndex>(size), 0))) {}
    Memory(const Memory &) = delete;
    Memory &operator=(const Memory &) = delete;
    ~Memory() {
        if (bytes_ != nullptr) {
            CFAllocatorDeallocate(allocator_, bytes_);
        }
    }

    char *Bytes() const { return static_cast<char *>(bytes_); }
    Owned<CFDataRef> ToData(std::size_t size) {
        CFAllocatorRef const owner = allocator_ == nullptr ? CFAllocatorGetDefault() : allocator_;
        auto data = Own(CFDataCreateWithBytesNoCopy(allocator_, static_cast<UInt8 *>(bytes_),
                                                    static_cast<CFIndex>(size), owner));
        bytes_ = nullptr;
        return data;
    }

  private:
    CFAllocatorRef allocator_;
    void *bytes_;
};

} // namespace

// Twice, the first time for the size alone: a binary document of a megabyte may name its objects
// so often that its XML would not fit into memory.
Owned<CFDataRef> WriteXML(CFAllocatorRef allocator, CFTypeRef root) {
    Output counted;
    XMLWriter(counted).Write(root);
    Memory memory(allocator, counted.Size());
    Output written(memory.Bytes());
    XMLWriter(written).Write(root);
    return memory.ToData(written.Size());
}

} // namespace CFInternal::PropertyList
