// Formatted strings.
#include "corefoundation/FormatWriter.hpp"
#include "corefoundation/StringStorage.hpp"

namespace {

using namespace CFInternal;

// Most formatted texts fit here, which saves growing them on the heap.
constexpr std::size_t kScratchSize = 512;

} // namespace

CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef allocator,
                                                 CFDictionaryRef formatOptions, CFStringRef format,
                                                 va_list arguments) {
    alignas(UniChar) char scratch[kScratchSize];
    TextBuffer text(nullptr, scratch);
    appendFormat(text, formatOptions, textOf(format, __func__), arguments);
    return createString(allocator, text.view());
}

CFStringRef CFStringCreateWithFormat(CFAllocatorRef allocator, CFDictionaryRef formatOptions,
                                     CFStringRef format, ...) {
    va_list arguments;
    va_start(arguments, format);
    CFStringRef result =
        CFStringCreateWithFormatAndArguments(allocator, formatOptions, format, arguments);
    va_end(arguments);
    return result;
}

void CFStringAppendFormatAndArguments(CFMutableStringRef theString, CFDictionaryRef formatOptions,
                                      CFStringRef format, va_list arguments) {
    // By way of a string of its own, since an argument may be the changed string itself.
    CFStringRef appended =
        CFStringCreateWithFormatAndArguments(kCFAllocatorDefault, formatOptions, format, arguments);
    if (appended == nullptr) {
        fatal(__func__, "out of memory");
    }
    CFStringAppend(theString, appended);
    CFRelease(appended);
}

void CFStringAppendFormat(CFMutableStringRef theString, CFDictionaryRef formatOptions,
                          CFStringRef format, ...) {
    va_list arguments;
    va_start(arguments, format);
    CFStringAppendFormatAndArguments(theString, formatOptions, format, arguments);
    va_end(arguments);
}
