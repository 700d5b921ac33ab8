// Numbers for people.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// The number without its fraction, and the nearest one where there is none: no size or duration
// is too odd to be shown.
std::int64_t ToInteger(double value);

// "512 B", "1.5 MB": powers of 1000.
std::string SizeText(std::int64_t bytes);
// "2026-01-31 12:00:00 UTC"; the plain number for times beyond the calendar's years.
std::string DateText(std::int64_t unixSeconds);
// "12 s", "3:05", "1:02:03".
std::string DurationText(double seconds);

} // namespace tool
