#include "corefoundation/CFAllocatorInternal.hpp"

#include <CoreFoundation/CFString.h>

#include <cstdlib>

struct __CFAllocator {
    CFRuntimeBase base;
    CFAllocatorContext context;
};

namespace {

using namespace CFInternal;

void *mallocAllocate(CFIndex size, CFOptionFlags, void *) {
    return std::malloc(static_cast<std::size_t>(size));
}
void *mallocReallocate(void *ptr, CFIndex size, CFOptionFlags, void *) {
    return std::realloc(ptr, static_cast<std::size_t>(size));
}
void mallocDeallocate(void *ptr, void *) { std::free(ptr); }

constexpr CFAllocatorContext kMallocContext = {
    0,      nullptr, nullptr, nullptr, nullptr, mallocAllocate, mallocReallocate, mallocDeallocate,
    nullptr};
constexpr CFAllocatorContext kEmptyContext = {0,       nullptr, nullptr, nullptr, nullptr,
                                              nullptr, nullptr, nullptr, nullptr};

constexpr __CFAllocator systemDefault = {immortalBase(kAllocatorTypeID), kMallocContext};
constexpr __CFAllocator mallocAllocator = {immortalBase(kAllocatorTypeID), kMallocContext};
constexpr __CFAllocator mallocZone = {immortalBase(kAllocatorTypeID), kMallocContext};
constexpr __CFAllocator nullAllocator = {immortalBase(kAllocatorTypeID), kEmptyContext};
// Only its address matters.
constexpr __CFAllocator useContext = {immortalBase(kAllocatorTypeID), kEmptyContext};

const CFAllocatorContext &contextOf(CFAllocatorRef allocator, const char *function) {
    if (allocator == nullptr) {
        return kMallocContext;
    }
    requireType(allocator, kAllocatorTypeID, function);
    return allocator->context;
}

bool isSelfHosted(CFAllocatorRef allocator) {
    return allocator->base._cfisa == reinterpret_cast<std::uintptr_t>(allocator);
}

void releaseInfo(const CFAllocatorContext &context) {
    if (context.release != nullptr) {
        context.release(context.info);
    }
}

// A self-hosted allocator still needs its info to free itself: see deallocateSelfHosted.
void finalizeAllocator(CFTypeRef cf) {
    const auto *allocator = static_cast<CFAllocatorRef>(cf);
    if (!isSelfHosted(allocator)) {
        releaseInfo(allocator->context);
    }
}

CFStringRef copyAllocatorDescription(CFTypeRef cf) {
    const auto *allocator = static_cast<CFAllocatorRef>(cf);
    const CFAllocatorContext &context = allocator->context;
    CFStringRef info =
        context.copyDescription == nullptr ? nullptr : context.copyDescription(context.info);
    CFStringRef text = CFStringCreateWithFormat(kCFAllocatorDefault, nullptr,
                                                CFSTR("<CFAllocator %p>{info = %@}"), cf, info);
    if (info != nullptr) {
        CFRelease(info);
    }
    return text;
}

void *allocateSelfHosted(const CFAllocatorContext &context) {
    void *memory = context.allocate == nullptr
                       ? nullptr
                       : context.allocate(sizeof(__CFAllocator), 0, context.info);
    if (memory != nullptr) {
        static_cast<__CFAllocator *>(memory)->base = {reinterpret_cast<std::uintptr_t>(memory),
                                                      headerWord(kAllocatorTypeID, 0, 1)};
    }
    return memory;
}

} // namespace

constinit const CFRuntimeClass CFInternal::kAllocatorClass = {
    0,       "CFAllocator",           nullptr, nullptr, finalizeAllocator, nullptr, nullptr,
    nullptr, copyAllocatorDescription};

constinit const CFAllocatorRef kCFAllocatorDefault = nullptr;
constinit const CFAllocatorRef kCFAllocatorSystemDefault = &systemDefault;
constinit const CFAllocatorRef kCFAllocatorMalloc = &mallocAllocator;
constinit const CFAllocatorRef kCFAllocatorMallocZone = &mallocZone;
constinit const CFAllocatorRef kCFAllocatorNull = &nullAllocator;
constinit const CFAllocatorRef kCFAllocatorUseContext = &useContext;

bool CFInternal::isMallocAllocator(CFAllocatorRef allocator) noexcept {
    return allocator == nullptr || allocator->context.allocate == mallocAllocate;
}

void CFInternal::deallocateSelfHosted(CFAllocatorRef allocator) noexcept {
    const CFAllocatorContext context = allocator->context;
    if (context.deallocate != nullptr) {
        context.deallocate(const_cast<__CFAllocator *>(allocator), context.info);
    }
    releaseInfo(context);
}

CFTypeID CFAllocatorGetTypeID() { return kAllocatorTypeID; }

CFAllocatorRef CFAllocatorGetDefault() { return kCFAllocatorSystemDefault; }

CFAllocatorRef CFAllocatorCreate(CFAllocatorRef allocator, CFAllocatorContext *context) {
    if (context == nullptr) {
        fatal(__func__, "null context");
    }
    CFAllocatorContext own = *context;
    if (own.retain != nullptr) {
        own.info = const_cast<void *>(own.retain(own.info));
    }
    void *memory = allocator == kCFAllocatorUseContext
                       ? allocateSelfHosted(own)
                       : allocateInstance(allocator, kAllocatorTypeID,
                                          sizeof(__CFAllocator) - sizeof(CFRuntimeBase));
    if (memory == nullptr) {
        releaseInfo(own);
        return nullptr;
    }
    static_cast<__CFAllocator *>(memory)->context = own;
    return static_cast<CFAllocatorRef>(memory);
}

void *CFAllocatorAllocate(CFAllocatorRef allocator, CFIndex size, CFOptionFlags hint) {
    const CFAllocatorContext &context = contextOf(allocator, __func__);
    if (size < 1 || context.allocate == nullptr) {
        return nullptr;
    }
    return context.allocate(size, hint, context.info);
}

void *CFAllocatorReallocate(CFAllocatorRef allocator, void *ptr, CFIndex newsize,
                            CFOptionFlags hint) {
    if (ptr == nullptr) {
        return CFAllocatorAllocate(allocator, newsize, hint);
    }
    if (newsize < 1) {
        CFAllocatorDeallocate(allocator, ptr);
        return nullptr;
    }
    const CFAllocatorContext &context = contextOf(allocator, __func__);
    return context.reallocate == nullptr ? nullptr
                                         : context.reallocate(ptr, newsize, hint, context.info);
}

void CFAllocatorDeallocate(CFAllocatorRef allocator, void *ptr) {
    const CFAllocatorContext &context = contextOf(allocator, __func__);
    if (ptr != nullptr && context.deallocate != nullptr) {
        context.deallocate(ptr, context.info);
    }
}
