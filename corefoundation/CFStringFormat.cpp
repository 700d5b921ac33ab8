// Formatted strings.
#include "corefoundation/Checks.hpp"
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
    const TextView view = textOf(format, __func__);
    return nullWhenOutOfMemory([&] {
        alignas(UniChar) char scratch[kScratchSize];
        TextBuffer text(nullptr, scratch);
        appendFormat(text, formatOptions, view, arguments);
        return createString(allocator, text.view());
    });
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
    const Owner appended(CFStringCreateWithFormatAndArguments(kCFAllocatorDefault, formatOptions,
                                                              format, arguments));
    requireMemory(appended.get() != nullptr);
    CFStringAppend(theString, appended.get());
}

void CFStringAppendFormat(CFMutableStringRef theString, CFDictionaryRef formatOptions,
                          CFStringRef format, ...) {
    // Released by the scope: the call may throw.
    struct Arguments {
        va_list list;
        ~Arguments() { va_end(list); }
    } arguments;
    va_start(arguments.list, format);
    CFStringAppendFormatAndArguments(theString, formatOptions, format, arguments.list);
}
