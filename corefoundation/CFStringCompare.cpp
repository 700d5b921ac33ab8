// Comparing and searching.
#include "corefoundation/StringSearch.hpp"
#include "corefoundation/StringStorage.hpp"
#include "corefoundation/UnicodeProperties.hpp"

#include <algorithm>

namespace {

using namespace CFInternal;

template <class Value>
CFComparisonResult order(Value a, Value b) {
    if (a == b) {
        return kCFCompareEqualTo;
    }
    return a < b ? kCFCompareLessThan : kCFCompareGreaterThan;
}

template <class A, class B>
CFComparisonResult compareUnits(const A *a, CFIndex lengthA, const B *b, CFIndex lengthB) {
    const CFIndex common = std::min(lengthA, lengthB);
    const auto [endA, endB] = std::mismatch(a, a + common, b);
    return endA == a + common ? order(lengthA, lengthB) : order<std::uint32_t>(*endA, *endB);
}

CFComparisonResult compareLiterally(const TextView &a, const TextView &b) {
    return withUnits(a, [&](const auto *unitsA, CFIndex lengthA) {
        return withUnits(b, [&](const auto *unitsB, CFIndex lengthB) {
            return compareUnits(unitsA, lengthA, unitsB, lengthB);
        });
    });
}

bool isHighAt(const TextView &text, CFIndex i) {
    return i >= 0 && i < text.length && isHighSurrogate(text.at(i));
}
bool isLowAt(const TextView &text, CFIndex i) {
    return i < text.length && isLowSurrogate(text.at(i));
}

// The unit at i of the case-folded text, which has as many units as the text itself.
UniChar foldedUnit(const TextView &text, CFIndex i) {
    const UniChar unit = text.at(i);
    if (unit < 0x80) {
        return unit >= 'A' && unit <= 'Z' ? static_cast<UniChar>(unit + 32) : unit;
    }
    if (isHighSurrogate(unit) && isLowAt(text, i + 1)) {
        return highSurrogate(foldCase(scalarFromPair(unit, text.at(i + 1))));
    }
    if (isLowSurrogate(unit) && isHighAt(text, i - 1)) {
        return lowSurrogate(foldCase(scalarFromPair(text.at(i - 1), unit)));
    }
    return static_cast<UniChar>(foldCase(unit));
}

UniChar unitAt(const TextView &text, CFIndex i, CFStringCompareFlags options) {
    return (options & kCFCompareCaseInsensitive) != 0 ? foldedUnit(text, i) : text.at(i);
}

bool isDigitAt(const TextView &text, CFIndex i) {
    return i < text.length && text.at(i) >= '0' && text.at(i) <= '9';
}

// The digits of a number without leading zeros.
TextView significantDigits(const TextView &text, CFIndex &i) {
    while (isDigitAt(text, i) && text.at(i) == '0') {
        ++i;
    }
    const CFIndex start = i;
    while (isDigitAt(text, i)) {
        ++i;
    }
    return text.sub(start, i - start);
}

CFComparisonResult compareNumbers(const TextView &a, CFIndex &i, const TextView &b, CFIndex &j) {
    const TextView digitsA = significantDigits(a, i);
    const TextView digitsB = significantDigits(b, j);
    return digitsA.length != digitsB.length ? order(digitsA.length, digitsB.length)
                                            : compareLiterally(digitsA, digitsB);
}

CFComparisonResult compareWithOptions(const TextView &a, const TextView &b,
                                      CFStringCompareFlags options) {
    CFIndex i = 0;
    CFIndex j = 0;
    while (i < a.length && j < b.length) {
        CFComparisonResult result = kCFCompareEqualTo;
        if ((options & kCFCompareNumerically) != 0 && isDigitAt(a, i) && isDigitAt(b, j)) {
            result = compareNumbers(a, i, b, j);
        } else {
            result = order(unitAt(a, i++, options), unitAt(b, j++, options));
        }
        if (result != kCFCompareEqualTo) {
            return result;
        }
    }
    return order(a.length - i, b.length - j);
}

CFComparisonResult compareTexts(const TextView &a, const TextView &b,
                                CFStringCompareFlags options) {
    if ((options & (kCFCompareCaseInsensitive | kCFCompareNumerically)) == 0) {
        return compareLiterally(a, b);
    }
    const CFComparisonResult result = compareWithOptions(a, b, options);
    const bool force = (options & kCFCompareForcedOrdering) != 0;
    return result == kCFCompareEqualTo && force ? compareLiterally(a, b) : result;
}

bool matchesAt(const TextView &text, CFIndex at, const TextView &pattern,
               CFStringCompareFlags options) {
    for (CFIndex i = 0; i < pattern.length; ++i) {
        if (unitAt(text, at + i, options) != unitAt(pattern, i, options)) {
            return false;
        }
    }
    return true;
}

// Linear time, by the C library.
CFIndex findBytes(const TextView &text, const TextView &pattern, CFRange range) {
    const auto *start = text.narrowUnits() + range.location;
    const void *found =
        memmem(start, static_cast<std::size_t>(range.length), pattern.data, pattern.byteSize());
    return found == nullptr ? CFIndex{kCFNotFound}
                            : static_cast<const std::uint8_t *>(found) - text.narrowUnits();
}

CFIndex findForwards(const TextView &text, const TextView &pattern, CFIndex first, CFIndex last,
                     CFStringCompareFlags options) {
    for (CFIndex at = first; at <= last; ++at) {
        if (matchesAt(text, at, pattern, options)) {
            return at;
        }
    }
    return kCFNotFound;
}

CFIndex findBackwards(const TextView &text, const TextView &pattern, CFIndex first, CFIndex last,
                      CFStringCompareFlags options) {
    for (CFIndex at = last; at >= first; --at) {
        if (matchesAt(text, at, pattern, options)) {
            return at;
        }
    }
    return kCFNotFound;
}

} // namespace

CFIndex CFInternal::findText(const TextView &text, const TextView &pattern, CFRange range,
                             CFStringCompareFlags options) {
    if (pattern.length == 0 || pattern.length > range.length) {
        return kCFNotFound;
    }
    const bool backwards = (options & kCFCompareBackwards) != 0;
    CFIndex first = range.location;
    CFIndex last = range.location + range.length - pattern.length;
    if ((options & kCFCompareAnchored) != 0) {
        first = backwards ? last : first;
        last = first;
    } else if (!backwards && !text.wide && !pattern.wide &&
               (options & kCFCompareCaseInsensitive) == 0) {
        return findBytes(text, pattern, range);
    }
    return backwards ? findBackwards(text, pattern, first, last, options)
                     : findForwards(text, pattern, first, last, options);
}

CFComparisonResult CFStringCompare(CFStringRef theString1, CFStringRef theString2,
                                   CFStringCompareFlags compareOptions) {
    return compareTexts(textOf(theString1, __func__), textOf(theString2, __func__), compareOptions);
}

CFComparisonResult CFStringCompareWithOptions(CFStringRef theString1, CFStringRef theString2,
                                              CFRange rangeToCompare,
                                              CFStringCompareFlags compareOptions) {
    const TextView text = textOf(theString1, __func__);
    requireRange(text, rangeToCompare, __func__);
    return compareTexts(text.sub(rangeToCompare), textOf(theString2, __func__), compareOptions);
}

CFRange CFStringFind(CFStringRef theString, CFStringRef stringToFind,
                     CFStringCompareFlags compareOptions) {
    CFRange result = CFRangeMake(kCFNotFound, 0);
    CFStringFindWithOptions(theString, stringToFind,
                            CFRangeMake(0, textOf(theString, __func__).length), compareOptions,
                            &result);
    return result;
}

Boolean CFStringFindWithOptions(CFStringRef theString, CFStringRef stringToFind,
                                CFRange rangeToSearch, CFStringCompareFlags searchOptions,
                                CFRange *result) {
    const TextView text = textOf(theString, __func__);
    requireRange(text, rangeToSearch, __func__);
    const TextView pattern = textOf(stringToFind, __func__);
    const CFIndex at = findText(text, pattern, rangeToSearch, searchOptions);
    if (at != kCFNotFound && result != nullptr) {
        *result = CFRangeMake(at, pattern.length);
    }
    return at != kCFNotFound;
}

Boolean CFStringHasPrefix(CFStringRef theString, CFStringRef prefix) {
    return CFStringFind(theString, prefix, kCFCompareAnchored).location != kCFNotFound;
}

Boolean CFStringHasSuffix(CFStringRef theString, CFStringRef suffix) {
    return CFStringFind(theString, suffix, kCFCompareAnchored | kCFCompareBackwards).location !=
           kCFNotFound;
}
