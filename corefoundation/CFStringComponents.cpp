// Joining and splitting.
#include "corefoundation/StringSearch.hpp"
#include "corefoundation/StringStorage.hpp"

#include <CoreFoundation/CFArray.h>

namespace {

using namespace CFInternal;

bool appendPiece(CFMutableArrayRef pieces, CFAllocatorRef allocator, const TextView &text) {
    CFStringRef piece = createString(allocator, text);
    if (piece == nullptr) {
        return false;
    }
    CFArrayAppendValue(pieces, piece);
    CFRelease(piece);
    return true;
}

bool appendPieces(CFMutableArrayRef pieces, CFAllocatorRef allocator, const TextView &text,
                  const TextView &separator) {
    CFIndex start = 0;
    for (;;) {
        const CFRange rest = CFRangeMake(start, text.length - start);
        const CFIndex at = findText(text, separator, rest, 0);
        const CFIndex end = at == kCFNotFound ? text.length : at;
        if (!appendPiece(pieces, allocator, text.sub(start, end - start))) {
            return false;
        }
        if (at == kCFNotFound) {
            return true;
        }
        start = at + separator.length;
    }
}

} // namespace

CFStringRef CFStringCreateByCombiningStrings(CFAllocatorRef allocator, CFArrayRef theArray,
                                             CFStringRef separatorString) {
    requireType(theArray, kArrayTypeID, __func__);
    const TextView separator =
        separatorString == nullptr ? TextView() : textOf(separatorString, __func__);
    TextBuffer text(nullptr);
    const CFIndex count = CFArrayGetCount(theArray);
    for (CFIndex i = 0; i < count; ++i) {
        if (i > 0) {
            text.append(separator);
        }
        const void *element = CFArrayGetValueAtIndex(theArray, i);
        text.append(textOf(static_cast<CFStringRef>(element), __func__));
    }
    return createString(allocator, text.view());
}

CFArrayRef CFStringCreateArrayBySeparatingStrings(CFAllocatorRef allocator, CFStringRef theString,
                                                  CFStringRef separatorString) {
    const TextView text = textOf(theString, __func__);
    const TextView separator = textOf(separatorString, __func__);
    CFMutableArrayRef pieces = CFArrayCreateMutable(allocator, 0, &kCFTypeArrayCallBacks);
    if (pieces == nullptr) {
        return nullptr;
    }
    const bool complete = appendPieces(pieces, allocator, text, separator);
    CFArrayRef result = complete ? CFArrayCreateCopy(allocator, pieces) : nullptr;
    CFRelease(pieces);
    return result;
}
