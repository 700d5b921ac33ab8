// Joining and splitting.
#include "corefoundation/Checks.hpp"
#include "corefoundation/StringSearch.hpp"
#include "corefoundation/StringStorage.hpp"

#include <CoreFoundation/CFArray.h>

namespace {

using namespace CFInternal;

void appendPiece(CFMutableArrayRef pieces, CFAllocatorRef allocator, const TextView &text) {
    const Owner piece(createString(allocator, text));
    requireMemory(piece.get() != nullptr);
    CFArrayAppendValue(pieces, piece.get());
}

void appendPieces(CFMutableArrayRef pieces, CFAllocatorRef allocator, const TextView &text,
                  const TextView &separator) {
    CFIndex start = 0;
    for (;;) {
        const CFRange rest = CFRangeMake(start, text.length - start);
        const CFIndex at = findText(text, separator, rest, 0);
        const CFIndex end = at == kCFNotFound ? text.length : at;
        appendPiece(pieces, allocator, text.sub(start, end - start));
        if (at == kCFNotFound) {
            return;
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
    return nullWhenOutOfMemory([&] {
        TextBuffer text(nullptr);
        const CFIndex count = CFArrayGetCount(theArray);
        for (CFIndex i = 0; i < count; ++i) {
            if (i > 0) {
                text.append(separator);
            }
            const void *element = CFArrayGetValueAtIndex(theArray, i);
            text.append(
                textOf(static_cast<CFStringRef>(element), "CFStringCreateByCombiningStrings"));
        }
        return createString(allocator, text.view());
    });
}

CFArrayRef CFStringCreateArrayBySeparatingStrings(CFAllocatorRef allocator, CFStringRef theString,
                                                  CFStringRef separatorString) {
    const TextView text = textOf(theString, __func__);
    const TextView separator = textOf(separatorString, __func__);
    return nullWhenOutOfMemory([&]() -> CFArrayRef {
        const Owner pieces(CFArrayCreateMutable(allocator, 0, &kCFTypeArrayCallBacks));
        requireMemory(pieces.get() != nullptr);
        appendPieces(pieces.get(), allocator, text, separator);
        return CFArrayCreateCopy(allocator, pieces.get());
    });
}
