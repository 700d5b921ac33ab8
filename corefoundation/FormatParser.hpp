// Printf-like format strings, taken apart before any argument is fetched: arguments given
// by position can only be fetched once the type of each is known.
#pragma once

#include "corefoundation/TextView.hpp"

#include <CoreFoundation/CFBase.h>

#include <array>
#include <vector>

namespace CFInternal {

// How an argument is passed; what it is shown as is the conversion's business.
enum class ArgumentKind : std::uint8_t {
    None, // a position that no conversion names: passed over as an int
    Int,
    Long,
    LongLong,
    Size,
    IntMax,
    PointerDifference,
    Double,
    LongDouble,
    Pointer,
};

enum class Modifier : std::uint8_t {
    None,
    Char,
    Short,
    Long,
    LongLong,
    Size,
    IntMax,
    PointerDifference,
    LongDouble,
};

inline constexpr int kNoArgument = -1;
inline constexpr int kNoPrecision = -1;

// A conversion, or with conversion 0 a stretch of the format that is copied.
struct FormatPiece {
    CFRange source{0, 0};
    char conversion = 0;
    Modifier modifier = Modifier::None;
    bool leftAligned = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = kNoPrecision;
    int argument = kNoArgument;
    int widthArgument = kNoArgument;
    int precisionArgument = kNoArgument;
};

struct ParsedFormat {
    // Positions beyond this are no conversions: a bound for what one format makes us fetch.
    static constexpr int kMaxArguments = 256;

    std::vector<FormatPiece> pieces;
    std::vector<ArgumentKind> arguments;
};

ParsedFormat parseFormat(const TextView &format);

} // namespace CFInternal
