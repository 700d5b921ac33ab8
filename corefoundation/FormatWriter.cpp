#include "corefoundation/FormatWriter.hpp"

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/CLocale.hpp"
#include "corefoundation/Checks.hpp"
#include "corefoundation/FormatParser.hpp"
#include "corefoundation/StringStorage.hpp"
#include "corefoundation/TextEncoding.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <string>

namespace CFInternal {

namespace {

// Wider fields than anyone lays out, and more digits than any number has: a width or
// precision that went wrong must not take the memory of the process.
constexpr int kMaxFieldWidth = 1 << 20;

// A fetched argument. Integers are kept sign-extended and cut to size when shown.
struct Argument {
    std::int64_t integer = 0;
    double real = 0;
    long double longReal = 0;
    const void *pointer = nullptr;
};

struct ArgumentList {
    va_list list;
};

Argument fetch(ArgumentKind kind, ArgumentList &arguments) {
    Argument value;
    switch (kind) {
    case ArgumentKind::None:
    case ArgumentKind::Int:
        value.integer = va_arg(arguments.list, int);
        break;
    case ArgumentKind::Long:
        value.integer = va_arg(arguments.list, long);
        break;
    case ArgumentKind::LongLong:
        value.integer = va_arg(arguments.list, long long);
        break;
    case ArgumentKind::Size:
        value.integer = static_cast<std::int64_t>(va_arg(arguments.list, std::size_t));
        break;
    case ArgumentKind::IntMax:
        value.integer = va_arg(arguments.list, std::intmax_t);
        break;
    case ArgumentKind::PointerDifference:
        value.integer = va_arg(arguments.list, std::ptrdiff_t);
        break;
    case ArgumentKind::Double:
        value.real = va_arg(arguments.list, double);
        break;
    case ArgumentKind::LongDouble:
        value.longReal = va_arg(arguments.list, long double);
        break;
    case ArgumentKind::Pointer:
        value.pointer = va_arg(arguments.list, const void *);
        break;
    }
    return value;
}

std::int64_t signedValue(std::int64_t value, Modifier modifier) {
    switch (modifier) {
    case Modifier::Char:
        return static_cast<signed char>(value);
    case Modifier::Short:
        return static_cast<short>(value);
    case Modifier::None:
    case Modifier::LongDouble:
        return static_cast<int>(value);
    default:
        return value;
    }
}

std::uint64_t unsignedValue(std::int64_t value, Modifier modifier) {
    switch (modifier) {
    case Modifier::Char:
        return static_cast<unsigned char>(value);
    case Modifier::Short:
        return static_cast<unsigned short>(value);
    case Modifier::None:
    case Modifier::LongDouble:
        return static_cast<unsigned>(value);
    default:
        return static_cast<std::uint64_t>(value);
    }
}

// Numbers follow the "C" locale while one of these exists.
class CLocaleScope {
  public:
    CLocaleScope() : before_(uselocale(cLocale())) {}
    CLocaleScope(const CLocaleScope &) = delete;
    CLocaleScope &operator=(const CLocaleScope &) = delete;
    ~CLocaleScope() { uselocale(before_); }

  private:
    locale_t before_;
};

class Writer {
  public:
    Writer(TextBuffer &output, CFDictionaryRef options, const TextView &format,
           const ParsedFormat &parsed, const std::vector<Argument> &arguments)
        : output_(output), options_(options), format_(format), parsed_(parsed),
          arguments_(arguments) {}

    void write() {
        for (const FormatPiece &piece : parsed_.pieces) {
            if (piece.conversion == 0) {
                output_.append(format_.sub(piece.source));
            } else {
                writeConversion(resolve(piece));
            }
        }
    }

  private:
    const Argument &argument(int index) const {
        return arguments_[static_cast<std::size_t>(index)];
    }

    // The piece with its "*" replaced by their arguments and a bounded width.
    FormatPiece resolve(FormatPiece piece) const {
        if (piece.widthArgument != kNoArgument) {
            const std::int64_t width = argument(piece.widthArgument).integer;
            piece.leftAligned = piece.leftAligned || width < 0;
            piece.width = static_cast<int>(
                std::min<std::int64_t>(width < 0 ? -width : width, kMaxFieldWidth));
        }
        if (piece.precisionArgument != kNoArgument) {
            piece.precision = static_cast<int>(
                std::max<std::int64_t>(argument(piece.precisionArgument).integer, kNoPrecision));
        }
        piece.width = std::min(piece.width, kMaxFieldWidth);
        return piece;
    }

    void writeConversion(const FormatPiece &piece) {
        const Argument &value = argument(piece.argument);
        switch (piece.conversion) {
        case '@':
            writeObject(piece, value.pointer);
            break;
        case 's':
            writeBytes(piece, static_cast<const char *>(value.pointer));
            break;
        case 'S':
            writeUnits(piece, static_cast<const UniChar *>(value.pointer));
            break;
        case 'c':
        case 'C':
            writeUnit(piece, value.integer);
            break;
        case 'p':
            writePointer(piece, value.pointer);
            break;
        default:
            writeNumber(piece, value);
        }
    }

    void writeNumber(const FormatPiece &piece, const Argument &value) {
        switch (piece.conversion) {
        case 'd':
        case 'i':
            writeDecimal(piece, signedValue(value.integer, piece.modifier));
            break;
        case 'u':
            writeDecimal(piece, unsignedValue(value.integer, piece.modifier));
            break;
        case 'o':
        case 'x':
        case 'X':
            printNumber(piece, "ll", unsignedValue(value.integer, piece.modifier));
            break;
        default:
            if (piece.modifier == Modifier::LongDouble) {
                printNumber(piece, "L", value.longReal);
            } else {
                printNumber(piece, "", value.real);
            }
        }
    }

    // Most numbers are plain decimals, which need no C format.
    template <class Integer>
    void writeDecimal(const FormatPiece &piece, Integer value) {
        const bool plain = !piece.plus && !piece.space && !piece.zero && !piece.alternate;
        if (!plain || piece.precision != kNoPrecision) {
            printNumber(piece, "ll", value);
            return;
        }
        char text[24];
        const auto result = std::to_chars(std::begin(text), std::end(text), value);
        writePadded(piece, narrowView(text, static_cast<std::size_t>(result.ptr - text)));
    }

    // A C format for the same conversion: "%-+ #0*.*lld".
    static std::string printfFormat(const FormatPiece &piece, const char *modifier) {
        std::string format = "%";
        format += piece.leftAligned ? "-" : "";
        format += piece.plus ? "+" : "";
        format += piece.space ? " " : "";
        format += piece.alternate ? "#" : "";
        format += piece.zero ? "0" : "";
        format += "*.*";
        format += modifier;
        return format + piece.conversion;
    }

    template <class Number>
    void printNumber(const FormatPiece &piece, const char *modifier, Number value) {
        const std::string format = printfFormat(piece, modifier);
        const CLocaleScope numbersWithPoint;
        const int precision = std::min(piece.precision, kMaxFieldWidth);
        char shortText[128];
        const int size = std::snprintf(shortText, sizeof(shortText), format.c_str(), piece.width,
                                       precision, value);
        requireMemory(size >= 0);
        const auto length = static_cast<std::size_t>(size);
        if (length < sizeof(shortText)) {
            output_.append(narrowView(shortText, length));
            return;
        }
        std::string longText(length + 1, '\0');
        std::snprintf(longText.data(), longText.size(), format.c_str(), piece.width, precision,
                      value);
        output_.append(narrowView(longText.data(), length));
    }

    void writePadded(const FormatPiece &piece, const TextView &text) {
        const CFIndex padding = piece.width - text.length;
        if (!piece.leftAligned) {
            output_.appendRepeated(' ', padding);
        }
        output_.append(text);
        if (piece.leftAligned) {
            output_.appendRepeated(' ', padding);
        }
    }

    // Text cut to the precision, between characters.
    void writeCut(const FormatPiece &piece, const TextView &text) {
        CFIndex length = text.length;
        if (piece.precision != kNoPrecision && piece.precision < length) {
            length = piece.precision;
            const bool splitsPair = length > 0 && isHighSurrogate(text.at(length - 1)) &&
                                    isLowSurrogate(text.at(length));
            length -= splitsPair ? 1 : 0;
        }
        writePadded(piece, text.sub(0, length));
    }

    void writeObject(const FormatPiece &piece, const void *object) {
        if (object == nullptr) {
            writeCut(piece, narrowView("(null)", 6));
            return;
        }
        const Owner text(copyFormattingDescription(object, options_));
        requireMemory(text.get() != nullptr);
        writeCut(piece, textOf(text.get(), "CFStringCreateWithFormat"));
    }

    void writeBytes(const FormatPiece &piece, const char *bytes) {
        bytes = bytes == nullptr ? "(null)" : bytes;
        const bool limited = piece.precision != kNoPrecision;
        std::size_t size = limited ? strnlen(bytes, static_cast<std::size_t>(piece.precision))
                                   : std::strlen(bytes);
        const Bytes utf8(reinterpret_cast<const std::uint8_t *>(bytes), size);
        if (isASCII(utf8.data(), utf8.size())) {
            writePadded(piece, narrowView(bytes, size));
            return;
        }
        const bool cut = limited && size == static_cast<std::size_t>(piece.precision);
        TextBuffer text(nullptr);
        decodeUTF8Lossy(cut ? withoutCutCharacter(utf8) : utf8,
                        [&text](UniChar unit) { text.appendUnit(unit); });
        writePadded(piece, text.view());
    }

    // The bytes without an incomplete but so far well-formed sequence at their end.
    static Bytes withoutCutCharacter(Bytes utf8) {
        Bytes rest = utf8;
        while (!rest.empty()) {
            const DecodedScalar next = decodeUTF8(rest);
            const bool incomplete = !next.wellFormed && next.length == rest.size() &&
                                    rest[0] >= 0xC2 && rest[0] <= 0xF4;
            if (incomplete) {
                return utf8.first(utf8.size() - rest.size());
            }
            rest = rest.subspan(next.length);
        }
        return utf8;
    }

    void writeUnits(const FormatPiece &piece, const UniChar *units) {
        if (units == nullptr) {
            writeCut(piece, narrowView("(null)", 6));
            return;
        }
        // Not one unit more than a precision allows is read, save for telling a pair.
        const CFIndex limit = piece.precision == kNoPrecision ? kMaxTextLength : piece.precision;
        CFIndex length = 0;
        while (length < limit && units[length] != 0) {
            ++length;
        }
        writePadded(piece, {units, length, true});
    }

    void writeUnit(const FormatPiece &piece, std::int64_t value) {
        const auto unit = piece.conversion == 'c' ? static_cast<unsigned char>(value)
                                                  : static_cast<UniChar>(value);
        writePadded(piece, {&unit, 1, true});
    }

    void writePointer(const FormatPiece &piece, const void *pointer) {
        char text[2 + 2 * sizeof(std::uintptr_t) + 1];
        const int size =
            std::snprintf(text, sizeof(text), "0x%lx",
                          static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(pointer)));
        writePadded(piece, narrowView(text, static_cast<std::size_t>(size)));
    }

    TextBuffer &output_;
    CFDictionaryRef options_;
    const TextView &format_;
    const ParsedFormat &parsed_;
    const std::vector<Argument> &arguments_;
};

} // namespace

void appendFormat(TextBuffer &output, CFDictionaryRef formatOptions, const TextView &format,
                  va_list arguments) {
    const ParsedFormat parsed = parseFormat(format);
    std::vector<Argument> values;
    values.reserve(parsed.arguments.size());
    ArgumentList list;
    va_copy(list.list, arguments);
    for (const ArgumentKind kind : parsed.arguments) {
        values.push_back(fetch(kind, list));
    }
    va_end(list.list);
    Writer(output, formatOptions, format, parsed, values).write();
}

} // namespace CFInternal
