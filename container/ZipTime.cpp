#include "container/ZipTime.hpp"

#include <algorithm>
#include <ctime>

namespace Kelvane {

namespace {

constexpr tm_zip kFirst = {0, 0, 0, 1, 0, 1980};
constexpr tm_zip kLast = {58, 59, 23, 31, 11, 2107};
// Unix seconds that lie in 1980 to 2107 in every time zone or a day beside it: what is
// outside must not be converted to whole seconds, which may not be able to hold it.
constexpr double kEarliest = 315532800.0 - 86400.0;
constexpr double kLatest = 4354819200.0 + 86400.0;
constexpr int kBaseYear = 1900;

tm_zip fields(const std::tm &local) {
    constexpr int kLastSecond = 59; // a leap second has no place in a record
    const auto field = [](int value) { return static_cast<uInt>(value); };
    return {field(std::min(local.tm_sec, kLastSecond)),
            field(local.tm_min),
            field(local.tm_hour),
            field(local.tm_mday),
            field(local.tm_mon),
            field(local.tm_year + kBaseYear)};
}

} // namespace

tm_zip ZipTime(CFDateRef date) noexcept {
    if (date == nullptr) {
        return kFirst;
    }
    const double unixTime = CFDateGetAbsoluteTime(date) + kCFAbsoluteTimeIntervalSince1970;
    // Written so that what is no number comes out as the first.
    if (!(unixTime >= kEarliest)) {
        return kFirst;
    }
    if (unixTime > kLatest) {
        return kLast;
    }
    const auto seconds = static_cast<std::time_t>(unixTime);
    std::tm local{};
    ::tzset();
    if (::localtime_r(&seconds, &local) == nullptr || local.tm_year + kBaseYear < 1980) {
        return kFirst;
    }
    return local.tm_year + kBaseYear > 2107 ? kLast : fields(local);
}

} // namespace Kelvane
