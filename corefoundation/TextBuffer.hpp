#pragma once

#include "corefoundation/TextView.hpp"

#include <span>

namespace CFInternal {

// Growing text, one byte a unit until the first one beyond ASCII arrives. The contents
// of mutable strings and the work space of the formatter. Out of memory it throws
// std::bad_alloc.
class TextBuffer {
  public:
    // Memory comes from the allocator, which must outlive the buffer.
    explicit TextBuffer(CFAllocatorRef allocator) noexcept : allocator_(allocator) {}
    // Starts in the scratch space, which must outlive the buffer and be aligned for units.
    TextBuffer(CFAllocatorRef allocator, std::span<char> scratch) noexcept
        : data_(scratch.data()), capacity_(static_cast<CFIndex>(scratch.size())),
          allocator_(allocator), scratch_(scratch.data()) {}
    TextBuffer(const TextBuffer &) = delete;
    TextBuffer &operator=(const TextBuffer &) = delete;
    ~TextBuffer();

    TextView view() const { return {data_, length_, wide_}; }
    CFIndex length() const { return length_; }

    void append(const TextView &text) { replace(length_, 0, text); }
    void appendUnit(UniChar unit) { append({&unit, 1, true}); }
    void appendScalar(std::uint32_t scalar);
    // count times the same ASCII character.
    void appendRepeated(char ascii, CFIndex count);
    // Replaces count units at location, which must lie within the text; the replacement
    // may be part of this very buffer.
    void replace(CFIndex location, CFIndex count, const TextView &replacement);
    // Makes room for that many units in all.
    void reserve(CFIndex length);
    // A NUL behind the text, so that narrow text is a C string.
    const char *terminatedNarrow();

  private:
    void replaceForeign(CFIndex location, CFIndex count, const TextView &replacement);
    void makeRoom(CFIndex length);
    void widen();
    void moveTo(CFIndex bytes);
    bool overlaps(const TextView &text) const;
    std::size_t unitSize() const { return wide_ ? 2 : 1; }
    char *bytesAt(CFIndex unit) const {
        return static_cast<char *>(data_) + (wide_ ? unit * 2 : unit);
    }

    void *data_ = nullptr;
    CFIndex length_ = 0;
    CFIndex capacity_ = 0; // bytes
    CFAllocatorRef allocator_;
    void *scratch_ = nullptr;
    bool wide_ = false;
};

} // namespace CFInternal
