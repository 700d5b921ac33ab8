// Short words for making and reading objects in tests.
#pragma once

#include "support/cf/Pointer.hpp"

#include <CoreFoundation/CoreFoundation.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace Objects {

using CF::Adopt;

inline CF::Pointer<CFStringRef> String(std::string_view utf8) {
    return Adopt(CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8 *>(utf8.data()),
                                         static_cast<CFIndex>(utf8.size()), kCFStringEncodingUTF8,
                                         FALSE));
}

inline std::string UTF8(CFStringRef string) {
    if (string == nullptr) {
        return "(null)";
    }
    const CFRange all = CFRangeMake(0, CFStringGetLength(string));
    CFIndex size = 0;
    CFStringGetBytes(string, all, kCFStringEncodingUTF8, '?', FALSE, nullptr, 0, &size);
    std::string text(static_cast<std::size_t>(size), '\0');
    CFStringGetBytes(string, all, kCFStringEncodingUTF8, '?', FALSE,
                     reinterpret_cast<UInt8 *>(text.data()), size, &size);
    return text;
}

inline std::string Description(CFTypeRef object) {
    return UTF8(Adopt(CFCopyDescription(object)).get());
}

inline CF::Pointer<CFDataRef> Data(std::string_view bytes) {
    return Adopt(CFDataCreate(nullptr, reinterpret_cast<const UInt8 *>(bytes.data()),
                              static_cast<CFIndex>(bytes.size())));
}

inline std::string Bytes(CFDataRef data) {
    return {reinterpret_cast<const char *>(CFDataGetBytePtr(data)),
            static_cast<std::size_t>(CFDataGetLength(data))};
}

inline CF::Pointer<CFNumberRef> Integer(std::int64_t value) {
    return Adopt(CFNumberCreate(nullptr, kCFNumberSInt64Type, &value));
}

inline CF::Pointer<CFNumberRef> Real(double value) {
    return Adopt(CFNumberCreate(nullptr, kCFNumberFloat64Type, &value));
}

// Plain words for containers without callbacks.
inline const void *Word(std::uintptr_t value) { return reinterpret_cast<const void *>(value); }

// An allocator that counts what it hands out and has not got back.
class CountingAllocator {
  public:
    CountingAllocator() {
        CFAllocatorContext context{};
        context.info = this;
        context.allocate = [](CFIndex size, CFOptionFlags, void *info) {
            auto *self = static_cast<CountingAllocator *>(info);
            ++self->allocations;
            ++self->live;
            return std::malloc(static_cast<std::size_t>(size));
        };
        context.reallocate = [](void *block, CFIndex size, CFOptionFlags, void *) {
            return std::realloc(block, static_cast<std::size_t>(size));
        };
        context.deallocate = [](void *block, void *info) {
            --static_cast<CountingAllocator *>(info)->live;
            std::free(block);
        };
        allocator_ = Adopt(CFAllocatorCreate(nullptr, &context));
    }
    CFAllocatorRef get() const { return allocator_.get(); }

    int allocations = 0;
    int live = 0;

  private:
    CF::Pointer<CFAllocatorRef> allocator_;
};

} // namespace Objects
