// Standard output, checked: a full disk must not look like success.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace tool {

// Buffered text. Throws Failure when it cannot be written.
void Print(std::string_view text);
void PrintLine(std::string_view text);
// Writes what is buffered. Throws Failure when that fails.
void FlushOutput();
// Writes all bytes to the descriptor, past any buffer. Throws Failure naming what.
void WriteAll(int fd, std::span<const std::uint8_t> bytes, std::string_view what);

bool OutputIsTerminal();

} // namespace tool
