#include "corefoundation/FormatParser.hpp"

#include <climits>
#include <optional>
#include <string_view>

namespace CFInternal {

namespace {

ArgumentKind integerKind(Modifier modifier) {
    switch (modifier) {
    case Modifier::Long:
        return ArgumentKind::Long;
    case Modifier::LongLong:
        return ArgumentKind::LongLong;
    case Modifier::Size:
        return ArgumentKind::Size;
    case Modifier::IntMax:
        return ArgumentKind::IntMax;
    case Modifier::PointerDifference:
        return ArgumentKind::PointerDifference;
    default:
        // Narrower types are promoted.
        return ArgumentKind::Int;
    }
}

// The kind of argument that a conversion takes; None for an unknown conversion.
ArgumentKind kindOf(char conversion, Modifier modifier) {
    switch (conversion) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        return integerKind(modifier);
    case 'c':
    case 'C':
        return ArgumentKind::Int;
    case 'a':
    case 'A':
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
        return modifier == Modifier::LongDouble ? ArgumentKind::LongDouble : ArgumentKind::Double;
    case '@':
    case 's':
    case 'S':
    case 'p':
        return ArgumentKind::Pointer;
    default:
        return ArgumentKind::None;
    }
}

class Parser {
  public:
    explicit Parser(const TextView &format) : format_(format) {
        // Enough for most formats to grow neither.
        result_.pieces.reserve(8);
        result_.arguments.reserve(8);
    }

    ParsedFormat parse() {
        CFIndex literalStart = 0;
        while (position_ < format_.length) {
            if (peek() != '%') {
                ++position_;
                continue;
            }
            const CFIndex start = position_;
            const std::optional<FormatPiece> piece = parsePiece();
            if (!piece) {
                continue; // stays part of the literal text
            }
            addLiteral(literalStart, start);
            result_.pieces.push_back(*piece);
            literalStart = position_;
        }
        addLiteral(literalStart, format_.length);
        return std::move(result_);
    }

  private:
    // NUL at the end, which no part of a conversion is.
    char peek() const {
        if (position_ >= format_.length) {
            return '\0';
        }
        const UniChar unit = format_.at(position_);
        return unit < 0x80 ? static_cast<char>(unit) : '\0';
    }
    bool accept(char expected) {
        if (position_ >= format_.length || peek() != expected) {
            return false;
        }
        ++position_;
        return true;
    }

    void addLiteral(CFIndex start, CFIndex end) {
        if (end > start) {
            FormatPiece piece;
            piece.source = CFRangeMake(start, end - start);
            result_.pieces.push_back(piece);
        }
    }

    // Digits as a number that stops growing at INT_MAX; nothing when there are none.
    std::optional<int> parseNumber() {
        std::optional<int> number;
        for (char digit = peek(); digit >= '0' && digit <= '9'; digit = peek()) {
            const int value = digit - '0';
            const int before = number.value_or(0);
            number = before > (INT_MAX - value) / 10 ? INT_MAX : before * 10 + value;
            ++position_;
        }
        return number;
    }

    // "3$": an argument by position, as an index from 0.
    std::optional<int> parsePosition() {
        const CFIndex start = position_;
        const std::optional<int> number = parseNumber();
        if (number && *number > 0 && accept('$')) {
            return *number - 1;
        }
        position_ = start;
        return std::nullopt;
    }

    bool acceptFlag(FormatPiece &piece) {
        switch (peek()) {
        case '-':
            piece.leftAligned = true;
            break;
        case '+':
            piece.plus = true;
            break;
        case ' ':
            piece.space = true;
            break;
        case '#':
            piece.alternate = true;
            break;
        case '0':
            piece.zero = true;
            break;
        case '\'':
            break; // grouping is the locale's business, and there is none
        default:
            return false;
        }
        ++position_;
        return true;
    }

    // The argument of a "*", by position or the next one.
    int parseStarArgument() {
        const std::optional<int> position = parsePosition();
        return position ? *position : next_++;
    }

    void parseWidth(FormatPiece &piece) {
        if (accept('*')) {
            piece.widthArgument = parseStarArgument();
        } else {
            piece.width = parseNumber().value_or(0);
        }
    }

    void parsePrecision(FormatPiece &piece) {
        if (!accept('.')) {
            return;
        }
        if (accept('*')) {
            piece.precisionArgument = parseStarArgument();
        } else {
            piece.precision = parseNumber().value_or(0);
        }
    }

    Modifier parseModifier() {
        if (accept('h')) {
            return accept('h') ? Modifier::Char : Modifier::Short;
        }
        if (accept('l')) {
            return accept('l') ? Modifier::LongLong : Modifier::Long;
        }
        constexpr std::string_view letters = "qzjtL";
        constexpr std::array<Modifier, letters.size()> modifiers = {
            Modifier::LongLong, Modifier::Size, Modifier::IntMax, Modifier::PointerDifference,
            Modifier::LongDouble};
        for (std::size_t i = 0; i < letters.size(); ++i) {
            if (accept(letters[i])) {
                return modifiers[i];
            }
        }
        return Modifier::None;
    }

    // The older spellings %D, %U, %O of %ld, %lu, %lo, and %ls, %lc of %S, %C.
    static void normalise(FormatPiece &piece) {
        constexpr std::string_view longSpellings = "DUO";
        constexpr std::string_view plainSpellings = "duo";
        const std::size_t index = longSpellings.find(piece.conversion);
        if (index != std::string_view::npos) {
            piece.conversion = plainSpellings[index];
            piece.modifier = Modifier::Long;
        } else if (piece.modifier == Modifier::Long && piece.conversion == 's') {
            piece.conversion = 'S';
        } else if (piece.modifier == Modifier::Long && piece.conversion == 'c') {
            piece.conversion = 'C';
        }
    }

    // A conversion from its per cent sign on. What is none leaves the position behind the
    // sign and takes no argument.
    std::optional<FormatPiece> parsePiece() {
        const CFIndex start = position_++;
        const int firstArgument = next_;
        FormatPiece piece;
        const std::optional<int> explicitArgument = parsePosition();
        while (acceptFlag(piece)) {
        }
        parseWidth(piece);
        parsePrecision(piece);
        piece.modifier = parseModifier();
        piece.conversion = peek();
        ++position_;
        normalise(piece);
        if (piece.conversion == '%') {
            next_ = firstArgument;
            piece = FormatPiece{};
            piece.source = CFRangeMake(position_ - 1, 1);
            return piece;
        }
        piece.argument = explicitArgument ? *explicitArgument : next_++;
        if (!claimArguments(piece)) {
            position_ = start + 1;
            next_ = firstArgument;
            return std::nullopt;
        }
        return piece;
    }

    bool claimArguments(const FormatPiece &piece) {
        const ArgumentKind kind = kindOf(piece.conversion, piece.modifier);
        constexpr int limit = ParsedFormat::kMaxArguments;
        if (kind == ArgumentKind::None || piece.argument >= limit || piece.widthArgument >= limit ||
            piece.precisionArgument >= limit) {
            return false;
        }
        claim(piece.argument, kind);
        claim(piece.widthArgument, ArgumentKind::Int);
        claim(piece.precisionArgument, ArgumentKind::Int);
        return true;
    }

    void claim(int argument, ArgumentKind kind) {
        if (argument == kNoArgument) {
            return;
        }
        const auto index = static_cast<std::size_t>(argument);
        if (index >= result_.arguments.size()) {
            result_.arguments.resize(index + 1, ArgumentKind::None);
        }
        result_.arguments[index] = kind;
    }

    TextView format_;
    CFIndex position_ = 0;
    int next_ = 0;
    ParsedFormat result_;
};

} // namespace

ParsedFormat parseFormat(const TextView &format) { return Parser(format).parse(); }

} // namespace CFInternal
