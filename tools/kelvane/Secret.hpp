// Strings whose bytes are overwritten when they are dropped.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <string>

namespace tool {

// Overwrites the bytes in a way that the compiler does not remove.
void Wipe(void *bytes, std::size_t length) noexcept;

// Text that wipes itself. Not copyable, so that there is one place to wipe.
class Secret {
  public:
    Secret() = default;
    Secret(const Secret &) = delete;
    Secret &operator=(const Secret &) = delete;
    ~Secret() { Wipe(text_.data(), text_.capacity()); }

    const std::string &get() const noexcept { return text_; }
    // Growing by hand: a string that reallocates leaves its old bytes behind.
    void append(char c);
    void clear() noexcept;

  private:
    std::string text_;
};

// An allocator that overwrites what it frees, for CoreFoundation strings that hold secrets.
// Borrowed; lives as long as the process.
CFAllocatorRef WipingAllocator();

} // namespace tool
