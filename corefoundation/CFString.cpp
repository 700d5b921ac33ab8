// The string class: creation, equality, hash, description and plain reading.
#include "corefoundation/Checks.hpp"
#include "corefoundation/ContentHash.hpp"
#include "corefoundation/StringStorage.hpp"
#include "corefoundation/TextEncoding.hpp"

#include <algorithm>
#include <new>

namespace {

using namespace CFInternal;

// ---- class callbacks ----

void finalizeString(CFTypeRef cf) {
    const std::uint8_t flags = flagsOf(cf);
    if ((flags & kStringMutable) != 0) {
        auto *string = static_cast<MutableString *>(const_cast<void *>(cf));
        string->text.~TextBuffer();
    } else if ((flags & kStringExternal) != 0) {
        const auto *string = static_cast<const ExternalString *>(cf);
        CFAllocatorDeallocate(string->deallocator, const_cast<void *>(string->contents));
        if (string->deallocator != nullptr) {
            CFRelease(string->deallocator);
        }
    }
}

bool equalUnits(const TextView &a, const TextView &b) {
    if (a.wide == b.wide) {
        return a.length == 0 || std::memcmp(a.data, b.data, a.byteSize()) == 0;
    }
    const TextView &wide = a.wide ? a : b;
    const TextView &narrow = a.wide ? b : a;
    return std::equal(wide.wideUnits(), wide.wideUnits() + wide.length, narrow.narrowUnits());
}

Boolean equalStrings(CFTypeRef cf1, CFTypeRef cf2) {
    const TextView a = viewOf(static_cast<CFStringRef>(cf1));
    const TextView b = viewOf(static_cast<CFStringRef>(cf2));
    return a.length == b.length && equalUnits(a, b);
}

CFHashCode hashString(CFTypeRef cf) { return hashText(viewOf(static_cast<CFStringRef>(cf))); }

CFStringRef copyStringDebugDescription(CFTypeRef cf) {
    const bool isMutable = (flagsOf(cf) & kStringMutable) != 0;
    return CFStringCreateWithFormat(kCFAllocatorDefault, nullptr,
                                    CFSTR("<%s %p>{contents = \"%@\"}"),
                                    isMutable ? "CFMutableString" : "CFString", cf, cf);
}

// ---- creation ----

struct EmptyString : InlineString {
    char terminator[sizeof(CFIndex)];
};
constexpr EmptyString emptyString = {{{{immortalBase(kStringTypeID, kStringTerminated)}, 0}}, {}};

CFStringRef createNarrow(CFAllocatorRef allocator, const void *ascii, CFIndex length) {
    if (length == 0) {
        return retainedEmptyString();
    }
    void *units = nullptr;
    CFStringRef string = createUnfilled(allocator, length, false, &units);
    if (string != nullptr) {
        std::memcpy(units, ascii, static_cast<std::size_t>(length));
    }
    return string;
}

// Two passes over the bytes, so that there is one allocation of the right size.
CFStringRef createDecoded(CFAllocatorRef allocator, Bytes bytes, const Encoding &encoding) {
    CFIndex length = 0;
    std::uint32_t seen = 0;
    const bool wellFormed = decodeUnits(bytes, encoding, [&](UniChar unit) {
        ++length;
        seen |= unit;
    });
    if (!wellFormed) {
        return nullptr;
    }
    if (length == 0) {
        return retainedEmptyString();
    }
    void *units = nullptr;
    const bool wide = seen >= 0x80;
    CFStringRef string = createUnfilled(allocator, length, wide, &units);
    if (string == nullptr) {
        return nullptr;
    }
    auto *narrowOut = static_cast<std::uint8_t *>(units);
    auto *wideOut = static_cast<UniChar *>(units);
    decodeUnits(bytes, encoding, [&](UniChar unit) {
        if (wide) {
            *wideOut++ = unit;
        } else {
            *narrowOut++ = static_cast<std::uint8_t>(unit);
        }
    });
    return string;
}

CFStringRef createExternal(CFAllocatorRef allocator, const TextView &text, bool terminated,
                           CFAllocatorRef deallocator) {
    constexpr CFIndex extra = sizeof(ExternalString) - sizeof(CFRuntimeBase);
    const int flags = kStringExternal | (text.wide ? int{kStringWide} : 0) |
                      (terminated ? int{kStringTerminated} : 0);
    auto *string = static_cast<ExternalString *>(
        allocateInstance(allocator, kStringTypeID, extra, static_cast<std::uint8_t>(flags)));
    if (string == nullptr) {
        return nullptr;
    }
    string->length = text.length;
    string->contents = text.data;
    string->deallocator = deallocator;
    if (deallocator != nullptr) {
        CFRetain(deallocator);
    }
    return string;
}

CFStringRef createFromBytes(CFAllocatorRef allocator, Bytes bytes, CFStringEncoding encoding,
                            bool external) {
    // The hot path: no mark to look for, since the marks are not ASCII.
    if (isByteOriented(encoding) && isASCII(bytes.data(), bytes.size())) {
        return createNarrow(allocator, bytes.data(), static_cast<CFIndex>(bytes.size()));
    }
    auto found = Encoding::find(encoding);
    if (!found) {
        return nullptr;
    }
    if (external) {
        consumeByteOrderMark(bytes, *found);
    }
    return createDecoded(allocator, bytes, *found);
}

CFStringRef createFromBytesNoCopy(CFAllocatorRef allocator, Bytes bytes, CFStringEncoding encoding,
                                  bool external, bool terminated, CFAllocatorRef deallocator) {
    if (isByteOriented(encoding) && isASCII(bytes.data(), bytes.size())) {
        return createExternal(allocator, narrowView(bytes.data(), bytes.size()), terminated,
                              deallocator);
    }
    CFStringRef string = createFromBytes(allocator, bytes, encoding, external);
    if (string != nullptr) {
        CFAllocatorDeallocate(deallocator, const_cast<std::uint8_t *>(bytes.data()));
    }
    return string;
}

bool isUsable(const void *pointer, CFIndex count) {
    return count >= 0 && count <= kMaxTextLength && (pointer != nullptr || count == 0);
}

// The bytes of a C string, or nothing when there is none in that encoding.
std::optional<Bytes> cStringBytes(const char *cStr, CFStringEncoding encoding) {
    if (cStr == nullptr || !isByteOriented(encoding)) {
        return std::nullopt;
    }
    return Bytes(reinterpret_cast<const std::uint8_t *>(cStr), std::strlen(cStr));
}

bool sharesContents(CFStringRef string, CFAllocatorRef allocator) {
    const std::uint8_t flags = flagsOf(string);
    if ((flags & kStringMutable) != 0) {
        return false;
    }
    if ((flags & kStringExternal) != 0 &&
        static_cast<const ExternalString *>(string)->deallocator == kCFAllocatorNull) {
        return false;
    }
    const CFAllocatorRef own = CFGetAllocator(string);
    return own == allocator || (isMallocAllocator(own) && isMallocAllocator(allocator));
}

} // namespace

constinit const CFRuntimeClass CFInternal::kStringClass = {
    0,          "CFString",     nullptr,
    nullptr,    finalizeString, equalStrings,
    hashString, nullptr,        copyStringDebugDescription};

CFStringRef CFInternal::createUnfilled(CFAllocatorRef allocator, CFIndex length, bool wide,
                                       void **units) {
    if (length > kMaxTextLength) {
        return nullptr;
    }
    const CFIndex bytes = wide ? length * 2 : length + 1;
    auto *string = static_cast<InlineString *>(
        allocateInstance(allocator, kStringTypeID, InlineString::kExtra + bytes,
                         wide ? kStringWide : kStringTerminated));
    if (string == nullptr) {
        return nullptr;
    }
    string->length = length;
    *units = string->units();
    if (!wide) {
        static_cast<char *>(*units)[length] = '\0';
    }
    return string;
}

CFStringRef CFInternal::createString(CFAllocatorRef allocator, const TextView &text) {
    if (!text.wide) {
        return createNarrow(allocator, text.data, text.length);
    }
    return CFStringCreateWithCharacters(allocator, text.wideUnits(), text.length);
}

CFStringRef CFInternal::retainedEmptyString() noexcept { return &emptyString; }

CFTypeID CFStringGetTypeID() { return kStringTypeID; }

CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char *cStr,
                                      CFStringEncoding encoding) {
    const auto bytes = cStringBytes(cStr, encoding);
    return bytes ? createFromBytes(allocator, *bytes, encoding, false) : nullptr;
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex numBytes,
                                    CFStringEncoding encoding, Boolean isExternalRepresentation) {
    if (!isUsable(bytes, numBytes)) {
        return nullptr;
    }
    return createFromBytes(allocator, Bytes(bytes, static_cast<std::size_t>(numBytes)), encoding,
                           isExternalRepresentation != 0);
}

CFStringRef CFStringCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8 *bytes,
                                          CFIndex numBytes, CFStringEncoding encoding,
                                          Boolean isExternalRepresentation,
                                          CFAllocatorRef contentsDeallocator) {
    if (!isUsable(bytes, numBytes)) {
        return nullptr;
    }
    return createFromBytesNoCopy(allocator, Bytes(bytes, static_cast<std::size_t>(numBytes)),
                                 encoding, isExternalRepresentation != 0, false,
                                 contentsDeallocator);
}

CFStringRef CFStringCreateWithCStringNoCopy(CFAllocatorRef allocator, const char *cStr,
                                            CFStringEncoding encoding,
                                            CFAllocatorRef contentsDeallocator) {
    const auto bytes = cStringBytes(cStr, encoding);
    return bytes ? createFromBytesNoCopy(allocator, *bytes, encoding, false, true,
                                         contentsDeallocator)
                 : nullptr;
}

CFStringRef CFStringCreateWithCharacters(CFAllocatorRef allocator, const UniChar *chars,
                                         CFIndex numChars) {
    if (!isUsable(chars, numChars)) {
        return nullptr;
    }
    if (numChars == 0) {
        return retainedEmptyString();
    }
    const bool wide = !isASCII(chars, numChars);
    void *units = nullptr;
    CFStringRef string = createUnfilled(allocator, numChars, wide, &units);
    if (string == nullptr) {
        return nullptr;
    }
    if (wide) {
        std::copy_n(chars, numChars, static_cast<UniChar *>(units));
    } else {
        std::transform(chars, chars + numChars, static_cast<std::uint8_t *>(units),
                       [](UniChar unit) { return static_cast<std::uint8_t>(unit); });
    }
    return string;
}

CFStringRef CFStringCreateWithCharactersNoCopy(CFAllocatorRef allocator, const UniChar *chars,
                                               CFIndex numChars,
                                               CFAllocatorRef contentsDeallocator) {
    if (!isUsable(chars, numChars)) {
        return nullptr;
    }
    return createExternal(allocator, {chars, numChars, true}, false, contentsDeallocator);
}

CFStringRef CFStringCreateCopy(CFAllocatorRef allocator, CFStringRef theString) {
    const TextView text = textOf(theString, __func__);
    if (sharesContents(theString, allocator)) {
        return static_cast<CFStringRef>(CFRetain(theString));
    }
    return createString(allocator, text);
}

CFStringRef CFStringCreateWithSubstring(CFAllocatorRef allocator, CFStringRef str, CFRange range) {
    const TextView text = textOf(str, __func__);
    requireRange(text, range, __func__);
    return createString(allocator, text.sub(range));
}

CFMutableStringRef CFStringCreateMutable(CFAllocatorRef allocator, CFIndex maxLength) {
    // Beyond this a hint is not worth believing before there is any text.
    constexpr CFIndex largestFirstBuffer = 4096;
    constexpr CFIndex extra = sizeof(MutableString) - sizeof(CFRuntimeBase);
    void *memory = allocateInstance(allocator, kStringTypeID, extra, kStringMutable);
    if (memory == nullptr) {
        return nullptr;
    }
    auto *string = static_cast<MutableString *>(memory);
    const auto *own = reinterpret_cast<CFAllocatorRef>(string->base._cfisa);
    new (&string->text) TextBuffer(own);
    return nullWhenOutOfMemory([&]() -> CFMutableStringRef {
        Owner<CFMutableStringRef> owner(string);
        if (maxLength > 0) {
            string->text.reserve(std::min(maxLength, largestFirstBuffer));
        }
        return owner.take();
    });
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef allocator, CFIndex maxLength,
                                             CFStringRef theString) {
    const TextView text = textOf(theString, __func__);
    return nullWhenOutOfMemory([&]() -> CFMutableStringRef {
        Owner copy(CFStringCreateMutable(allocator, maxLength));
        if (copy.get() != nullptr) {
            static_cast<MutableString *>(copy.get())->text.append(text);
        }
        return copy.take();
    });
}
