#include "corefoundation/UnicodeProperties.hpp"

#include <algorithm>
#include <array>

namespace CFInternal {

namespace {

// Every step-th character from first to last maps to itself plus delta.
struct CaseRange {
    std::uint32_t first;
    std::uint32_t last;
    std::uint32_t step;
    std::int32_t delta;
};

struct SpecialUppercase {
    char16_t from;
    char16_t to[4]; // NUL-terminated
};

#include "corefoundation/UnicodeTables.inc"

template <class Table>
std::uint32_t map(const Table &table, std::uint32_t scalar) noexcept {
    const auto *row =
        std::upper_bound(table.begin(), table.end(), scalar,
                         [](std::uint32_t value, const CaseRange &r) { return value < r.first; });
    if (row == table.begin()) {
        return scalar;
    }
    --row;
    if (scalar > row->last || (scalar - row->first) % row->step != 0) {
        return scalar;
    }
    return scalar + static_cast<std::uint32_t>(row->delta);
}

} // namespace

bool isWhitespace(std::uint32_t scalar) noexcept {
    return (scalar >= 0x09 && scalar <= 0x0D) || scalar == 0x20 || scalar == 0x85 ||
           scalar == 0xA0 || scalar == 0x1680 || (scalar >= 0x2000 && scalar <= 0x200A) ||
           scalar == 0x2028 || scalar == 0x2029 || scalar == 0x202F || scalar == 0x205F ||
           scalar == 0x3000;
}

std::uint32_t lowercase(std::uint32_t scalar) noexcept { return map(kLowercase, scalar); }

std::uint32_t uppercase(std::uint32_t scalar) noexcept { return map(kUppercase, scalar); }

std::uint32_t foldCase(std::uint32_t scalar) noexcept { return map(kCaseFolding, scalar); }

std::u16string_view specialUppercase(std::uint32_t scalar) noexcept {
    const auto *row = std::lower_bound(
        kSpecialUppercase.begin(), kSpecialUppercase.end(), scalar,
        [](const SpecialUppercase &entry, std::uint32_t value) { return entry.from < value; });
    return row != kSpecialUppercase.end() && row->from == scalar ? std::u16string_view(row->to)
                                                                 : std::u16string_view();
}

} // namespace CFInternal
