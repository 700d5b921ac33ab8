#pragma once

#include "corefoundation/TextView.hpp"

#include <CoreFoundation/CFString.h>

namespace CFInternal {

// The location of the pattern within the range of text, or kCFNotFound. The range must lie
// within the text; an empty pattern is never found.
CFIndex findText(const TextView &text, const TextView &pattern, CFRange range,
                 CFStringCompareFlags options);

} // namespace CFInternal
