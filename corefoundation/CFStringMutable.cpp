// Changing mutable strings.
#include "corefoundation/Checks.hpp"
#include "corefoundation/StringSearch.hpp"
#include "corefoundation/StringStorage.hpp"
#include "corefoundation/TextEncoding.hpp"
#include "corefoundation/UnicodeProperties.hpp"

#include <vector>

namespace {

using namespace CFInternal;

TextBuffer &bufferOf(CFMutableStringRef string, const char *function) {
    requireType(string, kStringTypeID, function);
    if ((flagsOf(string) & kStringMutable) == 0) {
        fatal(function, "the string is not mutable");
    }
    return static_cast<MutableString *>(string)->text;
}

// Rewrites the text character by character through map(scalar, result).
template <class Map>
void rewrite(TextBuffer &text, Map map) {
    TextBuffer result(nullptr);
    const TextView before = text.view();
    result.reserve(before.length);
    for (CFIndex i = 0; i < before.length; ++i) {
        const std::uint32_t unit = before.at(i);
        const bool pair =
            isHighSurrogate(unit) && i + 1 < before.length && isLowSurrogate(before.at(i + 1));
        map(pair ? scalarFromPair(unit, before.at(i + 1)) : unit, result);
        i += pair ? 1 : 0;
    }
    text.replace(0, before.length, result.view());
}

void appendLowercase(std::uint32_t scalar, TextBuffer &result) {
    // The one character whose lower case is two: I with dot above.
    if (scalar == 0x130) {
        result.appendUnit('i');
        result.appendUnit(0x307);
        return;
    }
    result.appendScalar(lowercase(scalar));
}

void appendUppercase(std::uint32_t scalar, TextBuffer &result) {
    const std::u16string_view special = specialUppercase(scalar);
    for (const char16_t unit : special) {
        result.appendUnit(unit);
    }
    if (special.empty()) {
        result.appendScalar(uppercase(scalar));
    }
}

// Where stringToFind occurs, in ascending order.
std::vector<CFIndex> occurrences(const TextView &text, const TextView &pattern, CFRange range,
                                 CFStringCompareFlags options) {
    std::vector<CFIndex> found;
    const bool backwards = (options & kCFCompareBackwards) != 0;
    for (;;) {
        const CFIndex at = findText(text, pattern, range, options);
        if (at == kCFNotFound) {
            break;
        }
        found.push_back(at);
        if ((options & kCFCompareAnchored) != 0) {
            break;
        }
        const CFIndex end = range.location + range.length;
        const CFIndex next = at + pattern.length;
        range = backwards ? CFRangeMake(range.location, at - range.location)
                          : CFRangeMake(next, end - next);
    }
    if (backwards) {
        return {found.rbegin(), found.rend()};
    }
    return found;
}

} // namespace

void CFStringAppend(CFMutableStringRef theString, CFStringRef appendedString) {
    bufferOf(theString, __func__).append(textOf(appendedString, __func__));
}

void CFStringAppendCharacters(CFMutableStringRef theString, const UniChar *chars,
                              CFIndex numChars) {
    TextBuffer &text = bufferOf(theString, __func__);
    if (numChars < 0 || (chars == nullptr && numChars > 0)) {
        fatal(__func__, "no characters");
    }
    text.append({chars, numChars, true});
}

void CFStringAppendCString(CFMutableStringRef theString, const char *cStr,
                           CFStringEncoding encoding) {
    TextBuffer &text = bufferOf(theString, __func__);
    const Owner appended(CFStringCreateWithCString(kCFAllocatorDefault, cStr, encoding));
    if (appended.get() != nullptr) {
        text.append(viewOf(appended.get()));
    }
}

void CFStringInsert(CFMutableStringRef str, CFIndex idx, CFStringRef insertedStr) {
    CFStringReplace(str, CFRangeMake(idx, 0), insertedStr);
}

void CFStringDelete(CFMutableStringRef theString, CFRange range) {
    TextBuffer &text = bufferOf(theString, __func__);
    requireRange(text.view(), range, __func__);
    text.replace(range.location, range.length, {});
}

void CFStringReplace(CFMutableStringRef theString, CFRange range, CFStringRef replacement) {
    TextBuffer &text = bufferOf(theString, __func__);
    requireRange(text.view(), range, __func__);
    text.replace(range.location, range.length, textOf(replacement, __func__));
}

void CFStringReplaceAll(CFMutableStringRef theString, CFStringRef replacement) {
    TextBuffer &text = bufferOf(theString, __func__);
    text.replace(0, text.length(), textOf(replacement, __func__));
}

CFIndex CFStringFindAndReplace(CFMutableStringRef theString, CFStringRef stringToFind,
                               CFStringRef replacementString, CFRange rangeToSearch,
                               CFStringCompareFlags compareOptions) {
    TextBuffer &text = bufferOf(theString, __func__);
    requireRange(text.view(), rangeToSearch, __func__);
    const TextView before = text.view();
    const TextView pattern = textOf(stringToFind, __func__);
    const TextView replacement = textOf(replacementString, __func__);
    const auto found = occurrences(before, pattern, rangeToSearch, compareOptions);
    if (found.empty()) {
        return 0;
    }
    TextBuffer result(nullptr);
    CFIndex done = 0;
    for (const CFIndex at : found) {
        result.append(before.sub(done, at - done));
        result.append(replacement);
        done = at + pattern.length;
    }
    result.append(before.sub(done, before.length - done));
    text.replace(0, before.length, result.view());
    return static_cast<CFIndex>(found.size());
}

void CFStringLowercase(CFMutableStringRef theString, CFLocaleRef /*locale*/) {
    rewrite(bufferOf(theString, __func__), appendLowercase);
}

void CFStringUppercase(CFMutableStringRef theString, CFLocaleRef /*locale*/) {
    rewrite(bufferOf(theString, __func__), appendUppercase);
}

void CFStringTrimWhitespace(CFMutableStringRef theString) {
    TextBuffer &text = bufferOf(theString, __func__);
    const TextView view = text.view();
    CFIndex begin = 0;
    CFIndex end = view.length;
    while (begin < end && isWhitespace(view.at(begin))) {
        ++begin;
    }
    while (end > begin && isWhitespace(view.at(end - 1))) {
        --end;
    }
    text.replace(end, view.length - end, {});
    text.replace(0, begin, {});
}
