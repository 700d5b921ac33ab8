// The fields of a record of Manifest.mbdb, to bytes.
#pragma once

#include "support/cf/Dictionary.hpp"

#include <CoreFoundation/CoreFoundation.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Kelvane::MbdbFields {

using Output = std::vector<std::uint8_t>;

// What a file begins with: the magic and two version bytes.
inline constexpr std::array<std::uint8_t, 6> kHeader = {'m', 'b', 'd', 'b', 5, 0};

// How a byte string of no length is written.
enum class Empty {
    AsLengthZero,
    AsAbsent // as devices do
};

template <std::unsigned_integral T>
void AppendInteger(Output &output, T value) {
    for (std::size_t i = sizeof(T); i-- > 0;) {
        output.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

// Each appends byte strings and answers false when one does not fit: bytes of 65535 and more, a
// text without a UTF-8 form.
bool AppendData(Output &output, CFDataRef data, Empty empty);
bool AppendText(Output &output, CFStringRef text, Empty empty);
// The number of the properties, cut to its eight bits, and they themselves, sorted by name, so that
// equal ones give equal bytes. False for names that are no texts and values that are no data too.
bool AppendProperties(Output &output, CFDictionaryRef properties, Empty empty);

} // namespace Kelvane::MbdbFields
