// Reading units, bytes and numbers out of a string.
#include "corefoundation/CLocale.hpp"
#include "corefoundation/StringStorage.hpp"
#include "corefoundation/TextEncoding.hpp"
#include "corefoundation/UnicodeProperties.hpp"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

namespace {

using namespace CFInternal;

// Bytes written, or only counted when there is no buffer.
class Output {
  public:
    Output(UInt8 *buffer, CFIndex capacity) : buffer_(buffer), capacity_(capacity) {}
    // False when they do not fit; then nothing is written.
    bool put(const std::uint8_t *bytes, CFIndex count) {
        if (count > room()) {
            return false;
        }
        if (buffer_ != nullptr && count > 0) {
            std::memcpy(buffer_ + used_, bytes, static_cast<std::size_t>(count));
        }
        used_ += count;
        return true;
    }
    CFIndex room() const {
        return (buffer_ == nullptr ? std::numeric_limits<CFIndex>::max() : capacity_) - used_;
    }
    CFIndex used() const { return used_; }

  private:
    UInt8 *buffer_;
    CFIndex capacity_;
    CFIndex used_ = 0;
};

struct Character {
    std::uint32_t scalar; // a lone surrogate stands for itself
    CFIndex units;
};

Character characterAt(const TextView &text, CFIndex i) {
    const std::uint32_t unit = text.at(i);
    if (isHighSurrogate(unit) && i + 1 < text.length && isLowSurrogate(text.at(i + 1))) {
        return {scalarFromPair(unit, text.at(i + 1)), 2};
    }
    return {unit, 1};
}

// What stands for a character that the encoding lacks.
EncodedScalar substitute(const Encoding &encoding, UInt8 lossByte) {
    if (lossByte == 0) {
        return {{}, 0};
    }
    return encoding.form < Form::UTF8 ? EncodedScalar{{lossByte}, 1}
                                      : encodeScalar(kReplacementCharacter, encoding);
}

// Returns the units converted.
CFIndex encodeText(const TextView &text, const Encoding &encoding, UInt8 lossByte, Output &out) {
    if (!text.wide && encoding.isByteOriented()) {
        const CFIndex count = std::min(text.length, out.room());
        out.put(text.narrowUnits(), count);
        return count;
    }
    CFIndex done = 0;
    while (done < text.length) {
        const Character character = characterAt(text, done);
        EncodedScalar encoded = encodeScalar(character.scalar, encoding);
        if (encoded.length == 0) {
            encoded = substitute(encoding, lossByte);
        }
        if (encoded.length == 0 || !out.put(encoded.bytes.data(), encoded.length)) {
            break;
        }
        done += character.units;
    }
    return done;
}

bool hasNUL(const TextView &text) {
    if (!text.wide) {
        return text.length > 0 && std::memchr(text.data, 0, text.byteSize()) != nullptr;
    }
    const UniChar *end = text.wideUnits() + text.length;
    return std::find(text.wideUnits(), end, 0) != end;
}

// White space at the start of a number is skipped.
CFIndex skipWhitespace(const TextView &text) {
    CFIndex i = 0;
    while (i < text.length && isWhitespace(text.at(i))) {
        ++i;
    }
    return i;
}

bool isDigit(UniChar unit) { return unit >= '0' && unit <= '9'; }

// Passes over a sign; true when it was a minus.
bool acceptSign(const TextView &text, CFIndex &i) {
    const bool negative = i < text.length && text.at(i) == '-';
    if (negative || (i < text.length && text.at(i) == '+')) {
        ++i;
    }
    return negative;
}

// The characters from i on that a decimal number without sign may consist of.
std::string numberCharacters(const TextView &text, CFIndex i) {
    std::string characters;
    for (; i < text.length; ++i) {
        const UniChar unit = text.at(i);
        const bool accepted = isDigit(unit) || unit == '.' || unit == 'e' || unit == 'E' ||
                              unit == '+' || unit == '-';
        if (!accepted) {
            break;
        }
        characters += static_cast<char>(unit);
    }
    return characters;
}

bool startsNumber(const std::string &text) {
    const auto digitAt = [&text](std::size_t i) {
        return i < text.size() && isDigit(static_cast<UniChar>(text[i]));
    };
    return digitAt(0) || (!text.empty() && text[0] == '.' && digitAt(1));
}

} // namespace

Boolean CFStringIsEncodingAvailable(CFStringEncoding encoding) {
    return Encoding::find(encoding).has_value();
}

CFStringEncoding CFStringGetSystemEncoding() { return kCFStringEncodingUTF8; }

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) {
    const auto found = Encoding::find(encoding);
    if (!found || length < 0) {
        return kCFNotFound;
    }
    CFIndex perUnit = 1;
    if (found->form == Form::UTF8) {
        perUnit = 3; // a pair takes four bytes, so two a unit
    } else if (!found->isByteOriented()) {
        perUnit = found->form == Form::UTF16 ? 2 : 4;
    }
    constexpr CFIndex largest = std::numeric_limits<CFIndex>::max();
    return length > largest / perUnit ? CFIndex{kCFNotFound} : length * perUnit;
}

CFIndex CFStringGetLength(CFStringRef theString) { return textOf(theString, __func__).length; }

UniChar CFStringGetCharacterAtIndex(CFStringRef theString, CFIndex idx) {
    const TextView text = textOf(theString, __func__);
    requireRange(text, CFRangeMake(idx, 1), __func__);
    return text.at(idx);
}

void CFStringGetCharacters(CFStringRef theString, CFRange range, UniChar *buffer) {
    const TextView text = textOf(theString, __func__);
    requireRange(text, range, __func__);
    withUnits(text.sub(range),
              [buffer](const auto *units, CFIndex length) { std::copy_n(units, length, buffer); });
}

CFIndex CFStringGetBytes(CFStringRef theString, CFRange range, CFStringEncoding encoding,
                         UInt8 lossByte, Boolean isExternalRepresentation, UInt8 *buffer,
                         CFIndex maxBufLen, CFIndex *usedBufLen) {
    const TextView text = textOf(theString, __func__);
    requireRange(text, range, __func__);
    const auto found = Encoding::find(encoding);
    Output out(buffer, maxBufLen);
    CFIndex converted = 0;
    if (found) {
        bool fits = true;
        if (isExternalRepresentation != 0 && !found->orderStated) {
            const EncodedScalar mark = encodeScalar(kByteOrderMark, *found);
            fits = out.put(mark.bytes.data(), mark.length);
        }
        converted = fits ? encodeText(text.sub(range), *found, lossByte, out) : 0;
    }
    if (usedBufLen != nullptr) {
        *usedBufLen = out.used();
    }
    return converted;
}

Boolean CFStringGetCString(CFStringRef theString, char *buffer, CFIndex bufferSize,
                           CFStringEncoding encoding) {
    const TextView text = textOf(theString, __func__);
    if (buffer == nullptr || bufferSize < 1) {
        return false;
    }
    buffer[0] = '\0';
    const auto found = Encoding::find(encoding);
    if (!found || !found->isByteOriented() || hasNUL(text)) {
        return false;
    }
    Output out(reinterpret_cast<UInt8 *>(buffer), bufferSize - 1);
    const bool whole = encodeText(text, *found, 0, out) == text.length;
    buffer[whole ? out.used() : 0] = '\0';
    return whole;
}

const char *CFStringGetCStringPtr(CFStringRef theString, CFStringEncoding encoding) {
    const TextView text = textOf(theString, __func__);
    if (!isByteOriented(encoding) || text.wide || hasNUL(text)) {
        return nullptr;
    }
    if ((flagsOf(theString) & kStringMutable) != 0) {
        auto *own = static_cast<MutableString *>(const_cast<__CFString *>(theString));
        return own->text.terminatedNarrow();
    }
    return (flagsOf(theString) & kStringTerminated) != 0 ? static_cast<const char *>(text.data)
                                                         : nullptr;
}

const UniChar *CFStringGetCharactersPtr(CFStringRef theString) {
    const TextView text = textOf(theString, __func__);
    return text.wide ? text.wideUnits() : nullptr;
}

Boolean CFStringGetFileSystemRepresentation(CFStringRef string, char *buffer, CFIndex maxBufLen) {
    return CFStringGetCString(string, buffer, maxBufLen, kCFStringEncodingUTF8);
}

CFIndex CFStringGetMaximumSizeOfFileSystemRepresentation(CFStringRef string) {
    return textOf(string, __func__).length * 3 + 1;
}

SInt32 CFStringGetIntValue(CFStringRef str) {
    const TextView text = textOf(str, __func__);
    CFIndex i = skipWhitespace(text);
    const bool negative = acceptSign(text, i);
    constexpr std::int64_t limit = std::int64_t{1} << 31;
    std::int64_t value = 0;
    for (; i < text.length && isDigit(text.at(i)); ++i) {
        value = std::min(value * 10 + (text.at(i) - '0'), limit);
    }
    return static_cast<SInt32>(negative ? -value : std::min(value, limit - 1));
}

double CFStringGetDoubleValue(CFStringRef str) {
    const TextView text = textOf(str, __func__);
    CFIndex i = skipWhitespace(text);
    const bool negative = acceptSign(text, i);
    const std::string number = numberCharacters(text, i);
    if (!startsNumber(number)) {
        return 0;
    }
    const double value = strtod_l(number.c_str(), nullptr, cLocale());
    return negative ? -value : value;
}
