#include "Units.hpp"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace tool {

std::int64_t ToInteger(double value) {
    constexpr double kBound = 9223372036854775808.0; // 2^63, the first that is too large
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= kBound) {
        return INT64_MAX;
    }
    return value < -kBound ? INT64_MIN : static_cast<std::int64_t>(value);
}

std::string SizeText(std::int64_t bytes) {
    constexpr std::array<const char *, 6> kUnits = {"kB", "MB", "GB", "TB", "PB", "EB"};
    if (bytes > -1000 && bytes < 1000) {
        return std::to_string(bytes) + " B";
    }
    double value = static_cast<double>(bytes) / 1000;
    std::size_t unit = 0;
    while (std::abs(value) >= 999.95 && unit + 1 < kUnits.size()) {
        value /= 1000;
        ++unit;
    }
    std::array<char, 40> text;
    std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits[unit]);
    return text.data();
}

std::string DateText(std::int64_t unixSeconds) {
    const auto time = static_cast<std::time_t>(unixSeconds);
    std::tm parts{};
    std::array<char, 64> text;
    if (gmtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0) {
        return std::to_string(unixSeconds);
    }
    return text.data();
}

std::string DurationText(double seconds) {
    const long long whole = ToInteger(std::round(seconds));
    std::array<char, 40> text;
    if (whole < 60) {
        std::snprintf(text.data(), text.size(), "%lld s", whole);
    } else if (whole < 3600) {
        std::snprintf(text.data(), text.size(), "%lld:%02lld", whole / 60, whole % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                      whole % 60);
    }
    return text.data();
}

} // namespace tool
