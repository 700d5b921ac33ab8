// The few properties of characters that string functions need.
#pragma once

#include <cstdint>
#include <string_view>

namespace CFInternal {

// Unicode White_Space.
bool isWhitespace(std::uint32_t scalar) noexcept;

// Simple case mappings: one character to one, in as many UTF-16 units. A surrogate maps
// to itself.
std::uint32_t lowercase(std::uint32_t scalar) noexcept;
std::uint32_t uppercase(std::uint32_t scalar) noexcept;
// For comparison without regard to case.
std::uint32_t foldCase(std::uint32_t scalar) noexcept;

// The upper-case form of a character that has several characters there ("SS" for
// U+00DF); empty when uppercase says it all.
std::u16string_view specialUppercase(std::uint32_t scalar) noexcept;

} // namespace CFInternal
