#include "corefoundation/TextBuffer.hpp"

#include "corefoundation/CFInternal.hpp"
#include "corefoundation/Checks.hpp"

#include <algorithm>
#include <array>

namespace CFInternal {

namespace {

// First allocation: most texts that are built up are short lines.
constexpr CFIndex kSmallestCapacity = 64;

// Copies text into units of another width, or the same.
void copyUnits(const TextView &text, void *destination, bool wide) {
    if (text.length == 0) {
        return;
    }
    if (text.wide == wide) {
        std::memcpy(destination, text.data, text.byteSize());
    } else if (wide) {
        std::copy_n(text.narrowUnits(), text.length, static_cast<UniChar *>(destination));
    } else {
        std::transform(text.wideUnits(), text.wideUnits() + text.length,
                       static_cast<std::uint8_t *>(destination),
                       [](UniChar unit) { return static_cast<std::uint8_t>(unit); });
    }
}

bool fitsNarrow(const TextView &text) {
    return !text.wide || isASCII(text.wideUnits(), text.length);
}

} // namespace

TextBuffer::~TextBuffer() {
    if (data_ != scratch_) {
        CFAllocatorDeallocate(allocator_, data_);
    }
}

void TextBuffer::appendScalar(std::uint32_t scalar) {
    if (scalar < 0x10000) {
        appendUnit(static_cast<UniChar>(scalar));
        return;
    }
    const std::array<UniChar, 2> pair = {highSurrogate(scalar), lowSurrogate(scalar)};
    append({pair.data(), 2, true});
}

void TextBuffer::appendRepeated(char ascii, CFIndex count) {
    std::array<char, 64> chunk;
    chunk.fill(ascii);
    for (; count > 0; count -= static_cast<CFIndex>(chunk.size())) {
        append(narrowView(chunk.data(), static_cast<std::size_t>(std::min<CFIndex>(count, 64))));
    }
}

bool TextBuffer::overlaps(const TextView &text) const {
    const auto begin = reinterpret_cast<std::uintptr_t>(data_);
    const auto position = reinterpret_cast<std::uintptr_t>(text.data);
    return position - begin < static_cast<std::uintptr_t>(capacity_);
}

void TextBuffer::replace(CFIndex location, CFIndex count, const TextView &replacement) {
    if (!overlaps(replacement)) {
        replaceForeign(location, count, replacement);
        return;
    }
    TextBuffer copy(allocator_);
    copy.replaceForeign(0, 0, replacement);
    replaceForeign(location, count, copy.view());
}

void TextBuffer::replaceForeign(CFIndex location, CFIndex count, const TextView &replacement) {
    if (replacement.length > kMaxTextLength - (length_ - count)) {
        fatal("CFString", "text too long");
    }
    const CFIndex newLength = length_ - count + replacement.length;
    if (!wide_ && !fitsNarrow(replacement)) {
        widen();
    }
    makeRoom(newLength);
    const CFIndex tail = length_ - location - count;
    if (tail > 0) {
        std::memmove(bytesAt(location + replacement.length), bytesAt(location + count),
                     static_cast<std::size_t>(tail) * unitSize());
    }
    copyUnits(replacement, bytesAt(location), wide_);
    length_ = newLength;
    if (length_ == 0) {
        // Nothing is left that needs two bytes a unit.
        wide_ = false;
    }
}

void TextBuffer::reserve(CFIndex length) {
    makeRoom(std::clamp<CFIndex>(length, 0, kMaxTextLength));
}

// Grows by half as much again, so that appending one by one stays linear.
void TextBuffer::makeRoom(CFIndex length) {
    const CFIndex needed = length * static_cast<CFIndex>(unitSize());
    if (needed > capacity_) {
        moveTo(std::max({needed, capacity_ + capacity_ / 2, kSmallestCapacity}));
    }
}

void TextBuffer::moveTo(CFIndex bytes) {
    const bool owned = data_ != scratch_ || data_ == nullptr;
    void *moved = owned ? CFAllocatorReallocate(allocator_, data_, bytes, 0)
                        : CFAllocatorAllocate(allocator_, bytes, 0);
    requireMemory(moved != nullptr);
    if (!owned) {
        std::memcpy(moved, data_, view().byteSize());
    }
    data_ = moved;
    capacity_ = bytes;
}

void TextBuffer::widen() {
    makeRoom(length_ * 2);
    auto *narrow = static_cast<std::uint8_t *>(data_);
    auto *wide = static_cast<UniChar *>(data_);
    // From the end, since both lie in the same place.
    for (CFIndex i = length_ - 1; i >= 0; --i) {
        const UniChar unit = narrow[i];
        std::memcpy(wide + i, &unit, sizeof(unit));
    }
    wide_ = true;
}

const char *TextBuffer::terminatedNarrow() {
    if (wide_) {
        return nullptr;
    }
    makeRoom(length_ + 1);
    auto *text = static_cast<char *>(data_);
    text[length_] = '\0';
    return text;
}

} // namespace CFInternal
