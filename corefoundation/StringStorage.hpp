// How string objects lie in memory.
#pragma once

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/TextBuffer.hpp"
#include "corefoundation/TextView.hpp"

#include <CoreFoundation/CFString.h>

struct __CFString {
    CFRuntimeBase base;
};

namespace CFInternal {

// What the type's 8 header bits say about a string.
enum StringFlag : std::uint8_t {
    kStringWide = 1,       // two bytes a unit (immutable strings)
    kStringExternal = 2,   // ExternalString
    kStringMutable = 4,    // MutableString
    kStringTerminated = 8, // a NUL follows the one-byte units
};

struct ImmutableString : __CFString {
    CFIndex length;
};

// The common case: the units follow the header, one allocation in all.
struct InlineString : ImmutableString {
    static constexpr CFIndex kExtra = sizeof(CFIndex);
    void *units() { return this + 1; }
    const void *units() const { return this + 1; }
};

// A no-copy string.
struct ExternalString : ImmutableString {
    const void *contents;
    CFAllocatorRef deallocator; // retained; null for the default one
};

struct MutableString : __CFString {
    TextBuffer text;
};

inline TextView viewOf(CFStringRef string) {
    const std::uint8_t flags = flagsOf(string);
    if ((flags & kStringMutable) != 0) {
        return static_cast<const MutableString *>(string)->text.view();
    }
    const auto *immutable = static_cast<const ImmutableString *>(string);
    const void *units = (flags & kStringExternal) != 0
                            ? static_cast<const ExternalString *>(string)->contents
                            : static_cast<const InlineString *>(string)->units();
    return {units, immutable->length, (flags & kStringWide) != 0};
}

// The text of an argument; aborts when it is no string.
inline TextView textOf(CFStringRef string, const char *function) {
    requireType(string, kStringTypeID, function);
    return viewOf(string);
}

// Aborts unless the range lies within the text.
inline void requireRange(const TextView &text, CFRange range, const char *function) {
    if (range.location < 0 || range.length < 0 || range.location > text.length ||
        range.length > text.length - range.location) [[unlikely]] {
        fatal(function, "range outside the string");
    }
}

// All empty immutable strings are this one, which takes no memory.
CFStringRef retainedEmptyString() noexcept;
// New strings; null when memory is out. Text that turns out to be ASCII is stored narrow.
CFStringRef createString(CFAllocatorRef allocator, const TextView &text);
// A new string whose units the caller fills in through *units before anybody sees it:
// length bytes, or UniChars when wide. length must not be 0.
CFStringRef createUnfilled(CFAllocatorRef allocator, CFIndex length, bool wide, void **units);

} // namespace CFInternal
