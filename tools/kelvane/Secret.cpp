#include "Secret.hpp"

#include "support/cf/Pointer.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace tool {

namespace {

// In front of every block: its size, which the deallocation callback is not told.
constexpr std::size_t kHeader = alignof(std::max_align_t);

void *allocate(CFIndex size, CFOptionFlags, void *) {
    const auto length = static_cast<std::size_t>(size);
    auto *block = static_cast<std::uint8_t *>(std::malloc(kHeader + length));
    if (block == nullptr) {
        return nullptr;
    }
    std::memcpy(block, &length, sizeof length);
    return block + kHeader;
}

std::size_t sizeOf(const void *memory) {
    std::size_t length = 0;
    std::memcpy(&length, static_cast<const std::uint8_t *>(memory) - kHeader, sizeof length);
    return length;
}

void deallocate(void *memory, void *) {
    Wipe(memory, sizeOf(memory));
    std::free(static_cast<std::uint8_t *>(memory) - kHeader);
}

void *reallocate(void *memory, CFIndex size, CFOptionFlags hint, void *info) {
    void *moved = allocate(size, hint, info);
    if (moved != nullptr) {
        const std::size_t old = sizeOf(memory);
        const auto length = static_cast<std::size_t>(size);
        std::memcpy(moved, memory, old < length ? old : length);
        deallocate(memory, info);
    }
    return moved;
}

} // namespace

void Wipe(void *bytes, std::size_t length) noexcept {
    volatile auto *byte = static_cast<volatile unsigned char *>(bytes);
    while (length-- > 0) {
        *byte++ = 0;
    }
}

void Secret::append(char c) {
    if (text_.size() == text_.capacity()) {
        std::string larger;
        larger.reserve(2 * text_.capacity() + 1);
        larger = text_;
        text_.swap(larger);
        Wipe(larger.data(), larger.size());
    }
    text_.push_back(c);
}

void Secret::clear() noexcept {
    Wipe(text_.data(), text_.size());
    text_.clear();
}

CFAllocatorRef WipingAllocator() {
    static const CFAllocatorRef allocator = [] {
        CFAllocatorContext context{};
        context.allocate = &allocate;
        context.reallocate = &reallocate;
        context.deallocate = &deallocate;
        return CF::Made(CFAllocatorCreate(kCFAllocatorDefault, &context));
    }();
    return allocator;
}

} // namespace tool
