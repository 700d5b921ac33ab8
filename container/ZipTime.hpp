#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <minizip/zip.h>

namespace Kelvane {

// The date in local time, as zip records have it: from 1980 to 2107, in steps of two
// seconds. Earlier dates, and null, become the first of these, later ones the last.
tm_zip ZipTime(CFDateRef date) noexcept;

} // namespace Kelvane
