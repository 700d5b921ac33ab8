#pragma once

#include "corefoundation/TextBuffer.hpp"

#include <CoreFoundation/CFString.h>

#include <cstdarg>

namespace CFInternal {

// Appends the formatted text; arguments is used up.
void appendFormat(TextBuffer &output, CFDictionaryRef formatOptions, const TextView &format,
                  va_list arguments);

} // namespace CFInternal
