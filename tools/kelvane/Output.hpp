// Standard output, checked: a full disk must not look like success.
#pragma once

#include "Diagnostics.hpp"

#include <cstdint>
#include <span>
#include <string_view>

namespace tool {

// Whoever reads standard output has stopped reading.
class OutputClosed : public Failure {
  public:
    using Failure::Failure;
};

// Keeps standard output for the functions below, and the library's own prints out of it: they
// would end up in the middle of a file's content. Call it first of all. Streams that the
// invoker closed are replaced, so that no file that is opened later takes their place.
void StartOutput();
// Shows what the library prints on standard error from now on, line by line at the end.
// path: a file to keep it in until then.
void CollectLibraryOutput(const std::string &path);
void ShowLibraryOutput();

// Buffered text. Throws Failure when it cannot be written.
void Print(std::string_view text);
void PrintLine(std::string_view text);
// Writes what is buffered, and closes standard output. Throws Failure when that fails: what
// was written may then be lost.
void FinishOutput();
// Writes bytes past the buffer, which must be empty. Throws Failure when that fails.
void WriteOutput(std::span<const std::uint8_t> bytes);
bool OutputIsTerminal();

// Writes all bytes to the descriptor. Throws Failure.
void WriteFileBytes(int fd, std::span<const std::uint8_t> bytes);

} // namespace tool
