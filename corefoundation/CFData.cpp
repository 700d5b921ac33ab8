#include <CoreFoundation/CFData.h>

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Checks.hpp"
#include "corefoundation/ContentHash.hpp"
#include "corefoundation/Description.hpp"

#include <cstring>

// An immutable data, whose bytes follow, unless a flag says that it is an
// OutOfLineData.
struct __CFData {
    CFRuntimeBase base;
    CFIndex length;
};

using namespace CFInternal;

namespace {

enum DataFlags : std::uint8_t { kInline = 0, kMutable = 1, kForeign = 2 };

struct OutOfLineData : __CFData {
    UInt8 *bytes;
    CFIndex capacity;           // of a mutable data's buffer
    CFAllocatorRef deallocator; // of foreign bytes, retained
};

constexpr std::size_t kHeaderSize = sizeof(CFRuntimeBase);
// Small enough to waste little, large enough for a digest without growing.
constexpr CFIndex kMinimumCapacity = 32;
constexpr CFIndex kNowhere = kCFNotFound;

constinit const __CFData emptyData = {immortalBase(kDataTypeID), 0};
// Where an empty mutable data without a buffer points.
constinit UInt8 noBytes[1] = {0};

OutOfLineData *outOfLine(CFDataRef data) {
    return static_cast<OutOfLineData *>(const_cast<__CFData *>(data));
}

const UInt8 *bytesOf(CFDataRef data) {
    return flagsOf(data) == kInline ? reinterpret_cast<const UInt8 *>(data + 1)
                                    : outOfLine(data)->bytes;
}

CFIndex lengthOf(CFDataRef data, const char *function) {
    requireType(data, kDataTypeID, function);
    return data->length;
}

OutOfLineData *mutableData(CFMutableDataRef data, const char *function) {
    requireType(data, kDataTypeID, function);
    require(flagsOf(data) == kMutable, function, "immutable data");
    return outOfLine(data);
}

void requireBytes(const UInt8 *bytes, CFIndex length, const char *function) {
    require(length >= 0, function, "negative length");
    require(bytes != nullptr || length == 0, function, "null bytes");
}

void copyBytes(UInt8 *to, const UInt8 *from, CFIndex length) {
    if (length > 0) {
        std::memcpy(to, from, static_cast<std::size_t>(length));
    }
}

void moveBytes(UInt8 *to, const UInt8 *from, CFIndex length) {
    if (length > 0) {
        std::memmove(to, from, static_cast<std::size_t>(length));
    }
}

OutOfLineData *allocateOutOfLine(CFAllocatorRef allocator, DataFlags flags) {
    auto *data = static_cast<OutOfLineData *>(
        allocateInstance(allocator, kDataTypeID, sizeof(OutOfLineData) - kHeaderSize, flags));
    if (data != nullptr) {
        data->length = 0;
        data->bytes = noBytes;
        data->capacity = 0;
        data->deallocator = nullptr;
    }
    return data;
}

bool setCapacity(OutOfLineData *data, CFIndex capacity) {
    CFAllocatorRef allocator = CFGetAllocator(data);
    void *grown = data->capacity == 0 ? CFAllocatorAllocate(allocator, capacity, 0)
                                      : CFAllocatorReallocate(allocator, data->bytes, capacity, 0);
    if (grown == nullptr) {
        return false;
    }
    data->bytes = static_cast<UInt8 *>(grown);
    data->capacity = capacity;
    return true;
}

void makeRoom(OutOfLineData *data, CFIndex length) {
    if (length > data->capacity) {
        const CFIndex capacity = grownCapacity(data->capacity, length, kMinimumCapacity);
        requireMemory(setCapacity(data, capacity));
    }
}

CFIndex addLengths(CFIndex a, CFIndex b, const char *function) {
    CFIndex sum = 0;
    require(!__builtin_add_overflow(a, b, &sum), function, "length beyond the address space");
    return sum;
}

void setLength(OutOfLineData *data, CFIndex length, const char *function) {
    require(length >= 0, function, "negative length");
    makeRoom(data, length);
    if (length > data->length) {
        std::memset(data->bytes + data->length, 0, static_cast<std::size_t>(length - data->length));
    }
    data->length = length;
}

// Opens or closes the gap between the head and the tail of the data around the range.
void resizeRange(OutOfLineData *data, CFRange range, CFIndex newLength, const char *function) {
    const CFIndex total = addLengths(data->length - range.length, newLength, function);
    makeRoom(data, total);
    const CFIndex end = range.location + range.length;
    moveBytes(data->bytes + range.location + newLength, data->bytes + end, data->length - end);
    data->length = total;
}

bool liesWithin(const UInt8 *bytes, const OutOfLineData *data) {
    const auto address = reinterpret_cast<std::uintptr_t>(bytes);
    const auto start = reinterpret_cast<std::uintptr_t>(data->bytes);
    return address >= start && address - start < static_cast<std::uintptr_t>(data->length);
}

void replaceBytes(OutOfLineData *data, CFRange range, const UInt8 *bytes, CFIndex length,
                  const char *function) {
    // The bytes would move, or be overwritten, before they are read.
    if (length > 0 && liesWithin(bytes, data)) {
        const Owner copy(CFDataCreate(nullptr, bytes, length));
        requireMemory(copy.get() != nullptr);
        resizeRange(data, range, length, function);
        copyBytes(data->bytes + range.location, bytesOf(copy.get()), length);
        return;
    }
    resizeRange(data, range, length, function);
    copyBytes(data->bytes + range.location, bytes, length);
}

void finalizeData(CFTypeRef cf) {
    const auto *data = static_cast<CFDataRef>(cf);
    if (flagsOf(data) == kInline) {
        return;
    }
    const OutOfLineData *owner = outOfLine(data);
    if (owner->deallocator != nullptr) {
        CFAllocatorDeallocate(owner->deallocator, owner->bytes);
        CFRelease(owner->deallocator);
    } else if (owner->capacity > 0) {
        CFAllocatorDeallocate(CFGetAllocator(cf), owner->bytes);
    }
}

Boolean equalData(CFTypeRef cf1, CFTypeRef cf2) {
    const auto *a = static_cast<CFDataRef>(cf1);
    const auto *b = static_cast<CFDataRef>(cf2);
    return a->length == b->length &&
           (a->length == 0 ||
            std::memcmp(bytesOf(a), bytesOf(b), static_cast<std::size_t>(a->length)) == 0);
}

CFHashCode hashData(CFTypeRef cf) {
    const auto *data = static_cast<CFDataRef>(cf);
    return hashBytes(bytesOf(data), static_cast<std::size_t>(data->length));
}

CFStringRef describeData(CFTypeRef cf, CFDictionaryRef) {
    // Enough to tell two apart; whole contents would flood a log.
    constexpr CFIndex kShownBytes = 24;
    const auto *data = static_cast<CFDataRef>(cf);
    std::string text = "{length = " + std::to_string(data->length) + ", bytes = 0x";
    const CFIndex shown = data->length < kShownBytes ? data->length : kShownBytes;
    appendHex(text, bytesOf(data), shown, "0123456789abcdef");
    text += shown < data->length ? "...}" : "}";
    return createString(text);
}

bool matchesAt(CFDataRef data, CFIndex location, CFDataRef wanted) {
    return std::memcmp(bytesOf(data) + location, bytesOf(wanted),
                       static_cast<std::size_t>(wanted->length)) == 0;
}

CFIndex findForwards(CFDataRef data, CFDataRef wanted, CFRange range) {
    const UInt8 *start = bytesOf(data) + range.location;
    const void *found = memmem(start, static_cast<std::size_t>(range.length), bytesOf(wanted),
                               static_cast<std::size_t>(wanted->length));
    return found == nullptr ? kNowhere : static_cast<const UInt8 *>(found) - bytesOf(data);
}

CFIndex findBackwards(CFDataRef data, CFDataRef wanted, CFRange range) {
    for (CFIndex at = range.location + range.length - wanted->length; at >= range.location; --at) {
        if (matchesAt(data, at, wanted)) {
            return at;
        }
    }
    return kCFNotFound;
}

CFIndex findAnchored(CFDataRef data, CFDataRef wanted, CFRange range, bool backwards) {
    const CFIndex at = backwards ? range.location + range.length - wanted->length : range.location;
    return matchesAt(data, at, wanted) ? at : kNowhere;
}

} // namespace

constinit const CFRuntimeClass CFInternal::kDataClass = {
    0, "CFData", nullptr, nullptr, finalizeData, equalData, hashData, describeData, nullptr};

CFTypeID CFDataGetTypeID(void) { return kDataTypeID; }

CFDataRef CFDataCreate(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length) {
    requireBytes(bytes, length, __func__);
    if (length == 0) {
        return &emptyData;
    }
    const CFIndex extra = sizeOrAbort(sizeof(__CFData) - kHeaderSize, length, 1, __func__);
    auto *data = static_cast<__CFData *>(allocateInstance(allocator, kDataTypeID, extra, kInline));
    if (data != nullptr) {
        data->length = length;
        copyBytes(reinterpret_cast<UInt8 *>(data + 1), bytes, length);
    }
    return data;
}

CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex length,
                                      CFAllocatorRef bytesDeallocator) {
    requireBytes(bytes, length, __func__);
    OutOfLineData *data = allocateOutOfLine(allocator, kForeign);
    if (data == nullptr) {
        return nullptr;
    }
    if (bytes != nullptr) {
        data->length = length;
        data->bytes = const_cast<UInt8 *>(bytes);
        data->deallocator = static_cast<CFAllocatorRef>(
            CFRetain(bytesDeallocator == nullptr ? CFAllocatorGetDefault() : bytesDeallocator));
    }
    return data;
}

CFDataRef CFDataCreateCopy(CFAllocatorRef allocator, CFDataRef theData) {
    const CFIndex length = lengthOf(theData, __func__);
    if (flagsOf(theData) == kInline) {
        return static_cast<CFDataRef>(CFRetain(theData));
    }
    // A no-copy data too: its bytes may go away before the copy does.
    return CFDataCreate(allocator, bytesOf(theData), length);
}

CFMutableDataRef CFDataCreateMutable(CFAllocatorRef allocator, CFIndex capacity) {
    require(capacity >= 0, __func__, "negative capacity");
    OutOfLineData *data = allocateOutOfLine(allocator, kMutable);
    if (data != nullptr && capacity > 0 && !setCapacity(data, boundedReserve(capacity))) {
        CFRelease(data);
        return nullptr;
    }
    return data;
}

CFMutableDataRef CFDataCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                         CFDataRef theData) {
    const CFIndex length = lengthOf(theData, __func__);
    require(capacity >= 0, __func__, "negative capacity");
    OutOfLineData *data = allocateOutOfLine(allocator, kMutable);
    if (data == nullptr || length == 0) {
        return data;
    }
    if (!setCapacity(data, length)) {
        CFRelease(data);
        return nullptr;
    }
    copyBytes(data->bytes, bytesOf(theData), length);
    data->length = length;
    return data;
}

CFIndex CFDataGetLength(CFDataRef theData) { return lengthOf(theData, __func__); }

const UInt8 *CFDataGetBytePtr(CFDataRef theData) {
    requireType(theData, kDataTypeID, __func__);
    return bytesOf(theData);
}

UInt8 *CFDataGetMutableBytePtr(CFMutableDataRef theData) {
    return mutableData(theData, __func__)->bytes;
}

void CFDataGetBytes(CFDataRef theData, CFRange range, UInt8 *buffer) {
    requireRange(range, lengthOf(theData, __func__), __func__);
    requireBytes(buffer, range.length, __func__);
    copyBytes(buffer, bytesOf(theData) + range.location, range.length);
}

void CFDataSetLength(CFMutableDataRef theData, CFIndex length) {
    setLength(mutableData(theData, __func__), length, __func__);
}

void CFDataIncreaseLength(CFMutableDataRef theData, CFIndex extraLength) {
    OutOfLineData *data = mutableData(theData, __func__);
    setLength(data, addLengths(data->length, extraLength, __func__), __func__);
}

void CFDataAppendBytes(CFMutableDataRef theData, const UInt8 *bytes, CFIndex length) {
    OutOfLineData *data = mutableData(theData, __func__);
    requireBytes(bytes, length, __func__);
    replaceBytes(data, CFRangeMake(data->length, 0), bytes, length, __func__);
}

void CFDataReplaceBytes(CFMutableDataRef theData, CFRange range, const UInt8 *newBytes,
                        CFIndex newLength) {
    OutOfLineData *data = mutableData(theData, __func__);
    requireRange(range, data->length, __func__);
    requireBytes(newBytes, newLength, __func__);
    replaceBytes(data, range, newBytes, newLength, __func__);
}

void CFDataDeleteBytes(CFMutableDataRef theData, CFRange range) {
    OutOfLineData *data = mutableData(theData, __func__);
    requireRange(range, data->length, __func__);
    resizeRange(data, range, 0, __func__);
}

CFRange CFDataFind(CFDataRef theData, CFDataRef dataToFind, CFRange searchRange,
                   CFDataSearchFlags compareOptions) {
    requireRange(searchRange, lengthOf(theData, __func__), __func__);
    const CFIndex length = lengthOf(dataToFind, __func__);
    if (length == 0 || length > searchRange.length) {
        return CFRangeMake(kCFNotFound, 0);
    }
    const bool backwards = (compareOptions & kCFDataSearchBackwards) != 0;
    CFIndex at = kCFNotFound;
    if ((compareOptions & kCFDataSearchAnchored) != 0) {
        at = findAnchored(theData, dataToFind, searchRange, backwards);
    } else {
        at = backwards ? findBackwards(theData, dataToFind, searchRange)
                       : findForwards(theData, dataToFind, searchRange);
    }
    return CFRangeMake(at, at == kCFNotFound ? 0 : length);
}
